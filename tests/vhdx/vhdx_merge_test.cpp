// Tests of the VHDX merge: random chains against a byte model of the disk,
// the tree of tails (parents by GUID and by path, siblings, strays), the
// failures, and the merged image read back by qemu-img.
#include <gtest/gtest.h>

#include <fstream>
#include <random>

#include "support/test_util.h"
#include "vhdx/vhdx_test_util.h"

namespace {

using mkvhdx::Block;
using mkvhdx::ImageDesc;
constexpr uint64_t kMiB = 1ull << 20;

const char* const kHeadGuid = "{6A0D61A3-2C44-4F5B-9A6E-0E1D2C3B4A59}";

ImageDesc Head(uint64_t size, uint32_t blockSize, uint32_t sector) {
  ImageDesc s;
  s.virtualSize = size;
  s.blockSize = blockSize;
  s.logicalSector = sector;
  s.dataWriteGuid = mkvhdx::GuidFromText(kHeadGuid);
  return s;
}

ImageDesc Tail(const ImageDesc& head, uint32_t blockSize, const std::string& parentPath, uint8_t n) {
  ImageDesc s = head;
  s.blocks.clear();
  s.blockSize = blockSize;
  s.differencing = true;
  s.parentLinkage = kHeadGuid;
  s.parentPath = parentPath;
  s.dataWriteGuid[15] = n;  // each tail its own identity
  return s;
}

// The disk after a tail: its full blocks and its set sectors over the rest.
void Apply(const ImageDesc& tail, std::vector<uint8_t>* disk) {
  for (const auto& [index, block] : tail.blocks) {
    if (block.state != 6 && block.state != 7) continue;
    const uint64_t start = index * tail.blockSize;
    for (uint64_t i = 0; i < tail.blockSize && start + i < disk->size(); ++i) {
      const bool supplied = block.state == 6 || block.sectors.at(i / tail.logicalSector);
      if (supplied) (*disk)[start + i] = block.data[i];
    }
  }
}

void RandomBlocks(ImageDesc* s, std::mt19937* rng, bool tail) {
  const uint64_t count = (s->virtualSize + s->blockSize - 1) / s->blockSize;
  const uint32_t sectors = s->blockSize / s->logicalSector;
  for (uint64_t b = 0; b < count; ++b) {
    const int pick = static_cast<int>((*rng)() % 4);
    if (pick == 0) continue;  // not present
    Block block;
    block.state = tail ? (pick == 1 ? 7 : 6) : (pick == 1 ? 2 : 6);
    block.data = vhdxtest::Pattern(s->blockSize, (*rng)());
    if (block.state == 7) {
      block.sectors.assign(sectors, false);
      for (int run = 0; run < 3; ++run) {  // a few runs of set sectors
        const uint32_t from = (*rng)() % sectors, len = 1 + (*rng)() % std::max(1u, sectors / 4);
        for (uint32_t i = from; i < std::min(sectors, from + len); ++i) block.sectors[i] = true;
      }
    }
    s->blocks[b] = std::move(block);
  }
}

// Head plus tails in one merge; the merged virtual disk.
std::vector<uint8_t> MergeChain(const ImageDesc& head, const std::vector<std::pair<ImageDesc, std::wstring>>& tails,
                                VhdxImagePtr* result = nullptr) {
  VhdxImagePtr h = parse_vhdx(vhdxtest::Register(mkvhdx::Write(head), L"C:/VMs/disk.vhdx"));
  EXPECT_TRUE(h);
  VhdxMerge merge(h);
  for (const auto& [desc, name] : tails) merge.add_tail(vhdxtest::Register(mkvhdx::Write(desc), name));
  VhdxImagePtr final = merge.merge_all_tails();
  EXPECT_TRUE(final);
  if (result) *result = final;
  return final ? vhdxtest::VirtualDisk(*final) : std::vector<uint8_t>{};
}

// qemu-img finds no error in the merged image and reads the model's disk.
void ExpectQemuReads(const VhdxImage& result, const std::vector<uint8_t>& model, uint32_t seed) {
  if (tvutest::Shell("command -v qemu-img >/dev/null 2>&1") != 0) return;
  tvutest::TempDir dir;
  const std::vector<uint8_t> file = vhdxtest::ReadAll(result.source.pFile);
  std::ofstream(dir / "m.vhdx", std::ios::binary).write(reinterpret_cast<const char*>(file.data()),
                                                        static_cast<std::streamsize>(file.size()));
  std::ofstream(dir / "m.raw", std::ios::binary).write(reinterpret_cast<const char*>(model.data()),
                                                       static_cast<std::streamsize>(model.size()));
  EXPECT_EQ(0, tvutest::Shell("qemu-img check -q -f vhdx " + dir / "m.vhdx")) << "seed " << seed;
  EXPECT_EQ(0, tvutest::Shell("qemu-img compare -q -f vhdx -F raw " + dir / "m.vhdx " + dir / "m.raw"))
      << "seed " << seed;
}

TEST(VhdxMerge, RandomChainsEqualTheModel) {
  const uint32_t blockSizes[] = {1, 2, 32};
  for (uint32_t seed = 1; seed <= 12; ++seed) {
    std::mt19937 rng(seed);
    const uint32_t sector = seed % 3 == 0 ? 4096 : 512;
    const uint64_t size = 40 * kMiB + (rng() % 8) * sector;
    ImageDesc head = Head(size, blockSizes[rng() % 3] * static_cast<uint32_t>(kMiB), sector);
    RandomBlocks(&head, &rng, false);
    std::vector<uint8_t> model = mkvhdx::RawDisk(head);
    std::vector<std::pair<ImageDesc, std::wstring>> tails;
    std::string parent = "C:/VMs/disk.vhdx";
    const int n = 1 + static_cast<int>(rng() % 3);
    for (int t = 0; t < n; ++t) {
      ImageDesc tail = Tail(head, blockSizes[rng() % 3] * static_cast<uint32_t>(kMiB), parent, static_cast<uint8_t>(t + 1));
      RandomBlocks(&tail, &rng, true);
      Apply(tail, &model);
      parent = "C:/VMs/disk_" + std::to_string(t + 1) + ".avhdx";
      tails.emplace_back(tail, std::wstring(parent.begin(), parent.end()));
    }
    VhdxImagePtr result;
    EXPECT_TRUE(MergeChain(head, tails, &result) == model) << "seed " << seed;
    if (result && sector == 512) ExpectQemuReads(*result, model, seed);  // qemu-img reads 512-byte sectors only
  }
}

// Small tail blocks on a large head block and the reverse, each starting in
// the middle of a block the head does not hold: one new block each, and the
// sectors the tail does not supply read as zeros.
TEST(VhdxMerge, BlockSizesInBothDirections) {
  for (const auto& [headBlock, tailBlock] : {std::pair<uint32_t, uint32_t>{32, 2}, {2, 32}, {1, 2}}) {
    ImageDesc head = Head(64 * kMiB, headBlock * static_cast<uint32_t>(kMiB), 512);
    head.blocks[0] = Block{6, vhdxtest::Pattern(head.blockSize, 7), {}};
    ImageDesc tail = Tail(head, tailBlock * static_cast<uint32_t>(kMiB), "C:/VMs/disk.vhdx", 1);
    const uint64_t at = 36 * kMiB + 3 * 512;  // not held by the head
    std::vector<bool> sectors(tail.blockSize / 512, false);
    for (uint64_t s = (at % tail.blockSize) / 512; s < sectors.size(); ++s) sectors[s] = true;
    tail.blocks[at / tail.blockSize] = Block{7, vhdxtest::Pattern(tail.blockSize, 8), sectors};
    tail.blocks[0] = Block{6, vhdxtest::Pattern(tail.blockSize, 9), {}};
    std::vector<uint8_t> model = mkvhdx::RawDisk(head);
    Apply(tail, &model);
    VhdxImagePtr result;
    EXPECT_TRUE(MergeChain(head, {{tail, L"C:/VMs/disk_1.avhdx"}}, &result) == model) << headBlock << "/" << tailBlock;
    ASSERT_TRUE(result);
    EXPECT_EQ(result->block_size, head.blockSize);  // the result keeps the head's geometry
  }
}

// A tree: t1 and t1b under the head, t2 under t1 (named with other slashes
// and case), a stray whose parent GUID is a tail's, and a tail that does
// not parse.  Merged: head <- (t1 <- t2), then <- t1b.
TEST(VhdxMerge, TreeOfTails) {
  std::mt19937 rng(99);
  ImageDesc head = Head(16 * kMiB, 2 * kMiB, 512);
  RandomBlocks(&head, &rng, false);
  ImageDesc t1 = Tail(head, 2 * kMiB, "C:/VMs/disk.vhdx", 1);
  ImageDesc t1b = Tail(head, kMiB, "C:/VMs/disk.vhdx", 2);
  ImageDesc t2 = Tail(head, 2 * kMiB, "c:\\vms\\DISK_1.avhdx", 3);
  ImageDesc stray = Tail(head, 2 * kMiB, "C:/VMs/disk_1.avhdx", 4);
  stray.parentLinkage = mkvhdx::GuidText(t1.dataWriteGuid);
  ImageDesc broken = Tail(head, 2 * kMiB, "C:/VMs/disk.vhdx", 5);
  broken.damage.region2Crc = true;
  for (ImageDesc* s : {&t1, &t1b, &t2, &stray, &broken}) RandomBlocks(s, &rng, true);
  std::vector<uint8_t> model = mkvhdx::RawDisk(head);
  Apply(t1, &model);
  Apply(t2, &model);
  Apply(t1b, &model);
  const std::vector<uint8_t> merged =
      MergeChain(head, {{t1, L"C:/VMs/disk_1.avhdx"}, {broken, L"C:/VMs/broken.avhdx"}, {t1b, L"C:/VMs/disk_1b.avhdx"},
                        {stray, L"C:/VMs/stray.avhdx"}, {t2, L"C:/VMs/disk_2.avhdx"}});
  EXPECT_TRUE(merged == model);
}

TEST(VhdxMergeDeath, ReservedHeadStateUnderATailEndsTheProcess) {
  ImageDesc head = Head(8 * kMiB, 2 * kMiB, 512);
  head.blocks[1] = Block{5, {}, {}};
  ImageDesc tail = Tail(head, 2 * kMiB, "C:/VMs/disk.vhdx", 1);
  tail.blocks[3] = Block{6, vhdxtest::Pattern(2 * kMiB, 1), {}};
  // Not touched by the tail: never looked at.
  std::vector<uint8_t> model = mkvhdx::RawDisk(head);
  Apply(tail, &model);
  EXPECT_TRUE(MergeChain(head, {{tail, L"C:/VMs/disk_1.avhdx"}}) == model);
  tail.blocks[1] = Block{6, vhdxtest::Pattern(2 * kMiB, 2), {}};
  EXPECT_EXIT(MergeChain(head, {{tail, L"C:/VMs/disk_1.avhdx"}}), ::testing::ExitedWithCode(1),
              "");
}

TEST(VhdxMerge, ResultIsAVhdxForQemuImg) {
  if (tvutest::Shell("command -v qemu-img >/dev/null 2>&1") != 0) GTEST_SKIP() << "qemu-img not installed";
  std::mt19937 rng(5);
  ImageDesc head = Head(24 * kMiB, 2 * kMiB, 512);
  RandomBlocks(&head, &rng, false);
  ImageDesc t1 = Tail(head, 32 * kMiB, "C:/VMs/disk.vhdx", 1);
  ImageDesc t2 = Tail(head, kMiB, "C:/VMs/disk_1.avhdx", 2);
  RandomBlocks(&t1, &rng, true);
  RandomBlocks(&t2, &rng, true);
  std::vector<uint8_t> model = mkvhdx::RawDisk(head);
  Apply(t1, &model);
  Apply(t2, &model);
  VhdxImagePtr result;
  ASSERT_TRUE(MergeChain(head, {{t1, L"C:/VMs/disk_1.avhdx"}, {t2, L"C:/VMs/disk_2.avhdx"}}, &result) == model);
  ExpectQemuReads(*result, model, 5);
}

}  // namespace
