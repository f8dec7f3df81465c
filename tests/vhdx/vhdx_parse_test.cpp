// Tests of the VHDX parser: BAT arithmetic, header and region-table choice,
// the checks that reject an image, GUID byte order, the BAT walk of every
// payload state, and the writer's images read back by qemu-img and libvhdi.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

#include "support/test_util.h"
#include "vhdx/vhdx_test_util.h"

namespace {

using mkvhdx::Block;
using mkvhdx::ImageDesc;
constexpr uint64_t kMiB = 1ull << 20;

VhdxImagePtr Parse(const ImageDesc& s, const std::wstring& name = L"disk.vhdx") {
  return parse_vhdx(vhdxtest::Register(mkvhdx::Write(s), name));
}

ImageDesc Differencing(ImageDesc s) {
  s.differencing = true;
  s.parentLinkage = "{0A1B2C3D-4E5F-6071-8293-A4B5C6D7E8F9}";
  s.parentPath = "C:\\VMs\\web01\\web01.vhdx";
  return s;
}

TEST(VhdxParse, BatArithmeticOfA3GiBDisk) {
  ImageDesc s;
  s.virtualSize = 3ull << 30;
  s.blockSize = 32 * kMiB;
  VhdxImagePtr plain = Parse(s);
  ASSERT_TRUE(plain);
  EXPECT_EQ(plain->chunk_ratio, 128u);
  EXPECT_EQ(plain->blocks.size(), 96u);  // 96 data blocks, no sector-bitmap entry between them
  EXPECT_FALSE(plain->differencing());

  VhdxImagePtr diff = Parse(Differencing(s));
  ASSERT_TRUE(diff);
  EXPECT_TRUE(diff->differencing());
  EXPECT_EQ(diff->blocks.size(), 128u);  // 129 entries, one of them the sector bitmap
}

TEST(VhdxParse, IdentityGeometryAndParentLocator) {
  ImageDesc s = Differencing(ImageDesc{});
  s.dataWriteGuid = mkvhdx::GuidFromText("{00112233-4455-6677-8899-AABBCCDDEEFF}");
  s.virtualDiskId = mkvhdx::GuidFromText("{DEADBEEF-0001-0002-0304-050607080910}");
  s.logicalSector = 4096;
  s.blockSize = kMiB;
  VhdxImagePtr img = Parse(s);
  ASSERT_TRUE(img);
  // Canonical order: the text form reads in the byte order kept.
  EXPECT_EQ(vhdx_guid_text(img->guid), "{00112233-4455-6677-8899-AABBCCDDEEFF}");
  EXPECT_EQ(img->guid[0], 0x00);
  EXPECT_EQ(img->guid[3], 0x33);
  EXPECT_EQ(vhdx_guid_text(img->virtual_disk_id), "{DEADBEEF-0001-0002-0304-050607080910}");
  EXPECT_EQ(vhdx_guid_text(img->parent_guid), "{0A1B2C3D-4E5F-6071-8293-A4B5C6D7E8F9}");
  EXPECT_EQ(img->parent_path, L"C:\\VMs\\web01\\web01.vhdx");
  EXPECT_EQ(img->parent_locator.size(), 2u);
  EXPECT_EQ(img->block_size, kMiB);
  EXPECT_EQ(img->logical_sector_size, 4096u);
  EXPECT_EQ(img->physical_sector_size, 4096u);
  EXPECT_EQ(img->virtual_disk_size, 8 * kMiB);
  EXPECT_TRUE(img->has_parent);

  // Lowercase text parses to the same GUID.
  EXPECT_EQ(vhdx_guid_from_text("{0a1b2c3d-4e5f-6071-8293-a4b5c6d7e8f9}"), img->parent_guid);

  // Without "parent_linkage", or with one that is no GUID, the disk counts
  // as non-differencing.
  for (const char* linkage : {"", "{not-a-guid}"}) {
    s.parentLinkage = linkage;
    img = Parse(s);
    ASSERT_TRUE(img);
    EXPECT_FALSE(img->differencing()) << linkage;
  }
}

TEST(VhdxParse, HeaderAndRegionTableChoice) {
  ImageDesc s;
  // Header 2 newer, region table 1 damaged: table 2 is used.
  s.damage.region1Crc = true;
  EXPECT_TRUE(Parse(s));
  // Header 1 newer: table 1 is used, and there is no fall-back to table 2.
  s.damage.header2Newer = false;
  EXPECT_FALSE(Parse(s));
  // Equal sequence numbers: header 2 and table 2.
  s.damage = {};
  s.damage.equalSequence = true;
  s.damage.region2Crc = true;
  EXPECT_FALSE(Parse(s));
  s.damage.region2Crc = false;
  s.damage.region1Crc = true;
  EXPECT_TRUE(Parse(s));
  // Header 1 invalid, header 2 valid and older: header 2 with table 2,
  // though table 1 is intact.
  s.damage = {};
  s.damage.header2Newer = false;
  s.damage.header1Crc = true;
  s.damage.region2Crc = true;
  EXPECT_FALSE(Parse(s));
  s.damage.region2Crc = false;
  EXPECT_TRUE(Parse(s));
}

TEST(VhdxParse, RegionChecks) {
  ImageDesc s;
  s.damage.regionCount = 2048;
  EXPECT_FALSE(Parse(s));
  s.damage.regionCount = 2047;  // the entries past the two real ones are zero and ignored
  EXPECT_TRUE(Parse(s));
  s.damage = {};
  s.damage.batOffset = 3 * kMiB / 2;
  EXPECT_FALSE(Parse(s));
}

TEST(VhdxParseDeath, NoValidHeaderOrActiveLogEndTheProcess) {
  ImageDesc s;
  s.damage.header1Crc = s.damage.header2Crc = true;
  EXPECT_EXIT(Parse(s), ::testing::ExitedWithCode(1), "");
  s.damage = {};
  s.damage.logGuid = true;
  EXPECT_EXIT(Parse(s), ::testing::ExitedWithCode(1), "");
}

TEST(VhdxParse, BatWalkOfEveryState) {
  ImageDesc s = Differencing(ImageDesc{});
  s.virtualSize = 20 * kMiB;
  s.blockSize = 2 * kMiB;  // 10 blocks, one chunk
  const std::vector<uint8_t> data = vhdxtest::Pattern(2 * kMiB, 1);
  s.blocks[0] = Block{6, data, {}};
  s.blocks[1] = Block{1, {}, {}};
  s.blocks[2] = Block{2, {}, {}};
  s.blocks[3] = Block{3, {}, {}};
  s.blocks[4] = Block{4, {}, {}};  // reserved: no record, the walk goes on
  std::vector<bool> sectors(4096, false);
  sectors[0] = sectors[1] = sectors[4095] = true;
  s.blocks[5] = Block{7, data, sectors};
  s.blocks[6] = Block{5, {}, {}};
  s.blocks[9] = Block{6, data, {}};
  VhdxImagePtr img = Parse(s);
  ASSERT_TRUE(img);
  ASSERT_EQ(img->blocks.size(), 10u - 2u + (img->chunk_ratio - 10));  // payload entries of the chunk, reserved left out
  std::vector<int> states;
  for (size_t i = 0; i < 8; ++i) states.push_back(img->blocks[i].state);
  EXPECT_EQ(states, (std::vector<int>{6, 1, 2, 3, 7, 0, 0, 6}));

  VhdxRanges expected;
  expected.add(VhdxRanges::interval_type::right_open(0, 2 * kMiB));
  expected.add(VhdxRanges::interval_type::right_open(10 * kMiB, 10 * kMiB + 1024));
  expected.add(VhdxRanges::interval_type::right_open(12 * kMiB - 512, 12 * kMiB));
  expected.add(VhdxRanges::interval_type::right_open(18 * kMiB, 20 * kMiB));
  EXPECT_EQ(img->present_ranges, expected);
  EXPECT_EQ(img->blocks[4].ranges.size(), 1024u + 512u);
  EXPECT_EQ(img->blocks[4].file_offset_mb * kMiB % kMiB, 0u);
  // The sector bitmap holds exactly the partial block's bits.
  EXPECT_EQ(img->bitmap_ranges.size(), 1536u);
}

TEST(VhdxParse, SectorBitmapBlockOfADifferencingDisk) {
  ImageDesc s = Differencing(ImageDesc{});
  s.logicalSector = 4096;
  s.blockSize = kMiB;
  std::vector<bool> bits(8, false);
  bits[3] = true;  // sector 3: bytes [12288, 16384)
  s.extraSectorBitmaps[0] = bits;
  VhdxImagePtr img = Parse(s);
  ASSERT_TRUE(img);
  EXPECT_TRUE(img->present_ranges.empty());
  VhdxRanges expected;
  expected.add(VhdxRanges::interval_type::right_open(12288, 16384));
  EXPECT_EQ(img->bitmap_ranges, expected);
}

// ---- the writer checked by foreign readers --------------------------------

bool HaveQemuImg() { return tvutest::Shell("command -v qemu-img >/dev/null 2>&1") == 0; }
bool HavePyvhdi() { return tvutest::Shell("/usr/bin/python3 -c 'import pyvhdi' >/dev/null 2>&1") == 0; }

void WriteBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                              static_cast<std::streamsize>(bytes.size()));
}

// Compares a VHDX's virtual disk with a raw image through libvhdi.
int LibvhdiCompare(const tvutest::TempDir& dir, const std::string& vhdx, const std::string& raw,
                   const std::string& parent = "") {
  const std::string script =
      "import pyvhdi,sys\n"
      "c=pyvhdi.file(); c.open(sys.argv[1])\n"
      "if len(sys.argv)>3:\n"
      "  p=pyvhdi.file(); p.open(sys.argv[3]); c.set_parent(p)\n"
      "d=c.read_buffer_at_offset(c.get_media_size(),0)\n"
      "sys.exit(0 if d==open(sys.argv[2],'rb').read() else 3)\n";
  tvutest::WriteFile(dir / "check.py", script);
  return tvutest::Shell("/usr/bin/python3 " + dir / "check.py" + " " + vhdx + " " + raw + " " + parent);
}

// qemu-img reads only 512-byte sectors; 4096-byte ones go to libvhdi.
TEST(VhdxWriter, ForeignReadersReadEveryPlainForm) {
  if (!HaveQemuImg() || !HavePyvhdi()) GTEST_SKIP() << "qemu-img or libvhdi's Python binding not installed";
  tvutest::TempDir dir;
  const struct { uint32_t sector, block; } forms[] = {{512, 1}, {512, 32}, {4096, 2}, {4096, 32}};
  uint32_t seed = 10;
  for (const auto& form : forms) {
    ImageDesc s;
    s.logicalSector = form.sector;
    s.blockSize = form.block * static_cast<uint32_t>(kMiB);
    s.virtualSize = 3 * s.blockSize + 3 * kMiB / 2;  // a partial last block
    s.blocks[0] = Block{6, vhdxtest::Pattern(s.blockSize, seed++), {}};
    s.blocks[2] = Block{2, {}, {}};
    s.blocks[3] = Block{6, vhdxtest::Pattern(s.blockSize, seed++), {}};
    const std::string vhdx = dir / "d.vhdx", raw = dir / "d.raw";
    ASSERT_TRUE(mkvhdx::WriteFile(mkvhdx::Write(s), vhdx));
    WriteBytes(raw, mkvhdx::RawDisk(s));
    if (form.sector == 512) {
      EXPECT_EQ(tvutest::Shell("qemu-img check -q -f vhdx " + vhdx), 0) << form.block;
      EXPECT_EQ(tvutest::Shell("qemu-img compare -q -f vhdx -F raw " + vhdx + " " + raw), 0) << form.block;
    }
    EXPECT_EQ(LibvhdiCompare(dir, vhdx, raw), 0) << form.sector << "/" << form.block;
  }
}

TEST(VhdxWriter, LibvhdiReadsADifferencingChain) {
  if (!HavePyvhdi()) GTEST_SKIP() << "libvhdi's Python binding not installed";
  tvutest::TempDir dir;
  ImageDesc head;
  head.virtualSize = 8 * kMiB;
  head.dataWriteGuid = mkvhdx::GuidFromText("{11111111-0000-0000-0000-000000000001}");
  head.blocks[0] = Block{6, vhdxtest::Pattern(2 * kMiB, 1), {}};
  head.blocks[1] = Block{6, vhdxtest::Pattern(2 * kMiB, 2), {}};
  ImageDesc tail = head;
  tail.blocks.clear();
  tail.differencing = true;
  tail.parentLinkage = mkvhdx::GuidText(head.dataWriteGuid);
  tail.parentPath = dir / "head.vhdx";
  std::vector<bool> sectors(4096, false);
  for (int i = 100; i < 300; ++i) sectors[i] = true;
  tail.blocks[1] = Block{7, vhdxtest::Pattern(2 * kMiB, 3), sectors};
  tail.blocks[3] = Block{6, vhdxtest::Pattern(2 * kMiB, 4), {}};
  ASSERT_TRUE(mkvhdx::WriteFile(mkvhdx::Write(head), dir / "head.vhdx"));
  ASSERT_TRUE(mkvhdx::WriteFile(mkvhdx::Write(tail), dir / "tail.avhdx"));
  // The expected disk: the tail's sectors over the head's.
  std::vector<uint8_t> expected = mkvhdx::RawDisk(head);
  const std::vector<uint8_t> mine = mkvhdx::RawDisk(tail);
  for (uint64_t p = 0; p < expected.size(); p += 512) {
    const uint64_t b = p / (2 * kMiB);
    const bool supplied = b == 3 || (b == 1 && sectors[(p % (2 * kMiB)) / 512]);
    if (supplied) std::copy(mine.begin() + static_cast<long>(p), mine.begin() + static_cast<long>(p + 512),
                            expected.begin() + static_cast<long>(p));
  }
  WriteBytes(dir / "expected.raw", expected);
  EXPECT_EQ(LibvhdiCompare(dir, dir / "tail.avhdx", dir / "expected.raw", dir / "head.vhdx"), 0);
}

}  // namespace
