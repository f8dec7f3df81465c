// Tests of the VMDK changed-block rebuild: the file-name parameters, and the
// catalog pass over small hand-made catalogs and savesets.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "archive/cpio_format.h"
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
      {L"disk.vmdk@9223372036854775807-0.cbt", true, 9223372036854775807ull, 0},
      {L"disk.vmdk@9223372036854775807-1.cbt", false, 0, 0},  // ends past what an offset addresses
      {L"disk@5--10.cbt", false, 0, 0},               // a negative length
      {L"disk@5-+10.cbt", false, 0, 0},
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

// The same with the data size apart from the span.
std::string Line(const std::string& path, const std::string& ctime, uint64_t start, int64_t rel, uint64_t span,
                 uint64_t size, const char* saveset) {
  return "\"" + path + "\" f " + ctime + " " + ctime + " " + std::to_string(start) + " " + std::to_string(rel) + " " +
         std::to_string(span) + " " + std::to_string(size) + " 1 0 " + saveset + " \n";
}

// One newc record with its data.
std::string Record(const std::string& name, const std::string& data, uint64_t mtime) {
  cpio::Header h{};
  h.mode = 0100644;
  h.nlink = 1;
  h.mtime = mtime;
  h.filesize = data.size();
  h.name = name;
  std::string record, why;
  EXPECT_TRUE(cpio::EncodeRecordHeader(cpio::Format::kNewc, h, &record, &why)) << why;
  record += data;
  while (record.size() % 4) record += '\0';
  return record;
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
    const std::string path = dir_ / "SC1.lsl";
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

// A changed-block file gives its disk no more than its item's own data, and
// one the walk cannot find gives nothing: older data stays where they end.
// A catalog change time that is not valid gives way to the record's time.
TEST_F(VmdkPass, ChangedBlocksTakeNoMoreThanTheirItemHolds) {
  const uint64_t k2020 = 1577836800;  // 2020-01-01, older than the full backup
  const std::string a = Record("vm/disk.vmdk@2048-2048.cbt", std::string(512, 'C'), 2000000000);
  const std::string b = Record("vm/disk.vmdk@3072-512.cbt", std::string(512, 'T'), k2020);
  const std::string e = Record("vm/disk.vmdk@1536-256.cbt", "", 2000000000);
  tvutest::WriteFile(dir_ / "SF20261101020000.cpio", "x" + std::string(4096, 'F'));
  tvutest::WriteFile(dir_ / "SI20261102020000.cpio", std::string(1034, 'I') + a + b + e + std::string(64, '#'));
  const uint64_t atA = 1034, atB = atA + a.size(), atE = atB + b.size(), junk = atE + e.size();
  ASSERT_EQ(0, Run(Line("vm/disk.vmdk", 'R', "2026-11-01 02:00:00", 0, 0, 4096, "SF20261101020000") +
                   Line("vm/disk.vmdk@0-4096.cbt", "2026-11-01 02:00:01", 0, 1, 4096, 4096, "SF20261101020000") +
                   // placed by the catalog: the name claims 2048 bytes, the item holds 1024
                   Line("vm/disk.vmdk@0-2048.cbt", "2026-11-02 02:00:01", 0, 10, 2048, 1024, "SI20261102020000") +
                   // walked: the record holds 512 of the 2048 bytes its name claims
                   Line("vm/disk.vmdk@2048-2048.cbt", "2026-11-02 02:00:02", atA, 0, a.size(), 0,
                        "SI20261102020000") +
                   // walked, change time not valid: the record's older time loses to the full backup
                   Line("vm/disk.vmdk@3072-512.cbt", "0000-00-00 00:00:00", atB, 0, b.size(), 0,
                        "SI20261102020000") +
                   // an empty record, and no record at all: no data, and no end of the process
                   Line("vm/disk.vmdk@1536-256.cbt", "2026-11-02 02:00:03", atE, 0, e.size(), 0, "SI20261102020000") +
                   Line("vm/disk.vmdk@0-100.cbt", "2026-11-02 02:00:04", junk, -1, 64, 0, "SI20261102020000")));
  ASSERT_EQ(1u, vfile_table_count());
  const std::string disk = ReadDisk(0);
  ASSERT_EQ(4096u, disk.size());
  EXPECT_EQ(std::string(1024, 'I'), disk.substr(0, 1024));
  EXPECT_EQ(std::string(1024, 'F'), disk.substr(1024, 1024));
  EXPECT_EQ(std::string(512, 'C'), disk.substr(2048, 512));
  EXPECT_EQ(std::string(1536, 'F'), disk.substr(2560));
}

// Savesets of data type "none" have no entry update: a changed-block file's
// data lies at its saveset offset plus its relative offset.
TEST_F(VmdkPass, NoneSavesetsReadAtTheCatalogsOffset) {
  CatalogSetSavesetType(sdtNONE);
  ASSERT_EQ(0, Run(Line("vm/disk.vmdk", 'R', "2026-11-01 02:00:00", 0, 0, 2048, "SF20261101020000") +
                   Line("vm/disk.vmdk@512-1024.cbt", "2026-11-02 02:00:01", 100, 0, 1024, 1024, "SI20261102020000")));
  const std::string disk = ReadDisk(0);
  EXPECT_EQ(std::string(512, '\0') + std::string(1024, 'I') + std::string(512, '\0'), disk);
}

TEST_F(VmdkPass, UnreadableCatalogFails) {
  EXPECT_NE(0, localfs_catalog_parse_VMDK(nullptr, (dir_ / "missing.lsl").c_str()));
  EXPECT_EQ(0u, vfile_table_count());
}

}  // namespace
