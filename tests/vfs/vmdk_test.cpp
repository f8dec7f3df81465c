// Tests of the VMDK changed-block rebuild: the file-name parameters, and the
// catalog pass over small hand-made catalogs and savesets.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "support/test_util.h"
#include "vfs/tq_vfs_catalog.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_saveset.h"
#include "vfs/tq_vfs_vfile.h"
#include "vfs/tq_vfs_vmdk.h"

namespace {

using tvutest::TempDir;

TEST(VmdkParams, ChangedBlockFileNames) {
  struct Case {
    const wchar_t* name;
    bool ok;
    uint64_t offset, size;
  };
  const Case cases[] = {
      {L"web01-flat.vmdk@1048576-65536.cbt", true, 1048576, 65536},
      {L"a@0-1.x", true, 0, 1},
      {L"disk.vmdk@18446744073709551615-0.cbt", true, 18446744073709551615ull, 0},
      {L"web01-flat.vmdk", false, 0, 0},              // no "@"
      {L"a@1", false, 0, 0},                          // too short
      {L"disk@-5.cbt", false, 0, 0},                  // no first number
      {L"disk@12x-5.cbt", false, 0, 0},               // not decimal
      {L"disk@12-5y.cbt", false, 0, 0},
      {L"disk@12-5", false, 0, 0},                    // no extension after the length
      {L"disk@99999999999999999999-5.cbt", false, 0, 0},  // does not fit 64 bits
  };
  for (const Case& c : cases) {
    uint64_t offset = 7, size = 7;
    EXPECT_EQ(c.ok, extractVMDK_CBT_params(c.name, &offset, &size)) << std::wstring(c.name).size();
    if (c.ok) {
      EXPECT_EQ(c.offset, offset);
      EXPECT_EQ(c.size, size);
    }
  }
  uint64_t o, s;
  EXPECT_FALSE(extractVMDK_CBT_params(nullptr, &o, &s));
}

// A catalog line of the consolidated catalog (LSLv2): path, type, ctime,
// record start, data offset, span, data size, saveset.
std::string Line(const std::string& path, char type, const std::string& ctime, uint64_t start, uint64_t rel,
                 uint64_t span, const char* saveset) {
  return "\"" + path + "\" " + type + " " + ctime + " " + ctime + " " + std::to_string(start) + " " +
         std::to_string(rel) + " " + std::to_string(span) + " " + std::to_string(span) + " 1 0 " + saveset + " \n";
}

class VmdkPass : public ::testing::Test {
 protected:
  void SetUp() override {
    // Two savesets of raw bytes: changed-block data lies at known offsets
    // (relative offsets >= 1, so no stream is walked).
    full_ = std::string(4096, 'F');
    incr_ = std::string(4096, 'I');
    tvutest::WriteFile(dir_ / "SF20261101020000.cpio", full_);
    tvutest::WriteFile(dir_ / "SI20261102020000.cpio", incr_);
    for (const char* n : {"SF20261101020000.cpio", "SI20261102020000.cpio"}) {
      SAVESET s;
      memset(&s, 0, sizeof s);
      s.uiMediaType = smFILE;
      s.szName = strdup((dir_ / n).c_str());
      s.iDedupHandle = -1;
      int32_t idx = saveset_append(s);
      saveset_init(idx);
      saveset_open(idx);
    }
    CatalogSetSavesetType(sdtCPIO);
  }
  void TearDown() override {
    vfile_tables_clear();
    VmdkReset();
    for (int32_t i = 0; i < g_iSavesetCount; ++i) saveset_close(i);
    saveset_table_free();
    CatalogResetForTest();
  }
  // Writes the catalog, detects it and runs the pass.
  int Run(const std::string& lines) {
    const std::string path = dir_ / "CON.lsl";
    tvutest::WriteFile(path, "Tape ID: CON Tape Label: CON Format: CPIO LIS: 2.0\n" + lines);
    CatalogSetPath(path.c_str());
    EXPECT_EQ(0, DetectCatalogType());
    return localfs_catalog_parse_VMDK(nullptr, path.c_str());
  }
  std::string ReadDisk(int32_t h) {
    std::string buf(static_cast<size_t>(vfile_size(h)), '?');
    vfile_seek(h, 0);
    buf.resize(vfile_read(h, &buf[0], buf.size()));
    return buf;
  }

  TempDir dir_;
  std::string full_, incr_;
};

TEST_F(VmdkPass, DiskWithoutChangedBlocksReadsAsZeros) {
  ASSERT_EQ(0, Run(Line("vm/disk.vmdk", 'R', "2026-11-01 02:00:00", 0, 0, 8192, "SF20261101020000")));
  ASSERT_EQ(1u, vfile_table_count());
  EXPECT_EQ(8192u, vfile_size(0));
  EXPECT_EQ(std::string(8192, '\0'), ReadDisk(0));
  EXPECT_TRUE(vfile_get(0)->name() == L"disk.vmdk");
  EXPECT_TRUE(vfile_get(0)->relativePath() == L"vm/disk.vmdk");
}

TEST_F(VmdkPass, NewestChangedBlocksWinAndOthersAreSkipped) {
  ASSERT_EQ(0, Run(Line("vm/disk.vmdk", 'R', "2026-11-01 02:00:00", 0, 0, 8192, "SF20261101020000") +
                   // full backup: [0, 2048) from saveset 0 at 100
                   Line("vm/disk.vmdk@0-2048.cbt", 'f', "2026-11-01 02:00:01", 90, 10, 2048, "SF20261101020000") +
                   // incremental: [1024, 3072) from saveset 1 at 500, newer
                   Line("vm/disk.vmdk@1024-2048.cbt", 'f', "2026-11-02 02:00:01", 490, 10, 2048,
                        "SI20261102020000") +
                   // another disk's changed blocks, a short name and a plain file: not slices of this disk
                   Line("vm/other.vmdk@0-4096.cbt", 'f', "2026-11-02 02:00:02", 0, 1, 4096, "SI20261102020000") +
                   Line("vm/a@1", 'f', "2026-11-02 02:00:02", 0, 1, 4, "SI20261102020000") +
                   Line("vm/notes.txt", 'f', "2026-11-02 02:00:02", 0, 1, 4, "SI20261102020000")));
  ASSERT_EQ(1u, vfile_table_count());
  EXPECT_EQ(3u, vfile_get(0)->sliceCount());  // zero slice + two changed-block files
  std::string disk = ReadDisk(0);
  ASSERT_EQ(8192u, disk.size());
  EXPECT_EQ(std::string(1024, 'F'), disk.substr(0, 1024));
  EXPECT_EQ(std::string(2048, 'I'), disk.substr(1024, 2048));
  EXPECT_EQ(std::string(8192 - 3072, '\0'), disk.substr(3072));
}

TEST_F(VmdkPass, OlderDataLaterInTheCatalogDoesNotWin) {
  // The incremental's line comes first in the catalog; its newer time still wins.
  ASSERT_EQ(0, Run(Line("vm/disk.vmdk", 'R', "2026-11-01 02:00:00", 0, 0, 4096, "SF20261101020000") +
                   Line("vm/disk.vmdk@0-1024.cbt", 'f', "2026-11-02 02:00:01", 0, 1, 1024, "SI20261102020000") +
                   Line("vm/disk.vmdk@512-1024.cbt", 'f', "2026-11-01 02:00:01", 0, 1, 1024, "SF20261101020000")));
  std::string disk = ReadDisk(0);
  EXPECT_EQ(std::string(1024, 'I'), disk.substr(0, 1024));
  EXPECT_EQ(std::string(512, 'F'), disk.substr(1024, 512));
}

TEST_F(VmdkPass, UnreadableCatalogFails) {
  EXPECT_NE(0, localfs_catalog_parse_VMDK(nullptr, (dir_ / "missing.lsl").c_str()));
  EXPECT_EQ(0u, vfile_table_count());
}

}  // namespace
