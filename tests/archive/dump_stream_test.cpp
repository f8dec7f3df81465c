// Tests of the walk over a dump item's headers (analyzeUFSblock) and of the
// block map it builds (its lookup is exercised by the reads of dump_read_test).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "archive/dump_format.h"
#include "archive/dump_stream.h"
#include "support/dump_fixture.h"

namespace {

using tvutest::DumpHeader;

int Analyze(DUMP_WALK* w, uint64_t off, const std::string& rec) {
  return analyzeUFSblock(w, off, reinterpret_cast<const uint8_t*>(rec.data()));
}

struct Run {
  uint64_t first, record, blocks;
};
void ExpectRuns(const DUMP_ITEM_MAP& m, const std::vector<Run>& want) {
  ASSERT_EQ(want.size(), m.vRuns.size());
  for (size_t i = 0; i < want.size(); ++i) {
    EXPECT_EQ(want[i].first, m.vRuns[i].ullFirstBlock) << i;
    EXPECT_EQ(want[i].record, m.vRuns[i].ullRecordOffset) << i;
    EXPECT_EQ(want[i].blocks, m.vRuns[i].ullBlocks) << i;
  }
}

TEST(AnalyzeUFSblock, WhatEndsTheWalk) {
  DUMP_WALK w;
  w.uiInode = 7;
  std::string bad = DumpHeader(2, 7, {1}, 100);
  bad[500] ^= 4;
  EXPECT_EQ(-1, Analyze(&w, 0, bad));                               // checksum
  EXPECT_EQ(-1, Analyze(&w, 0, DumpHeader(3, 7, {1}, 100)));        // a map header
  EXPECT_EQ(-1, Analyze(&w, 0, DumpHeader(2, 8, {1}, 100)));        // another inode
  EXPECT_EQ(-1, Analyze(&w, 0, DumpHeader(4, 7, {1}, 100)));        // a continuation first
  EXPECT_FALSE(w.bStarted);
  EXPECT_EQ(2, Analyze(&w, 0, DumpHeader(2, 7, {1, 0}, 2048)));
  EXPECT_EQ(0, Analyze(&w, 0, DumpHeader(4, 7, {1}, 2048)));        // the same record again
  EXPECT_EQ(-1, Analyze(&w, 2048, DumpHeader(2, 7, {1}, 2048)));    // a second inode header
  EXPECT_EQ(-1, Analyze(&w, 2048, DumpHeader(5, 7, {1}, 2048)));    // the end
}

TEST(AnalyzeUFSblock, AllSetAndAllClearFlags) {
  DUMP_WALK all;
  all.uiInode = 3;
  EXPECT_EQ(6, Analyze(&all, 0, DumpHeader(2, 3, {1, 1, 1, 1, 1}, 5 * 1024)));
  ExpectRuns(all.map, {{0, 1024, 5}});
  EXPECT_TRUE(all.Complete());
  EXPECT_EQ(6u * 1024, all.map.ullSpan);

  DUMP_WALK none;
  none.uiInode = 3;
  EXPECT_EQ(1, Analyze(&none, 0, DumpHeader(2, 3, {0, 0, 0, 0, 0}, 5 * 1024)));
  ExpectRuns(none.map, {{0, kDumpHole, 5}});
  EXPECT_EQ(1024u, none.map.ullSpan);

  DUMP_WALK empty;  // an empty file: no flags, nothing to wait for
  empty.uiInode = 3;
  EXPECT_EQ(1, Analyze(&empty, 0, DumpHeader(2, 3, {}, 0)));
  EXPECT_TRUE(empty.Complete());
  EXPECT_TRUE(empty.map.vRuns.empty());
}

// A file of 700 blocks: 512 flags in its inode header, the rest in one
// continuation header after the first header's data records.
TEST(AnalyzeUFSblock, WalkOverContinuationHeaders) {
  std::vector<uint8_t> first(512, 1), second(188, 1);
  for (int b = 100; b < 110; ++b) first[b] = 0;  // a hole inside the first header
  second[187] = 0;                               // the file ends in a hole
  const uint64_t dataFirst = 502;
  DUMP_WALK w;
  w.uiInode = 11;
  EXPECT_EQ(static_cast<int>(dataFirst + 1), Analyze(&w, 0, DumpHeader(2, 11, first, 700 * 1024 - 5)));
  EXPECT_FALSE(w.Complete());
  const uint64_t addr = (dataFirst + 1) * 1024;
  EXPECT_EQ(188, Analyze(&w, addr, DumpHeader(4, 11, second, 700 * 1024 - 5)));
  EXPECT_TRUE(w.Complete());
  // The continuation header breaks the run of records at block 512.
  ExpectRuns(w.map, {{0, 1024, 100},
                     {100, kDumpHole, 10},
                     {110, 101 * 1024, 402},
                     {512, addr + 1024, 187},
                     {699, kDumpHole, 1}});
  EXPECT_EQ(addr + 188 * 1024, w.map.ullSpan);
  EXPECT_EQ(700u * 1024 - 5, w.map.ullSize);
}

}  // namespace
