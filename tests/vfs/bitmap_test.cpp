// Tests of the block-bitmap merge through the mapper rules: the bit order,
// zero bytes and empty bitmaps, increments that overlap (the later wins),
// blocks at and past the disk's end, the head's conversion into a VHD (read
// back by qemu-img and libvhdi), a second head converting the first, and
// heads that are not converted.  Every merged disk is compared with a model:
// the head's bytes with each increment's blocks copied over them.
#include "vfs/tq_vfs_bitmap.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/vdisk_check.h"
#include "vfs/vdisk_env.h"

namespace {

constexpr size_t kBlock = 0x10000;

// The disk after one increment: bit 7 of byte k is block 8k, and the data
// hold the set blocks back to back.
void Apply(std::string* disk, const std::string& bitmap, const std::string& data) {
  size_t s = 0;
  for (size_t k = 0; k < bitmap.size(); ++k) {
    for (int bit = 7; bit >= 0; --bit) {
      if (!((static_cast<unsigned char>(bitmap[k]) >> bit) & 1)) continue;
      const size_t at = (8 * k + static_cast<size_t>(7 - bit)) * kBlock;
      if (at < disk->size()) disk->replace(at, std::min(kBlock, disk->size() - at), data, s, std::min(kBlock, disk->size() - at));
      s += kBlock;
    }
  }
}

size_t SetBits(const std::string& bitmap) {
  size_t n = 0;
  for (unsigned char c : bitmap) n += static_cast<size_t>(__builtin_popcount(c));
  return n;
}

class BitmapMerge : public tvutest::VdiskEnv {
 protected:
  // One increment: its data saveset and its bitmap item; returns its rules.
  std::string Increment(int n, const std::string& bitmap) {
    const std::string name = "SI2026110103000" + std::to_string(n);
    const std::string data = Random(SetBits(bitmap) * kBlock, 100 + static_cast<unsigned>(n));
    AddSaveset(name, data);
    Apply(&model_, bitmap, data);
    return "BITMERGE_INC f \"" + name + "\"\nBITMERGE_BITMAP f " +
           AddItem("bitmaps/inc" + std::to_string(n) + ".bmp", bitmap) + "\n";
  }
  std::string Head(const std::string& saveset, const std::string& bytes, const std::string& name) {
    AddSaveset(saveset, bytes);
    model_ = bytes;
    return "BITMERGE_FULL f \"" + saveset + "\" \"" + name + "\"\n";
  }

  std::string model_;
};

TEST_F(BitmapMerge, BitOrderZeroBytesAndEmptyBitmaps) {
  std::string rules = Head("SF20261101020000", std::string(32 * kBlock, 'h'), "disk.raw");
  // 0x80: block 0; 0x01: block 15; a zero byte; 0x40: block 25.
  rules += Increment(1, std::string("\x80\x01\x00\x40", 4));
  rules += Increment(2, "");                       // an empty bitmap: nothing
  rules += Increment(3, std::string(4, '\0'));     // only zero bytes: nothing
  WriteItems();
  Map(rules);
  LIS_NODE* head = Node(L"/R/MAPPER/INTERMEDIATE/disk.raw");
  ASSERT_NE(nullptr, head);
  EXPECT_EQ(model_.size(), head->ullSize);
  const std::string disk = ReadAll(head);
  ASSERT_TRUE(disk == model_);
  for (size_t b : {size_t{1}, size_t{14}, size_t{16}, size_t{24}, size_t{26}})
    EXPECT_EQ(std::string(kBlock, 'h'), disk.substr(b * kBlock, kBlock)) << b;
  EXPECT_NE(std::string(kBlock, 'h'), disk.substr(0, kBlock));
  EXPECT_NE(std::string(kBlock, 'h'), disk.substr(15 * kBlock, kBlock));
  EXPECT_NE(std::string(kBlock, 'h'), disk.substr(25 * kBlock, kBlock));
  // The whole image and one slice per run of set blocks: four in all.
  EXPECT_EQ(4u, vfile_get(head->iHandle)->sliceCount());
  // The rules end: the head is converted into the target.
  ASSERT_NE(nullptr, Node(L"/R/MAPPER/disk.raw.vhd"));
}

// Three increments with overlapping runs, one mostly zero bytes, bits of the
// partial last block and past the disk's end; the VHD of the result is read
// by qemu-img and libvhdi as the model's bytes.
TEST_F(BitmapMerge, OverlappingIncrementsLaterWinsAndTheVhdReadsBack) {
  const size_t size = 6 * 1024 * 1024 + 1000;  // 97 blocks, the last of 1000 bytes
  std::string rules = "MAPTO \"/out\"\n" + Head("SF20261101020000", Random(size, 1), "web01.raw");
  std::string a(13, '\0'), b(13, '\0'), c(40, '\0');
  a[0] = '\xff';  a[1] = '\x0f';  a[5] = '\x3c';  a[12] = '\x80';  // block 96, the partial one
  b[1] = '\xff';  b[5] = '\x81';  b[6] = '\x7e';  b[12] = '\xc0';  // and block 97, past the end
  c[0] = '\x10';  c[1] = '\x18';  c[39] = '\x01';                  // long zero runs, a block far past the end
  rules += Increment(1, a);  // one statement each: the model applies them in order
  rules += Increment(2, b);
  rules += Increment(3, c);
  WriteItems();
  Map(rules);
  LIS_NODE* head = Node(L"/R/MAPPER/INTERMEDIATE/web01.raw");
  ASSERT_NE(nullptr, head);
  EXPECT_EQ(size, head->ullSize);  // blocks past the end do not grow the disk
  const std::string disk = ReadAll(head);
  ASSERT_EQ(model_.size(), disk.size());
  for (size_t at = 0; at < disk.size(); at += kBlock)
    ASSERT_TRUE(disk.substr(at, kBlock) == model_.substr(at, kBlock)) << "block " << at / kBlock;

  LIS_NODE* vhdNode = Node(L"/R/MAPPER/out/web01.raw.vhd");
  ASSERT_NE(nullptr, vhdNode);
  tvutest::WriteFile(tmp_ / "web01.vhd", ReadAll(vhdNode));
  tvutest::WriteFile(tmp_ / "final.raw", model_);
  EXPECT_EQ("", tvutest::QemuChecksVhd(tmp_ / "web01.vhd", tmp_ / "final.raw"));
  EXPECT_EQ("", tvutest::LibvhdiChecksVhd(tmp_ / "web01.vhd", tmp_ / "final.raw"));
}

// A second head converts the first into the target of that moment; a head
// named ".qcow..." is never converted, but reads as its merged disk.
TEST_F(BitmapMerge, SecondHeadConvertsTheFirstQcowHeadsStayRaw) {
  std::string rules = "MAPTO \"/a\"\n" + Head("SF20261101020000", Random(3 * kBlock, 2), "one.raw");
  rules += Increment(1, "\x40");
  rules += "MAPTO \"/b\"\n" + Head("SF20261101030000", Random(5 * kBlock, 3), "two.qcow2");
  rules += Increment(2, "\x08");
  WriteItems();
  const std::string trc = Map(rules);
  EXPECT_EQ(nullptr, Node(L"/R/MAPPER/a/one.raw.vhd"));
  LIS_NODE* one = Node(L"/R/MAPPER/b/one.raw.vhd");
  ASSERT_NE(nullptr, one);
  EXPECT_EQ(nullptr, Node(L"/R/MAPPER/b/two.qcow2.vhd"));
  EXPECT_NE(std::string::npos, trc.find("Not converting qcow disk to vhd")) << trc;
  LIS_NODE* two = Node(L"/R/MAPPER/INTERMEDIATE/two.qcow2");
  ASSERT_NE(nullptr, two);
  EXPECT_TRUE(ReadAll(two) == model_);
  // The first disk's VHD holds the first merge: block 1 from its increment.
  const std::string vhd = ReadAll(one);
  const std::string block1 = vhd.substr(1536 + 512 + 512 + kBlock, kBlock);
  EXPECT_TRUE(block1 == Random(kBlock, 101));
}

TEST_F(BitmapMerge, BitmapWithoutIncrementDataEndsTheProcess) {
  std::string rules = Head("SF20261101020000", std::string(kBlock, 'h'), "disk.raw");
  rules += "BITMERGE_INC f \"SI20261199999999\"\n";  // no such saveset: no data
  rules += "BITMERGE_BITMAP f " + AddItem("b.bmp", "\x80") + "\n";
  WriteItems();
  tvutest::WriteFile(rules_, rules);
  VfsSetMapperRulesFile(rules_.c_str());
  EXPECT_EXIT(initializeMAPPER_FS(nullptr), ::testing::ExitedWithCode(1),
              "ERROR: MAPPER bitmap without a BITMERGE_FULL head or BITMERGE_INC data before it line no 3\n");
}

}  // namespace
