// Tests of the dump read path: an item of a dump saveset is located by its
// walk before its first read, then read through its block map (holes as
// zeros, continuation headers skipped), compared with a plain byte model.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "archive/dump_format.h"
#include "archive/dump_stream.h"
#include "runtime/trace.h"
#include "support/dump_fixture.h"
#include "support/test_util.h"
#include "vfs/tq_vfs_cache.h"
#include "vfs/tq_vfs_catalog.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_enum.h"
#include "vfs/tq_vfs_read.h"
#include "vfs/tq_vfs_saveset.h"

namespace {

using tvutest::DumpData;
using tvutest::DumpHeader;
using tvutest::TempDir;

constexpr uint64_t kSize = 5 * 1024 + 300;  // six blocks, the last one partly used

// A volume header, then inode 7: its header (blocks 0-3, block `hole` a
// hole), three data records, a continuation header (blocks 4-5) and two
// more; then the end.  *model receives the file's bytes.
std::string MakeStream(int seed, std::string* model, int hole = 2) {
  std::vector<uint8_t> flags = {1, 1, 1, 1};
  flags[hole] = 0;
  std::string s = DumpHeader(1, 0, {}, 0, 0x3);
  s += DumpHeader(2, 7, flags, kSize);
  s += DumpData(seed) + DumpData(seed + 1) + DumpData(seed + 2);
  s += DumpHeader(4, 7, {1, 1}, kSize);
  s += DumpData(seed + 3) + DumpData(seed + 4);
  s += DumpHeader(5, 0, {}, 0);
  model->clear();
  for (int b = 0, d = 0; b < 4; ++b) *model += b == hole ? std::string(1024, '\0') : DumpData(seed + d++);
  *model += DumpData(seed + 3) + DumpData(seed + 4).substr(0, 300);
  return s;
}

class DumpReadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CatalogSetSavesetType(sdtDUMP);
    ASSERT_EQ(0, LISCacheInit());
    idx_ = AddSaveset("SF20261101020000.dump", MakeStream(1, &model_));
    item_ = AddItem(L"item", idx_, 7);
  }
  void TearDown() override {
    korvo::trace_configure(0, nullptr);
    LISCacheTerminate();
    for (int32_t i = 0; i < g_iSavesetCount; ++i) saveset_close(i);
    saveset_table_free();
    DumpItemMapsReset();
    CatalogResetForTest();
  }
  int32_t AddSaveset(const std::string& name, const std::string& stream) {
    tvutest::WriteFile(dir_ / name, stream);
    SAVESET s;
    memset(&s, 0, sizeof s);
    s.uiMediaType = smFILE;
    s.szName = strdup((dir_ / name).c_str());
    s.iDedupHandle = -1;
    const int32_t idx = saveset_append(s);
    EXPECT_EQ(0, saveset_init(idx));
    EXPECT_EQ(0, saveset_open(idx));
    return idx;
  }
  // An item as the catalog gives it: header offset, inode number, not located.
  LIS_NODE* AddItem(const wchar_t* name, int32_t idx, int64_t inode) {
    LIS_NODE* n = LISCacheNewNode(name, 'f');
    LISCacheAppendChild(LISCacheRoot(), n);
    n->sLoc = {idx, 1024, -1};
    n->llFourth = inode;
    return n;
  }
  std::string Read(LIS_NODE* node, uint64_t offset, uint64_t size) {
    std::string buf(size, '\0');
    const uint64_t got = ReadFromVFS("SF", node, offset, &buf[0], size);
    buf.resize(got);
    return buf;
  }
  // The saveset reads one read makes, counted in the trace.
  int SavesetReads(LIS_NODE* node, uint64_t offset, uint64_t size, std::string* got) {
    const std::string file = dir_ / ("trace" + std::to_string(++traces_) + ".log");
    korvo::trace_configure(3, file.c_str());
    *got = Read(node, offset, size);
    korvo::trace_configure(0, nullptr);
    const std::string text = tvutest::ReadFile(file);
    int n = 0;
    for (size_t p = 0; (p = text.find("ReadFromDUMPSaveset: read from saveset offset", p)) != std::string::npos; ++p)
      ++n;
    return n;
  }

  TempDir dir_;
  std::string model_;
  int32_t idx_ = -1;
  LIS_NODE* item_ = nullptr;
  int traces_ = 0;
};

TEST_F(DumpReadTest, LocatedBeforeTheFirstReadThenReadLikeTheModel) {
  EXPECT_EQ(model_, Read(item_, 0, 100000));
  EXPECT_EQ(0, item_->sLoc.relOff);
  EXPECT_EQ(kSize, item_->ullSize);  // di_size, not the catalog's fourth number
  // Sliced reads at random places, across holes, headers and the end.
  std::mt19937 rng(42);
  for (int i = 0; i < 500; ++i) {
    const uint64_t off = rng() % (kSize + 10);
    const uint64_t len = 1 + rng() % 3000;
    const std::string want = off >= kSize ? std::string() : model_.substr(off, len);
    ASSERT_EQ(want, Read(item_, off, len)) << "offset " << off << " length " << len;
  }
}

// A read of 1024 bytes at a block's start is one saveset read; one byte more
// is split where the records stop being adjacent (a hole or a header).
TEST_F(DumpReadTest, ReadsSplitOnlyAtRunBorders) {
  std::string got;
  EXPECT_EQ(1, SavesetReads(item_, 3 * 1024, 1024, &got));  // block 3 alone, before the continuation header
  EXPECT_EQ(model_.substr(3 * 1024, 1024), got);
  EXPECT_EQ(2, SavesetReads(item_, 3 * 1024, 1025, &got));  // into block 4, past the header
  EXPECT_EQ(model_.substr(3 * 1024, 1025), got);
  EXPECT_EQ(1, SavesetReads(item_, 0, 1025, &got));         // blocks 0 and 1 lie one after the other
  EXPECT_EQ(model_.substr(0, 1025), got);
  EXPECT_EQ(0, SavesetReads(item_, 2 * 1024, 1024, &got));  // the hole: no read at all
  EXPECT_EQ(std::string(1024, '\0'), got);
}

TEST_F(DumpReadTest, NearTheEndAndBeyond) {
  const std::string file = dir_ / "eof.log";
  korvo::trace_configure(1, file.c_str());
  EXPECT_EQ(model_.substr(kSize - 20), Read(item_, kSize - 20, 100));
  EXPECT_EQ("", Read(item_, kSize, 10));
  korvo::trace_configure(0, nullptr);
  const std::string trace = tvutest::ReadFile(file);
  EXPECT_NE(std::string::npos, trace.find("Near EOF requested bytes=100 remaining=20"));
  EXPECT_NE(std::string::npos, trace.find("seek above stream size [seek to 5420; stream size = 5420]"));
}

TEST_F(DumpReadTest, ItemWhoseHeaderIsNotAtItsOffsetReadsNothing) {
  LIS_NODE* wrongInode = AddItem(L"other", idx_, 8);
  EXPECT_EQ("", Read(wrongInode, 0, 10));
  EXPECT_LT(wrongInode->sLoc.relOff, 0);
  EXPECT_NE(0, VfsUpdateEntryFromSaveset(wrongInode, "other"));
}

// One inode number at one offset in two savesets of a chain, with its holes
// elsewhere in the newer one: each item keeps the block map of its own
// saveset.
TEST_F(DumpReadTest, SameInodeInTwoSavesetsKeepsTwoMaps) {
  std::string model2;
  const int32_t idx2 = AddSaveset("SI20261102020000.dump", MakeStream(50, &model2, 0));
  LIS_NODE* newer = AddItem(L"newer", idx2, 7);
  EXPECT_EQ(model_, Read(item_, 0, kSize));
  EXPECT_EQ(model2, Read(newer, 0, kSize));
  EXPECT_EQ(model_, Read(item_, 0, kSize));
}

// A seeded fuzz loop over the level 0 fixture: header fields changed at
// random (the checksum made anew, so that the changes get past the check)
// and the stream cut short.  Every item must locate or fail, and every read
// stay within the item's size, whatever the headers claim.
TEST_F(DumpReadTest, DamagedHeadersNeverReadOutOfBounds) {
  const std::string original = tvutest::ReadFile(tvutest::DumpFixture("level0.dump"));
  ASSERT_GT(original.size(), 0u);
  std::vector<uint64_t> headers, inodeHeaders;
  std::vector<uint32_t> inodes;
  for (uint64_t off = 0; off + dump::kRecordSize <= original.size(); off += dump::kRecordSize) {
    dump::Header h;
    if (dump::DecodeHeader(reinterpret_cast<const uint8_t*>(original.data()) + off, &h) != dump::Check::kOk) continue;
    headers.push_back(off);
    if (h.type == dump::kTsInode) {
      inodeHeaders.push_back(off);
      inodes.push_back(h.inumber);
    }
  }
  std::mt19937 rng(7);
  std::string buf(64 * 1024, '\0');
  for (int round = 0; round < 200; ++round) {
    std::string damaged = original;
    for (int k = 0; k < 8; ++k) {
      uint8_t* rec = reinterpret_cast<uint8_t*>(&damaged[headers[rng() % headers.size()]]);
      rec[rng() % 904] = static_cast<uint8_t>(rng());
      dump::SetChecksum(rec);
    }
    if (round % 4 == 3) damaged.resize(rng() % damaged.size());
    const int32_t idx = AddSaveset("SF" + std::to_string(round) + ".dump", damaged);
    for (size_t i = 0; i < inodeHeaders.size(); ++i) {
      LIS_NODE* n = AddItem(L"fuzz", idx, inodes[i]);
      n->sLoc.ssetOff = inodeHeaders[i];
      for (uint64_t off = 0; off < 4 * buf.size(); off += buf.size()) {
        const uint64_t got = ReadFromVFS("SF", n, off, &buf[0], buf.size());
        ASSERT_LE(got, buf.size());
        if (got == 0) break;
        ASSERT_GE(n->sLoc.relOff, 0);
        ASSERT_LE(off + got, n->ullSize) << "round " << round << " item " << i << " at " << inodeHeaders[i];
      }
    }
    saveset_close(idx);
  }
}

}  // namespace
