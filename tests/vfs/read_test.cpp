// Tests of the read paths of tree nodes: the saveset path with its end rules
// and the located flag, mapper nodes and the kinds whose tables are empty.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "runtime/trace.h"
#include "support/cpio_fixture.h"
#include "support/test_util.h"
#include "vfs/tq_vfs_cache.h"
#include "vfs/tq_vfs_catalog.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_read.h"
#include "vfs/tq_vfs_saveset.h"

namespace {

using tvutest::TempDir;

class ReadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // 40 bytes of filler, then one newc record "d/item" with 100 bytes of data.
    const tvutest::OneRecordSaveset fixture = tvutest::MakeOneRecordSaveset(40);
    data_ = fixture.data;
    dataRel_ = fixture.dataRel;
    stream_ = fixture.stream;
    tvutest::WriteFile(dir_ / "SF20261101020000.cpio", stream_);

    SAVESET s;
    memset(&s, 0, sizeof s);
    s.uiMediaType = smFILE;
    s.szName = strdup((dir_ / "SF20261101020000.cpio").c_str());
    s.iDedupHandle = -1;
    idx_ = saveset_append(s);
    ASSERT_EQ(0, saveset_init(idx_));
    ASSERT_EQ(0, saveset_open(idx_));
    CatalogSetSavesetType(sdtCPIO);
    ASSERT_EQ(0, LISCacheInit());
    dir_node_ = LISCacheNewNode(L"d", 'd');
    LISCacheAppendChild(LISCacheRoot(), dir_node_);
    item_ = LISCacheNewNode(L"item", 'f');
    LISCacheAppendChild(dir_node_, item_);
    item_->sLoc = {idx_, 40, static_cast<int64_t>(dataRel_)};
    item_->ullSize = data_.size();
  }
  void TearDown() override {
    LISCacheTerminate();
    saveset_close(idx_);
    saveset_table_free();
    CatalogResetForTest();
  }
  std::string Read(LIS_NODE* node, uint64_t offset, uint64_t size) {
    std::string buf(size, '\0');
    uint64_t got = ReadFromVFS("SF", node, offset, &buf[0], size);
    if (got == static_cast<uint64_t>(-1)) return "<-1>";
    buf.resize(got);
    return buf;
  }

  TempDir dir_;
  std::string data_, stream_;
  size_t dataRel_ = 0;
  int32_t idx_ = -1;
  LIS_NODE* dir_node_ = nullptr;
  LIS_NODE* item_ = nullptr;
};

TEST_F(ReadTest, SavesetItemReadsWithinItsSize) {
  EXPECT_EQ(data_, Read(item_, 0, 100));
  EXPECT_EQ(data_.substr(90), Read(item_, 90, 50));  // near the end: only what is left
  EXPECT_EQ("", Read(item_, 100, 10));                // at the end: nothing, no seek
  EXPECT_EQ("", Read(item_, 1000, 10));
  EXPECT_EQ(data_.substr(7, 13), Read(item_, 7, 13));
}

// Savesets of data type "none" have no entry update: an item the catalog
// leaves at relative offset 0 is read from its saveset offset.
TEST_F(ReadTest, NoneItemAtRelativeOffsetZeroReadsFromItsOffset) {
  CatalogSetSavesetType(sdtNONE);
  item_->sLoc = {idx_, 40 + static_cast<uint64_t>(dataRel_), 0};
  EXPECT_EQ(data_.substr(5, 20), Read(item_, 5, 20));
  EXPECT_EQ(0, item_->sLoc.relOff);
}

// An item whose record its stream does not hold reads nothing and is marked,
// so that it is never taken for an empty file.
TEST_F(ReadTest, ItemItsStreamDoesNotHoldIsMarkedNotLocated) {
  item_->sLoc = {idx_, 0, 0};  // the filler before the record: no header there
  item_->ullSize = 0;
  EXPECT_EQ("", Read(item_, 0, 10));
  EXPECT_TRUE(item_->bNotLocated);
  item_->sLoc = {idx_, 40, 0};  // the record itself: located, the mark goes
  EXPECT_EQ(data_.substr(0, 10), Read(item_, 0, 10));
  EXPECT_FALSE(item_->bNotLocated);
}

TEST_F(ReadTest, NearEndReadIsTraced) {
  std::string file = dir_ / "trace.log";
  korvo::trace_configure(1, file.c_str());
  Read(item_, 90, 50);
  korvo::trace_configure(0, nullptr);
  EXPECT_NE(std::string::npos, tvutest::ReadFile(file).find("Near EOF requested bytes=50 remaining=10"));
}

// Relative offset 0 means "not located": the item is found in its stream
// first.  A saveset-mapped file (kind 4) is read where it stands.
TEST_F(ReadTest, LocatedFlagDecidesWhetherTheStreamIsWalked) {
  item_->sLoc.relOff = 0;
  item_->ullSize = 0;
  EXPECT_EQ(data_.substr(0, 10), Read(item_, 0, 10));
  EXPECT_EQ(static_cast<int64_t>(dataRel_), item_->sLoc.relOff);
  EXPECT_EQ(100u, item_->ullSize);

  LIS_NODE* mapped = LISCacheNewNode(L"mapped", 'f');
  LISCacheAppendChild(dir_node_, mapped);
  mapped->llSource = nsSAVESET_MAPPED;
  mapped->sLoc = {idx_, 40, 0};
  mapped->ullSize = 6;
  EXPECT_EQ(stream_.substr(40, 6), Read(mapped, 0, 6));  // the record's header bytes, unlocated
}

TEST_F(ReadTest, ItemThatCannotBeLocatedReadsNothing) {
  item_->sLoc.relOff = 0;
  item_->sLoc.ssetOff = 0;  // the filler is no CPIO header
  EXPECT_EQ("", Read(item_, 0, 10));
}

TEST_F(ReadTest, MapperNodesReadAnotherNodeOrALocalFile) {
  LIS_NODE* link = LISCacheNewNode(L"link", 'f');
  LISCacheAppendChild(dir_node_, link);
  link->llSource = nsMAPPER;
  link->pMapper = new MAPPER_PAYLOAD{dir_ / "local.bin", item_};
  link->ullSize = 100;
  tvutest::WriteFile(dir_ / "local.bin", "local bytes");
  // The other node wins even though a local path is set.
  EXPECT_EQ(data_.substr(5, 5), Read(link, 5, 5));

  link->pMapper->pNode = nullptr;
  EXPECT_EQ("bytes", Read(link, 6, 100));
  remove((dir_ / "local.bin").c_str());
  EXPECT_EQ("", Read(link, 0, 5));  // gone since: reads as nothing
}

TEST_F(ReadTest, KindsWithoutTheirTablesReadNothing) {
  LIS_NODE* pure = LISCacheNewNode(L"pure", 'f');
  LISCacheAppendChild(dir_node_, pure);
  pure->llSource = nsPURE_VIRTUAL;
  pure->iHandle = 0;
  EXPECT_EQ("<-1>", Read(pure, 0, 5));  // no in-memory file has handle 0
  pure->llSource = nsVMDK;
  EXPECT_EQ("", Read(pure, 0, 5));
  pure->llSource = nsMERGE;
  EXPECT_EQ("", Read(pure, 0, 5));
}

}  // namespace
