// Tests of directory enumeration (GetSavesetEntries) and the complete build
// (BuildCompleteTree) over a small LSLv2 consolidated catalog.  Its files are
// located already (relative offset 1 or more), so no saveset is read, except
// where a test says so.
#include "vfs/tq_vfs_enum.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "runtime/trace.h"
#include "support/test_util.h"
#include "vfs/tq_vfs_catalog.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_saveset.h"

namespace {

const char* const kSavesets[] = {"SF20261101020000", "SI20261102020000"};

// One item line: offset, relative offset, span, data size, then the saveset.
std::string Line(const std::string& path, char type, uint64_t off, int64_t rel, uint64_t size, int sset) {
  return "\"" + path + "\" " + type + " 2026-11-01 01:59:00 2026-11-01 01:58:30 " + std::to_string(off) + " " +
         std::to_string(rel) + " " + std::to_string(size + 120) + " " + std::to_string(size) + " 7 0 " +
         kSavesets[sset] + " 0\n";
}

// "demo/B.txt" comes twice (from both savesets, in two cases); "u/v.txt" has
// no line for its directory; "demo/odd" is neither file nor directory.
const std::string kCatalog =
    "Tape ID: T Tape Label: T Format: CPIO LIS: 2.0\n" + Line("demo", 'd', 0, -1, 0, 0) +
    Line("demo/a.txt", 'f', 1000, 120, 500, 0) + Line("demo/sub", 'd', 2000, -1, 0, 0) +
    Line("demo/sub/deep.txt", 'f', 3000, 120, 30, 1) + Line("demo/B.txt", 'f', 4000, 120, 40, 0) +
    Line("demo/odd", 'R', 4500, -1, 0, 0) + Line("demo/b.TXT", 'f', 5000, 130, 41, 1) +
    Line("demo/empty", 'd', 6000, -1, 0, 0) + Line("C:", 'd', 7000, -1, 0, 0) + Line("C:/x", 'd', 8000, -1, 0, 1) +
    Line("C:/x/y.txt", 'f', 9000, 120, 9, 1) + Line("u/v.txt", 'f', 10000, 120, 10, 0) +
    Line("top.txt", 'f', 11000, 120, 11, 1) + "Total: 1 Last File Offset: 2 Last Dir Offset: 3\n";
constexpr uint64_t kItemLines = 12;  // its f and d lines
constexpr size_t kFiles = 6;         // its distinct files

using Names = std::vector<std::wstring>;
Names NamesOf(const std::vector<LIS_NODE*>& nodes) {
  Names names;
  for (const LIS_NODE* n : nodes) names.push_back(n->wsName);
  return names;
}

class EnumTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Reset();
    for (const char* name : kSavesets) {
      SAVESET s{};
      s.uiMediaType = smFILE;
      s.szName = strdup(("/chain/" + std::string(name) + ".cpio").c_str());
      s.iDedupHandle = -1;
      saveset_append(s);
    }
    tvutest::WriteFile(catalog, kCatalog);
    CatalogSetPath(catalog.c_str());
    ASSERT_EQ(0, DetectCatalogType());
    CatalogSetSavesetType(sdtCPIO);
    CatalogSetLineByLine(false);
    ASSERT_EQ(0, LISCacheInit());
    root = LISCacheRoot();
  }
  void TearDown() override { Reset(); }
  static void Reset() {
    korvo::trace_configure(0, nullptr);
    LISCacheTerminate();
    VfsEnumReset();
    CatalogResetForTest();
    saveset_table_free();
  }
  std::vector<LIS_NODE*> List(const char* path) {
    std::vector<LIS_NODE*> out;
    EXPECT_EQ(geOK, GetSavesetEntries(path, true, false, &out)) << path;
    return out;
  }
  // Runs f with level-3 traces going to a fresh file; returns the trace.
  template <typename F>
  std::string Traced(F f) {
    const std::string path = tmp / ("t" + std::to_string(++traces_) + ".trc");
    korvo::trace_configure(3, path.c_str());
    f();
    korvo::trace_configure(0, nullptr);
    return tvutest::FileExists(path) ? tvutest::ReadFile(path) : std::string();
  }
  LIS_NODE* Node(const wchar_t* path) { return LISCacheFind(root, path, true); }

  tvutest::TempDir tmp;
  const std::string catalog = tmp / "consolidated.lsl";
  LIS_NODE* root = nullptr;
  int traces_ = 0;
};

TEST_F(EnumTest, DirectoriesAreFilledOnDemandFromTheCatalog) {
  EXPECT_EQ((Names{L"demo", L"C", L"top.txt"}), NamesOf(List("\\")));
  EXPECT_TRUE(root->bChildrenPopulated);
  EXPECT_FALSE(Node(L"/R/demo")->bChildrenPopulated);

  // Catalog order; of the two B.txt lines the later wins, the first name stays.
  const std::vector<LIS_NODE*> d = List("\\demo");
  ASSERT_EQ((Names{L"a.txt", L"sub", L"B.txt", L"empty"}), NamesOf(d));
  EXPECT_EQ(500u, d[0]->ullSize);  // the data size, not the record's span
  EXPECT_EQ(120, d[0]->sLoc.relOff);
  EXPECT_TRUE(d[0]->bFullBackup);
  EXPECT_EQ(1, d[2]->sLoc.ssetIdx);
  EXPECT_EQ(5000u, d[2]->sLoc.ssetOff);

  // Another case finds the same directory and its catalog lines (searched as
  // spelt, they were not found and the directory stayed empty for good).
  EXPECT_EQ((Names{L"deep.txt"}), NamesOf(List("\\DEMO\\Sub")));
  EXPECT_TRUE(List("\\demo\\empty").empty());
  EXPECT_TRUE(Node(L"/R/demo/empty")->bChildrenPopulated);

  // Drives, a one-letter directory that is no drive, an unknown path (which
  // leaves nothing in the tree).
  EXPECT_EQ((Names{L"y.txt"}), NamesOf(List("\\C\\x")));
  EXPECT_EQ(List("\\C\\x"), List("\\C:\\x"));
  EXPECT_EQ((Names{L"v.txt"}), NamesOf(List("\\u")));
  EXPECT_TRUE(List("\\nope\\deeper").empty());
  EXPECT_EQ(nullptr, Node(L"/R/nope"));

  // A second listing comes from the tree, with the same nodes.
  std::vector<LIS_NODE*> again;
  const std::string trc = Traced([&] { again = List("\\demo"); });
  EXPECT_EQ(d, again);
  EXPECT_NE(std::string::npos, trc.find("Found [demo] children populated [1]"));
  EXPECT_EQ(std::string::npos, trc.find("Cache miss"));
}

// A directory whose catalog path is not UTF-8 (read as ISO-8859-1) lists its
// lines when asked for by its name's UTF-8 form.
TEST_F(EnumTest, DirectoryNamedInLatin1ListsItsLines) {
  const std::string latin1 = tmp / "latin1.lsl";
  tvutest::WriteFile(latin1, "Tape ID: T Tape Label: T Format: CPIO LIS: 2.0\n" + Line("caf\xe9", 'd', 0, -1, 0, 0) +
                                 Line("caf\xe9/men\xfc.txt", 'f', 1000, 120, 5, 0));
  CatalogSetPath(latin1.c_str());
  ASSERT_EQ(0, DetectCatalogType());
  EXPECT_EQ((Names{L"caf\u00e9"}), NamesOf(List("\\")));
  const std::vector<LIS_NODE*> cafe = List("\\caf\xc3\xa9");
  ASSERT_EQ((Names{L"men\u00fc.txt"}), NamesOf(cafe));
  EXPECT_EQ(5u, cafe[0]->ullSize);
}

TEST_F(EnumTest, EnumerationStopsOnceTerminationBegan) {
  // TerminateVFS cannot be undone within the process: checked in a child.
  EXPECT_EXIT(
      {
        TerminateVFS();
        std::vector<LIS_NODE*> out;
        std::exit(GetSavesetEntries("\\", true, false, &out) == geTerminateInProgress && out.empty() ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(EnumTest, UnlocatedFileIsReportedWhenItsStreamCannotBeRead) {
  // The saveset holds no MTF FILE block at the item's offset: the entry keeps
  // what the catalog said.
  tvutest::WriteFile(catalog, Line("m", 'd', 0, -1, 0, 0) + Line("m/p.txt", 'f', 100, 0, 77, 0) +
                                  Line("m/q.txt", 'f', 200, 5, 8, 0));
  std::string text;
  while (text.size() < 400) text += "no MTF blocks here. ";
  tvutest::WriteFile(tmp / "SF20261101020000.mtf", text);
  free(g_psSavesets[0].szName);
  g_psSavesets[0].szName = strdup((tmp / "SF20261101020000.mtf").c_str());
  ASSERT_EQ(0, saveset_init(0));
  ASSERT_EQ(0, saveset_open(0));
  CatalogSetSavesetType(sdtMTF);
  std::vector<LIS_NODE*> m;
  const std::string trc = Traced([&] { m = List("\\m"); });
  ASSERT_EQ(2u, m.size());
  EXPECT_EQ(0, m[0]->sLoc.relOff);
  EXPECT_EQ(77u, m[0]->ullSize);
  for (const char* line : {"Update entries from saveset (number of elements = 1)", "Progress = 100% (1/1)",
                           "Unable to locate m/p.txt in saveset", "Update entries from saveset - done",
                           "no descriptor block at offset 100"})
    EXPECT_NE(std::string::npos, trc.find(line)) << line;
  saveset_close(0);
}

TEST_F(EnumTest, CompleteBuildNumbersFilesAndKeepsNodesListedBefore) {
  const std::vector<LIS_NODE*> before = List("\\demo");
  EXPECT_EQ(kItemLines, BuildCompleteTree("\\"));
  // The nodes listed before are reused, not appended again, and get numbers.
  EXPECT_EQ(before, List("\\demo"));
  const std::vector<LIS_NODE*>& table = VfsFileTable();
  ASSERT_EQ(kFiles, table.size());
  for (size_t i = 0; i < table.size(); ++i) EXPECT_EQ(i + 1, table[i]->fileId);
  EXPECT_EQ(before[0], table[0]);
  EXPECT_EQ(before[2], table[2]);  // one node for both B.txt lines, the later's data
  EXPECT_EQ(5000u, table[2]->sLoc.ssetOff);
  EXPECT_EQ(table[3], Node(L"/R/C/x/y.txt"));
  for (const wchar_t* dir : {L"/R/demo/sub", L"/R/demo/empty", L"/R/C/x", L"/R/u"}) {
    ASSERT_NE(nullptr, Node(dir)) << dir;
    EXPECT_EQ('d', Node(dir)->cType) << dir;
  }
  // Every directory is complete: nothing is read from the catalog again.
  const std::string trc = Traced([&] {
    for (const char* dir : {"\\", "\\demo\\sub", "\\demo\\empty", "\\C\\x", "\\u"}) List(dir);
  });
  EXPECT_EQ(std::string::npos, trc.find("Cache miss"));
}

TEST_F(EnumTest, BuildBelowADirectoryLeavesTheRestAlone) {
  EXPECT_EQ(7u, BuildCompleteTree("\\demo"));  // demo and the six f and d lines below it
  EXPECT_FALSE(root->bChildrenPopulated);
  EXPECT_TRUE(Node(L"/R/demo")->bChildrenPopulated);
  EXPECT_EQ(3u, VfsFileTable().size());
  EXPECT_EQ(0u, BuildCompleteTree("\\nope"));
  EXPECT_EQ(nullptr, Node(L"/R/nope"));
  EXPECT_EQ((Names{L"demo", L"C", L"top.txt"}), NamesOf(List("\\")));  // filled around it
}

}  // namespace
