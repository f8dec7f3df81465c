// Tests of the RCT sources: a disk's VHDX file rebuilt from its full file
// and the changed-range, sector-bitmap and BAT records of later backups.
//
// Three states of a disk's file are written; each backup's records are the
// stretches in which its file differs from the one before (the BAT region
// as a .BAT record).  The catalog lists the newer backup's records first, so
// only their times can order them.
#include <gtest/gtest.h>

#include <cstring>

#include "plugin/db_hooks.h"
#include "report/tvu_report.h"
#include "runtime/trace.h"
#include "support/test_util.h"
#include "vfs/tq_vfs_cache.h"
#include "vfs/tq_vfs_catalog.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_enum.h"
#include "vfs/tq_vfs_rct.h"
#include "vfs/tq_vfs_read.h"
#include "vfs/tq_vfs_saveset.h"
#include "vhdx/vhdx_test_util.h"

namespace {

using mkvhdx::Block;
using mkvhdx::ImageDesc;
constexpr uint64_t kMiB = 1ull << 20;
constexpr uint64_t kChunk = 64 * 1024;
const char* const kSaveset = "SF20261101020000";

class VhdxRctTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Reset();
    ImageDesc v[3];
    v[0].virtualSize = 24 * kMiB;
    v[0].blocks[0] = Block{6, vhdxtest::Pattern(2 * kMiB, 1), {}};
    v[0].blocks[4] = Block{6, vhdxtest::Pattern(2 * kMiB, 2), {}};
    v[1] = v[0];
    v[1].blocks[2] = Block{6, vhdxtest::Pattern(2 * kMiB, 3), {}};  // moves block 4 in the file
    v[1].blocks[0].data[5000] ^= 0xFF;
    v[2] = v[1];
    v[2].blocks[4].data.assign(2 * kMiB, 0x42);  // again what backup 1 changed
    v[2].blocks[11] = Block{6, vhdxtest::Pattern(2 * kMiB, 4), {}};
    final_ = mkvhdx::Write(v[2]).Flatten();
    raw_ = mkvhdx::RawDisk(v[2]);

    const std::vector<uint8_t> f0 = mkvhdx::Write(v[0]).Flatten();
    const std::string disk = "C:/VMs/web01/web01.vhdx";
    std::vector<std::string> lines;
    Add(disk, "2026-11-01", f0, &lines);
    Add(disk + ".serialize", "2026-11-01", {1, 2, 3}, &lines);
    Add("C:/VMs/db/db.VHDX", "2026-11-01", f0, &lines);
    std::vector<std::string> backups[2];
    for (int k = 1; k <= 2; ++k) {
      const std::vector<uint8_t> before = mkvhdx::Write(v[k - 1]).Flatten();
      const std::vector<uint8_t> after = mkvhdx::Write(v[k]).Flatten();
      const uint64_t batBegin = 3 * kMiB, batEnd = 4 * kMiB;  // where the writer puts the BAT
      const std::string date = k == 1 ? "2026-11-02" : "2026-11-03";
      Add(disk + ".BAT", date, std::vector<uint8_t>(after.begin() + batBegin, after.begin() + batEnd),
          &backups[k - 1]);
      for (uint64_t at = 0; at < after.size();) {
        auto differs = [&](uint64_t c) {
          if (c >= batBegin && c < batEnd) return false;
          const uint64_t n = std::min(kChunk, after.size() - c);
          return c + n > before.size() || std::memcmp(&after[c], &before[c], n) != 0;
        };
        if (!differs(at)) {
          at += kChunk;
          continue;
        }
        uint64_t end = at;
        while (end < after.size() && differs(end)) end += kChunk;
        end = std::min<uint64_t>(end, after.size());
        // The first stretch of backup 2 comes as a sector-bitmap record.
        const std::string name = disk + (k == 2 && backups[1].size() == 1 ? "@sectorbitmap{" : "@") +
                                 std::to_string(at) + "-" + std::to_string(end - 1) +
                                 (k == 2 && backups[1].size() == 1 ? "}" : "");
        Add(name, date, std::vector<uint8_t>(after.begin() + at, after.begin() + end), &backups[k - 1]);
        at = end;
      }
    }
    lines.insert(lines.end(), backups[1].begin(), backups[1].end());
    lines.insert(lines.end(), backups[0].begin(), backups[0].end());

    std::string catalog = "Tape ID: T Tape Label: T Format: CPIO LIS: 2.0\n";
    for (const std::string& l : lines) catalog += l + "\n";
    vhdxtest::OpenOneSavesetTree(tmp_ / (std::string(kSaveset) + ".cpio"), stream_, catalog_, catalog,
                                 meta_.path() + "/");
    if (HasFatalFailure()) return;
  }
  void TearDown() override { Reset(); }
  static void Reset() {
    korvo::trace_configure(0, nullptr);
    rct_reset();
    LISCacheTerminate();
    VfsEnumReset();
    CatalogResetForTest();
    for (int32_t i = 0; i < g_iSavesetCount; ++i) saveset_close(i);
    saveset_table_free();
  }
  // Appends the data to the saveset and its LSLv2 line (relative offset 1).
  void Add(const std::string& path, const std::string& date, const std::vector<uint8_t>& data,
           std::vector<std::string>* lines) {
    if (stream_.empty()) stream_.assign(40, 'x');
    const uint64_t pos = stream_.size();
    stream_.append(data.begin(), data.end());
    lines->push_back("\"" + path + "\" f " + date + " 01:59:00 " + date + " 01:58:30 " + std::to_string(pos - 1) +
                     " 1 " + std::to_string(data.size() + 1) + " " + std::to_string(data.size()) + " 7 0 " +
                     kSaveset + " 0");
  }
  LIS_NODE* Node(const wchar_t* path) { return LISCacheFind(LISCacheRoot(), path, false); }
  std::vector<uint8_t> ReadNode(LIS_NODE* node) {
    std::vector<uint8_t> out(node->ullSize);
    out.resize(ReadFromVFS(kSaveset, node, 0, reinterpret_cast<char*>(out.data()), out.size()));
    return out;
  }

  tvutest::TempDir tmp_, meta_;
  const std::string catalog_ = tmp_ / "consolidated.lsl";
  std::string stream_;
  std::vector<uint8_t> final_, raw_;
};

TEST_F(VhdxRctTest, DiskFileIsRebuiltFromItsRecords) {
  ASSERT_EQ(0, init_vhdx_rct(nullptr));
  LIS_NODE* web = Node(L"/R/MAPPER/merge_result/web01.vhdx");
  ASSERT_NE(nullptr, web);
  EXPECT_EQ(nsMERGE, web->llSource);
  EXPECT_TRUE(ReadNode(web) == final_);
  VhdxSource src;
  src.pFile = vfile_get_MERGE(web->iHandle);
  VhdxImagePtr img = parse_vhdx(src);
  ASSERT_TRUE(img);
  EXPECT_TRUE(vhdxtest::VirtualDisk(*img) == raw_);

  // A disk with its full file alone stands as it is; its missing serialized
  // state is reported.
  LIS_NODE* db = Node(L"/R/MAPPER/merge_result/db.VHDX");
  ASSERT_NE(nullptr, db);
  EXPECT_NE(std::string::npos,
            std::string(tvu_error_record().szMessage).find("Serialize file not found for C:/VMs/db/db.VHDX"));
  ASSERT_NE(nullptr, rct_utils());
  EXPECT_EQ(2u, rct_utils()->impl().disks.size());
}

}  // namespace
