// Tests of VHD creation: the geometry algorithm at its borders, the fixed
// fields and checksums of footer and header, the blocks placed, and whole
// images made by SAVESET2VHD read back by qemu-img and libvhdi.
#include "vfs/tq_vfs_vhd.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/vdisk_check.h"
#include "vfs/vdisk_env.h"

namespace {

using tvutest::VdiskEnv;

uint32_t Be32(const std::string& s, size_t at) {
  return static_cast<uint32_t>(static_cast<unsigned char>(s[at])) << 24 |
         static_cast<uint32_t>(static_cast<unsigned char>(s[at + 1])) << 16 |
         static_cast<uint32_t>(static_cast<unsigned char>(s[at + 2])) << 8 | static_cast<unsigned char>(s[at + 3]);
}
uint64_t Be64(const std::string& s, size_t at) { return static_cast<uint64_t>(Be32(s, at)) << 32 | Be32(s, at + 4); }

// The byte sum's complement over a copy with the checksum field zeroed.
uint32_t SumWithout(std::string block, size_t checksumAt) {
  std::memset(&block[checksumAt], 0, 4);
  uint32_t sum = 0;
  for (unsigned char c : block) sum += c;
  return ~sum;
}

TEST(VhdGeometry, FollowsTheFormatsAlgorithmAtItsBorders) {
  static const struct {
    uint64_t sectors;
    uint16_t c;
    uint8_t h, s;
  } kCases[] = {
      {20480, 301, 4, 17},             // 10 MiB
      {69581, 1023, 4, 17},            // heads = (4093 + 1023) / 1024 = 4, not ceil(4093 / 1023) = 5
      {69632, 140, 16, 31},            // 4096 cylinder-heads overflow 4 heads: 31 sectors, 16 heads
      {17 * 16 * 1024 - 1, 1023, 16, 17},
      {17 * 16 * 1024, 561, 16, 31},   // 16 heads of 17 sectors are full: 31 sectors
      {31 * 16 * 1024, 503, 16, 63},   // and then 63
      {66059279, 65534, 16, 63},       // just below 65535 * 16 * 63
      {66059280, 16191, 16, 255},      // from there on 255 sectors, 16 heads
      {267382800, 65535, 16, 255},     // the cap, 65535 * 16 * 255
      {300000000, 65535, 16, 255},     // above it: as the cap
  };
  for (const auto& c : kCases) {
    const vhd::Geometry g = vhd::ChsGeometry(c.sectors);
    EXPECT_EQ(c.c, g.cylinders) << c.sectors;
    EXPECT_EQ(c.h, g.heads) << c.sectors;
    EXPECT_EQ(c.s, g.sectorsPerTrack) << c.sectors;
  }
}

// The fixed fields at their offsets, checksums that hold, and a checksum
// that changes with any byte.
TEST(VhdFooter, CarriesTheFixedFieldsAndChecksums) {
  const uint64_t size = 10 * 1024 * 1024 + 1000;
  const vhd::Footer f = vhd::MakeFooter(size);
  const std::string b(reinterpret_cast<const char*>(&f), sizeof f);
  EXPECT_EQ("conectix", b.substr(0, 8));
  EXPECT_EQ(2u, Be32(b, 8));
  EXPECT_EQ(0x00010000u, Be32(b, 12));
  EXPECT_EQ(512u, Be64(b, 16));
  EXPECT_EQ(0x220D794Du, Be32(b, 24));
  EXPECT_EQ(std::string("tap\0", 4), b.substr(28, 4));
  EXPECT_EQ(0x00050003u, Be32(b, 32));
  EXPECT_EQ("Wi2k", b.substr(36, 4));
  EXPECT_EQ(size, Be64(b, 40));
  EXPECT_EQ(size, Be64(b, 48));
  // 20482 sectors (the last one partial): 17 sectors, 4 heads, 301 cylinders.
  EXPECT_EQ(0x012D0411u, Be32(b, 56));
  EXPECT_EQ(3u, Be32(b, 60));
  EXPECT_EQ(SumWithout(b, 64), Be32(b, 64));
  EXPECT_EQ(std::string("\x41\x30\x3e\x60\x91\x94\x41\x54\x89\x63\x12\x4f\x9c\x1e\x61\x0d", 16), b.substr(68, 16));
  EXPECT_EQ(std::string(428, '\0'), b.substr(84));
  const vhd::Footer other = vhd::MakeFooter(size + 1);
  EXPECT_NE(Be32(b, 64), Be32(std::string(reinterpret_cast<const char*>(&other), 512), 64));

  const vhd::DynamicHeader h = vhd::MakeDynamicHeader(6);
  const std::string d(reinterpret_cast<const char*>(&h), sizeof h);
  EXPECT_EQ("cxsparse", d.substr(0, 8));
  EXPECT_EQ(~0ull, Be64(d, 8));
  EXPECT_EQ(1536u, Be64(d, 16));
  EXPECT_EQ(0x00010000u, Be32(d, 24));
  EXPECT_EQ(6u, Be32(d, 28));
  EXPECT_EQ(0x200000u, Be32(d, 32));
  EXPECT_EQ(SumWithout(d, 36), Be32(d, 36));
  EXPECT_EQ(std::string(1024 - 40, '\0'), d.substr(40));
}

// Only blocks that some slice covers are placed; the others are absent and
// read as zeros, and a gap inside a placed block reads as zeros too.
TEST(VhdBuild, PlacesTheCoveredBlocksOnly) {
  tq_vfs_vfile source(L"src", L"src");
  auto data = std::make_shared<std::vector<unsigned char>>(1000, 0xAB);
  tq_vfs_slice s;
  s.mTime = 1;
  s.iType = stMEMORY;
  s.pBuffer = data;
  s.miIntervalStart = 100;  // block 0, behind a gap
  s.miIntervalEnd = 1100;
  source.add_slice(s);
  s.miIntervalStart = 3 * 0x200000 + 5;  // block 3, the last one, partial
  s.miIntervalEnd = s.miIntervalStart + 1000;
  source.add_slice(s);
  const uint64_t diskSize = static_cast<uint64_t>(s.miIntervalEnd);

  std::string why;
  std::unique_ptr<tq_vfs_vfile> image = vhd::Build(source, L"x.vhd", &why);
  ASSERT_NE(nullptr, image) << why;
  // Two placed blocks of bitmap and data, between BAT and footer.
  ASSERT_EQ(1536u + 512 + 2 * (512 + 0x200000) + 512, image->size());
  std::string bytes(image->size(), '\0');
  image->m_fpos = 0;
  ASSERT_EQ(bytes.size(), image->read(&bytes[0], bytes.size()));
  EXPECT_EQ(bytes.substr(0, 512), bytes.substr(bytes.size() - 512));
  EXPECT_EQ(diskSize, Be64(bytes, 48));
  EXPECT_EQ(4u, Be32(bytes, 512 + 28));
  const uint32_t b0 = Be32(bytes, 1536), b3 = Be32(bytes, 1536 + 12);
  EXPECT_EQ(4u, b0);  // right after the BAT's one sector
  EXPECT_EQ(0xFFFFFFFFu, Be32(bytes, 1536 + 4));
  EXPECT_EQ(0xFFFFFFFFu, Be32(bytes, 1536 + 8));
  EXPECT_EQ(b0 + 1 + 0x200000 / 512, b3);
  EXPECT_EQ(std::string(512 - 16, '\xff'), bytes.substr(1536 + 16, 512 - 16));  // BAT padding
  EXPECT_EQ(std::string(512, '\xff'), bytes.substr(b0 * 512ull, 512));           // every sector present
  const std::string block0 = bytes.substr(b0 * 512ull + 512, 0x200000);
  EXPECT_EQ(std::string(100, '\0'), block0.substr(0, 100));
  EXPECT_EQ(std::string(1000, '\xab'), block0.substr(100, 1000));
  EXPECT_EQ(std::string(0x200000 - 1100, '\0'), block0.substr(1100));
  const std::string block3 = bytes.substr(b3 * 512ull + 512, 0x200000);
  EXPECT_EQ(std::string(1000, '\xab'), block3.substr(5, 1000));
  EXPECT_EQ(std::string(0x200000 - 1005, '\0'), block3.substr(1005));  // a whole block past the end

  tq_vfs_vfile empty(L"e", L"e");
  EXPECT_EQ(nullptr, vhd::Build(empty, L"e.vhd", &why));
}

class SavesetToVhd : public VdiskEnv {
 protected:
  // SAVESET2VHD of a saveset of `size` bytes: the image exported to a file,
  // beside the raw source.
  std::string MakeVhd(uint64_t size, std::string* raw) {
    *raw = Random(size, 7);
    // Long zero runs, as disks have them.
    std::memset(&(*raw)[size / 3], 0, size / 4);
    AddSaveset("SF20261101030000", *raw);
    tvutest::WriteFile(tmp_ / "source.raw", *raw);
    Map("MAPTO \"/disks\"\nSAVESET2VHD f \"SF20261101030000\" \"web.vhd\"\n");
    LIS_NODE* vhdNode = Node(L"/R/MAPPER/disks/web.vhd");
    EXPECT_NE(nullptr, vhdNode);
    EXPECT_NE(nullptr, Node(L"/R/MAPPER/INTERMEDIATE/SF20261101030000"));
    if (vhdNode == nullptr) return "";
    const std::string image = ReadAll(vhdNode);
    EXPECT_EQ(vhdNode->ullSize, image.size());
    tvutest::WriteFile(tmp_ / "web.vhd", image);
    return image;
  }
};

TEST_F(SavesetToVhd, TenMiBReadByQemuAndLibvhdi) {
  std::string raw;
  const std::string image = MakeVhd(10 * 1024 * 1024, &raw);
  ASSERT_FALSE(image.empty());
  EXPECT_EQ(20480u * 512, Be64(image, 48));
  EXPECT_EQ(0x012D0411u, Be32(image, 56));  // 301 cylinders, 4 heads, 17 sectors
  EXPECT_EQ(5u, Be32(image, 512 + 28));     // BAT entries
  EXPECT_EQ("", tvutest::QemuChecksVhd(tmp_ / "web.vhd", tmp_ / "source.raw"));
  EXPECT_EQ("", tvutest::LibvhdiChecksVhd(tmp_ / "web.vhd", tmp_ / "source.raw"));
}

// A size that is no multiple of 512: the footer keeps it exactly, libvhdi
// reads every byte, qemu (which counts whole sectors) all whole sectors.
TEST_F(SavesetToVhd, OddSizeKeepsItsExactBytes) {
  std::string raw;
  const uint64_t size = 10 * 1024 * 1024 + 1000;
  const std::string image = MakeVhd(size, &raw);
  ASSERT_FALSE(image.empty());
  EXPECT_EQ(size, Be64(image, 40));
  EXPECT_EQ(size, Be64(image, 48));
  EXPECT_EQ(6u, Be32(image, 512 + 28));
  EXPECT_EQ("", tvutest::LibvhdiChecksVhd(tmp_ / "web.vhd", tmp_ / "source.raw"));
  EXPECT_EQ("", tvutest::QemuChecksVhd(tmp_ / "web.vhd", tmp_ / "source.raw"));
}

TEST_F(SavesetToVhd, UnnamedVhdTakesTheSavesetsNameAnEmptySavesetEndsTheProcess) {
  AddSaveset("SF20261101040000", std::string(3000, 'x'));
  AddSaveset("SF20261101050000", "");
  Map("SAVESET2VHD f \"SF20261101040000\"\nSAVESET2VHD f \"SF20261199999999\"\n");
  LIS_NODE* node = Node(L"/R/MAPPER/SF20261101040000.vhd");
  ASSERT_NE(nullptr, node);
  EXPECT_EQ(std::string(3000, 'x'), ReadAll(node).substr(1536 + 512 + 512, 3000));
  tvutest::WriteFile(rules_, "SAVESET2VHD f \"SF20261101050000\" \"e.vhd\"\n");
  VfsSetMapperRulesFile(rules_.c_str());
  EXPECT_EXIT(initializeMAPPER_FS(nullptr), ::testing::ExitedWithCode(1), "ERROR: Could not create VHD file for e.vhd\n");
}

}  // namespace
