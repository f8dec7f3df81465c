// Tests of the mapper rules file: the directories it makes, where its nodes
// go, what each rule's node reads, and the rules that end the process.
//
// One CPIO saveset holds 40 bytes of filler and then the newc record "d/item"
// with 100 bytes of data; the consolidated catalog is LSLv2.
#include "vfs/tq_vfs_mapper.h"

#include <gtest/gtest.h>
#include <utime.h>

#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "plugin/db_hooks.h"
#include "runtime/trace.h"
#include "support/cpio_fixture.h"
#include "support/test_util.h"
#include "vfs/tq_vfs_cache.h"
#include "vfs/tq_vfs_catalog.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_enum.h"
#include "vfs/tq_vfs_read.h"
#include "vfs/tq_vfs_saveset.h"

namespace {

const char* const kSaveset = "SF20261101020000";

// One LSLv2 item line (without line end): offset, relative offset, span,
// data size, then the saveset's name and a last field.
std::string CatalogLine(const std::string& path, char type, uint64_t off, int64_t rel, uint64_t size) {
  return "\"" + path + "\" " + type + " 2026-11-01 01:59:00 2026-11-01 01:58:30 " + std::to_string(off) + " " +
         std::to_string(rel) + " " + std::to_string(size + 120) + " " + std::to_string(size) + " 7 0 " + kSaveset +
         " 0";
}

// The text as a POSIX extended regular expression matching itself.
std::string Literal(const std::string& text) {
  std::string re;
  for (char c : text) {
    if (std::strchr("\\^$.|?*+()[]{}", c) != nullptr) re += '\\';
    re += c;
  }
  return re;
}

using Names = std::vector<std::wstring>;
Names NamesOf(const LIS_NODE* dir) {
  Names names;
  for (const LIS_NODE* n : dir->vChildren) names.push_back(n->wsName);
  return names;
}

class MapperTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Reset();
    const tvutest::OneRecordSaveset fixture = tvutest::MakeOneRecordSaveset(40);
    data_ = fixture.data;
    dataRel_ = fixture.dataRel;
    stream_ = fixture.stream;
    tvutest::WriteFile(tmp_ / (std::string(kSaveset) + ".cpio"), stream_);

    SAVESET s;
    memset(&s, 0, sizeof s);
    s.uiMediaType = smFILE;
    s.szName = strdup((tmp_ / (std::string(kSaveset) + ".cpio")).c_str());
    s.iDedupHandle = -1;
    idx_ = saveset_append(s);
    ASSERT_EQ(0, saveset_init(idx_));
    ASSERT_EQ(0, saveset_open(idx_));

    tvutest::WriteFile(catalog_, "Tape ID: T Tape Label: T Format: CPIO LIS: 2.0\n" +
                                     CatalogLine("d/item", 'f', 40, static_cast<int64_t>(dataRel_), 100) + "\n");
    CatalogSetPath(catalog_.c_str());
    ASSERT_EQ(0, DetectCatalogType());
    CatalogSetSavesetType(sdtCPIO);
    CatalogSetLineByLine(false);
    ASSERT_EQ(0, LISCacheInit());
    root_ = LISCacheRoot();
    tvu_set_meta_dir((meta_.path() + "/").c_str());
  }
  void TearDown() override { Reset(); }
  static void Reset() {
    korvo::trace_configure(0, nullptr);
    VfsSetMapperRulesFile("");
    LISCacheTerminate();
    VfsEnumReset();
    CatalogResetForTest();
    for (int32_t i = 0; i < g_iSavesetCount; ++i) saveset_close(i);
    saveset_table_free();
  }

  // Writes the rules and reads them; returns the level-2 trace.
  std::string Map(const std::string& rules) {
    tvutest::WriteFile(rules_, rules);
    VfsSetMapperRulesFile(rules_.c_str());
    const std::string trace = tmp_ / ("t" + std::to_string(++traces_) + ".trc");
    korvo::trace_configure(2, trace.c_str());
    EXPECT_EQ(0, initializeMAPPER_FS(nullptr));
    korvo::trace_configure(0, nullptr);
    return tvutest::FileExists(trace) ? tvutest::ReadFile(trace) : std::string();
  }
  // The rules must end the process with status 1 after the standard-error
  // line "ERROR: <message>", and leave the report in the status file.
  void ExpectFatal(const std::string& rules, const std::string& stderrLine, const std::string& report) {
    tvutest::WriteFile(rules_, rules);
    VfsSetMapperRulesFile(rules_.c_str());
    EXPECT_EXIT(initializeMAPPER_FS(nullptr), ::testing::ExitedWithCode(1), Literal(stderrLine + "\n")) << rules;
    const std::string status = tvutest::ReadFile(meta_ / "tvu_con.status");
    EXPECT_NE(std::string::npos, status.find(" ERROR INFO=" + report + "\n")) << status;
  }
  LIS_NODE* Node(const wchar_t* path) { return LISCacheFind(root_, path, false); }
  std::string Read(LIS_NODE* node, uint64_t offset, uint64_t size) {
    std::string buf(size, '\0');
    buf.resize(ReadFromVFS(kSaveset, node, offset, &buf[0], size));
    return buf;
  }

  tvutest::TempDir tmp_, meta_;
  const std::string catalog_ = tmp_ / "consolidated.lsl";
  const std::string rules_ = tmp_ / "rules.map";
  std::string data_, stream_;
  size_t dataRel_ = 0;
  int32_t idx_ = -1;
  LIS_NODE* root_ = nullptr;
  int traces_ = 0;
};

TEST_F(MapperTest, BlankLinesMakeOnlyTheFixedDirectories) {
  const std::string trc = Map("\n   \n\t\t\n \t \n");
  ASSERT_EQ((Names{L"MAPPER"}), NamesOf(root_));
  LIS_NODE* mapper = root_->vChildren[0];
  ASSERT_EQ((Names{L"INTERMEDIATE"}), NamesOf(mapper));
  for (const LIS_NODE* dir : {mapper, mapper->vChildren[0]}) {
    EXPECT_EQ('d', dir->cType);
    EXPECT_TRUE(dir->bChildrenPopulated);  // listing them never goes to the catalog
  }
  EXPECT_TRUE(mapper->vChildren[0]->vChildren.empty());
  EXPECT_FALSE(root_->bChildrenPopulated);  // the root is still filled from the catalog
  EXPECT_EQ(std::string::npos, trc.find("got token"));
  EXPECT_NE(std::string::npos, trc.find("reading rules from  " + rules_ + "\n"));
  EXPECT_NE(std::string::npos, trc.find("+++bitmap_finalize\n")) << trc;
}

// No rules file named is no error; a named one that is not there ends the
// process: the tree would lack every file it places.
TEST_F(MapperTest, UnnamedRulesFileIsNoErrorAMissingOneEndsTheProcess) {
  korvo::trace_configure(1, (tmp_ / "missing.trc").c_str());
  VfsSetMapperRulesFile(nullptr);
  EXPECT_EQ(0, initializeMAPPER_FS(nullptr));
  EXPECT_TRUE(root_->vChildren.empty());
  VfsSetMapperRulesFile(rules_.c_str());  // never written
  EXPECT_EXIT(initializeMAPPER_FS(nullptr), ::testing::ExitedWithCode(1),
              Literal("ERROR: cannot read from " + rules_ + "\n"));
  korvo::trace_configure(0, nullptr);
  const std::string trc = tvutest::ReadFile(tmp_ / "missing.trc");
  EXPECT_NE(std::string::npos, trc.find("no mapper file given\n")) << trc;
  const std::string status = tvutest::ReadFile(meta_ / "tvu_con.status");
  EXPECT_NE(std::string::npos, status.find(" ERROR INFO=MAPPER cannot read from " + rules_ + "\n")) << status;
}

// Names that no path in the tree could reach are refused with the rule's line.
TEST_F(MapperTest, UnreachableNamesAreRefused) {
  const std::string set = std::string("SAVESET f \"") + kSaveset + "\"";
  ExpectFatal("\n" + set + " \"..\"\n", "ERROR: MAPPER name '..' is no file name line no: 2",
              "MAPPER name [..] is no file name line no: 2");
  ExpectFatal(set + " \"a/b\"\n", "ERROR: MAPPER name 'a/b' is no file name line no: 1",
              "MAPPER name [a/b] is no file name line no: 1");
  ExpectFatal("MAPTO \"/x/./y\"\n", "ERROR: MAPPER name '.' is no file name line no: 1",
              "MAPPER name [.] is no file name line no: 1");
}

// An empty VMDK path names the VMDK directory itself.
TEST_F(MapperTest, EmptyVmdkPathLinksTheVmdkDirectory) {
  LISCacheBuildTree(root_, L"/R/VMDK/disk", true, nullptr);
  Map("LIS R \"\" \"disks\"\n");
  LIS_NODE* link = Node(L"/R/MAPPER/disks");
  ASSERT_NE(nullptr, link);
  ASSERT_NE(nullptr, link->pMapper);
  EXPECT_EQ(Node(L"/R/VMDK"), link->pMapper->pNode);
}

TEST_F(MapperTest, MapToChoosesTheDirectoryOfTheFollowingRules) {
  const std::string set = std::string("SAVESET f \"") + kSaveset + "\"";
  Map(set + " \"top\"\nMAPTO \"/x\"\n" + set + "\nMAPTO no quotes\n" + set + " \"second\"\nMAPTO \"x\"\n" + set +
      " \"glued\"\nMAPTO \"/a/b\"\n" + set + " \"\"\n");  // an empty name names nothing
  EXPECT_EQ((Names{L"INTERMEDIATE", L"top", L"x", L"a"}), NamesOf(Node(L"/R/MAPPER")));
  EXPECT_EQ((Names{L"SF20261101020000", L"second"}), NamesOf(Node(L"/R/MAPPER/x")));
  ASSERT_NE(nullptr, Node(L"/R/MAPPERx/glued"));
  ASSERT_NE(nullptr, Node(L"/R/MAPPER/a/b/SF20261101020000"));
  for (const wchar_t* dir : {L"/R/MAPPERx", L"/R/MAPPER/a", L"/R/MAPPER/a/b"}) {
    EXPECT_EQ('d', Node(dir)->cType) << dir;
    EXPECT_TRUE(Node(dir)->bChildrenPopulated) << dir;
  }
  // A whole saveset, read from its first byte; every file node is numbered.
  LIS_NODE* whole = Node(L"/R/MAPPER/x/SF20261101020000");
  EXPECT_EQ(nsSAVESET_MAPPED, whole->llSource);
  EXPECT_EQ(stream_.size(), whole->ullSize);
  EXPECT_EQ(stream_, Read(whole, 0, stream_.size() + 10));
  ASSERT_EQ(5u, VfsFileTable().size());
  EXPECT_EQ(5u, VfsFileTable()[4]->fileId);
}

TEST_F(MapperTest, UnknownSavesetsAndTokensAreSkipped) {
  const std::string trc = Map("SAVESET f \"SI20991231000000\"\nFOO f \"x\"\nsaveset f \"" + std::string(kSaveset) +
                              "\"\n\tSAVESET f \"" + kSaveset + "\" \"found\"  \n");
  EXPECT_NE(std::string::npos, trc.find("Mapper line 1 - cannot find matching saveset for [SI20991231000000]"));
  EXPECT_NE(std::string::npos, trc.find("MAPPER mapped SAVESET: SF20261101020000 -> found"));
  EXPECT_EQ((Names{L"INTERMEDIATE", L"found"}), NamesOf(Node(L"/R/MAPPER")));
}

TEST_F(MapperTest, LocalFileNodeReadsTheFile) {
  const std::string local = tmp_ / "local.txt", big = tmp_ / "big.img";
  tvutest::WriteFile(local, "hello, local world");
  struct tm old {};
  old.tm_year = 2001 - 1900;
  old.tm_mday = 3;
  old.tm_isdst = -1;
  struct utimbuf when {};
  when.actime = when.modtime = mktime(&old);
  ASSERT_EQ(0, utime(local.c_str(), &when));
  tvutest::WriteFile(big, "");
  std::filesystem::resize_file(big, 0x80000005ull);  // sparse: takes no space

  Map("LOCALFS f \"" + local + "\" \"renamed.txt\"\nLOCALFS f \"" + big + "\"\n");
  LIS_NODE* node = Node(L"/R/MAPPER/renamed.txt");
  ASSERT_NE(nullptr, node);
  ASSERT_EQ(nsMAPPER, node->llSource);
  EXPECT_EQ(local, node->pMapper->sLocalPath);
  EXPECT_EQ(18u, node->ullSize);
  EXPECT_EQ("world", Read(node, 13, 100));
  // Modification time as set; the status change time is the utime's own.
  EXPECT_EQ(2001, node->sMtime.year);
  EXPECT_EQ(3, node->sMtime.mday);
  EXPECT_GE(node->sCtime.year, 2024);
  // Sizes are kept as 32-bit signed values, widened with their sign.
  ASSERT_NE(nullptr, Node(L"/R/MAPPER/big.img"));
  EXPECT_EQ(0xFFFFFFFF80000005ull, Node(L"/R/MAPPER/big.img")->ullSize);
}

TEST_F(MapperTest, CatalogItemNodeReadsTheItemsBytes) {
  // Relative offset 0: located in the stream at once under the item's own
  // path, although the node is named otherwise.  The other is located.
  const std::string trc = Map("LIS f " + CatalogLine("d/item", 'f', 40, 0, 0) + " \"copy.bin\"\nLIS f " +
                              CatalogLine("d/item", 'f', 40, static_cast<int64_t>(dataRel_), 100) + "\n");
  LIS_NODE* copy = Node(L"/R/MAPPER/copy.bin");
  ASSERT_NE(nullptr, copy);
  EXPECT_EQ(nsSAVESET, copy->llSource);
  EXPECT_EQ(static_cast<int64_t>(dataRel_), copy->sLoc.relOff);
  EXPECT_EQ(100u, copy->ullSize);  // from the stream: the line said 0
  EXPECT_EQ(data_, Read(copy, 0, 200));
  EXPECT_NE(std::string::npos, trc.find("MAPPER mapped LIS: d/item -> copy.bin"));
  ASSERT_NE(nullptr, Node(L"/R/MAPPER/item"));
  EXPECT_EQ(data_.substr(90), Read(Node(L"/R/MAPPER/item"), 90, 50));
}

TEST_F(MapperTest, VmdkLinkReadsThroughTheVmdkNode) {
  LIS_NODE* vmdk = LISCacheNewNode(L"a.vmdk", 'f');
  vmdk->llSource = nsSAVESET_MAPPED;
  vmdk->sLoc = {idx_, 40, 0};
  vmdk->ullSize = 20;
  vmdk->sMtime = {2025, 4, 5, 6, 7, 8, 0};
  LISCacheAppendChild(LISCacheBuildTree(root_, L"/R/VMDK/disk", true, nullptr), vmdk);

  Map("LIS R \"disk/a.vmdk\" \"vm.vmdk\"\n");
  LIS_NODE* link = Node(L"/R/MAPPER/vm.vmdk");
  ASSERT_NE(nullptr, link);
  ASSERT_EQ(nsMAPPER, link->llSource);
  EXPECT_EQ(vmdk, link->pMapper->pNode);
  EXPECT_EQ(20u, link->ullSize);
  EXPECT_EQ(2025, link->sMtime.year);
  EXPECT_EQ(stream_.substr(40, 20), Read(link, 0, 64));
}

TEST_F(MapperTest, RuleThatCannotBeMetEndsTheProcess) {
  ExpectFatal("LOCALFS f \"/nonexistent/f.txt\"\n",
              "ERROR: MAPPER cannot open local file '/nonexistent/f.txt' line no: 1",
              "MAPPER cannot open local file [/nonexistent/f.txt] line no: 1");
  ExpectFatal("LIS q \"x\"\n", "ERROR: MAPPER type q currently not supported line no 1",
              "MAPPER type q currently not supported line no 1");
  // No VMDK directory; then a directory without the file (empty lines count).
  ExpectFatal("LIS R \"disk/a.vmdk\"\n", "ERROR: MAPPER cannot locate VMDK file 'disk/a.vmdk' line no: 1",
              "MAPPER cannot locate VMDK file [disk/a.vmdk] line no: 1");
  LISCacheBuildTree(root_, L"/R/VMDK/disk", true, nullptr);
  ExpectFatal("\n  \nLIS R \"disk/b.vmdk\"\n", "ERROR: MAPPER cannot locate VMDK file 'disk/b.vmdk' line no: 3",
              "MAPPER cannot locate VMDK file [disk/b.vmdk] line no: 3");
  // A directory line is no item the mapper can take.
  const std::string dirLine = CatalogLine("d", 'd', 0, -1, 0);
  ExpectFatal("LIS f " + dirLine + "\n",
              "ERROR: unable to parse LIS line within rules file [" + dirLine + "] line no: 1",
              "Unable to parse LIS line within rules file [" + dirLine + "] line no: 1");
}

}  // namespace
