// vhdx_writer.cpp - see vhdx_writer.h.
#include "mkvhdx/vhdx_writer.h"

#include <boost/crc.hpp>
#include <boost/uuid/string_generator.hpp>
#include <boost/uuid/uuid.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>

#include "platform/platform.h"

namespace mkvhdx {
namespace {

constexpr uint64_t kMiB = 1ull << 20;
constexpr uint64_t kKiB64 = 64 * 1024;
constexpr uint64_t kLogOffset = 1 * kMiB;
constexpr uint64_t kMetadataOffset = 2 * kMiB;
constexpr uint64_t kBatOffset = 3 * kMiB;

const char* const kBatGuid = "{2DC27766-F623-4200-9D64-115E9BFD4A08}";
const char* const kMetadataGuid = "{8B7CA206-4790-4B9A-B8FE-575F050F886E}";
const char* const kFileParameters = "{CAA16737-FA36-4D43-B3B6-33F0AA44E76B}";
const char* const kVirtualDiskSize = "{2FA54224-CD1B-4876-B211-5DBED83BF4B8}";
const char* const kPage83 = "{BECA12AB-B2E6-4523-93EF-C309E000C746}";
const char* const kLogicalSector = "{8141BF1D-A96F-4709-BA47-F233A8FAAB5F}";
const char* const kPhysicalSector = "{CDA348C7-445D-4471-9CC9-E9885251C556}";
const char* const kParentLocator = "{A8D35F2D-B30B-454D-ABF7-D3D84834AB0C}";
const char* const kVhdxLocatorType = "{B04AEFB7-D19E-4A81-B789-25B8E9445913}";

void Put16(std::vector<uint8_t>* b, size_t off, uint16_t v) {
  for (int i = 0; i < 2; ++i) (*b)[off + i] = static_cast<uint8_t>(v >> (8 * i));
}
void Put32(std::vector<uint8_t>* b, size_t off, uint32_t v) {
  for (int i = 0; i < 4; ++i) (*b)[off + i] = static_cast<uint8_t>(v >> (8 * i));
}
void Put64(std::vector<uint8_t>* b, size_t off, uint64_t v) {
  for (int i = 0; i < 8; ++i) (*b)[off + i] = static_cast<uint8_t>(v >> (8 * i));
}
// On disk a GUID's first three fields are little-endian.
void PutGuid(std::vector<uint8_t>* b, size_t off, const Guid& g) {
  const uint8_t disk[16] = {g[3], g[2], g[1], g[0], g[5], g[4], g[7], g[6],
                            g[8], g[9], g[10], g[11], g[12], g[13], g[14], g[15]};
  std::memcpy(b->data() + off, disk, 16);
}
void PutGuid(std::vector<uint8_t>* b, size_t off, const char* text) { PutGuid(b, off, GuidFromText(text)); }

uint32_t Crc32c(const uint8_t* p, size_t n) {
  boost::crc_optimal<32, 0x1EDC6F41, 0xFFFFFFFF, 0xFFFFFFFF, true, true> crc;
  crc.process_bytes(p, n);
  return crc.checksum();
}

std::vector<uint8_t> Utf16(const std::string& s) {
  std::vector<uint8_t> out;
  for (unsigned char c : s) {  // the names used here are ASCII
    out.push_back(c);
    out.push_back(0);
  }
  return out;
}

uint64_t RoundUp(uint64_t v, uint64_t to) { return (v + to - 1) / to * to; }

std::vector<uint8_t> Header(const ImageDesc& s, uint64_t seq, bool badCrc) {
  std::vector<uint8_t> h(kKiB64, 0);
  std::memcpy(h.data(), "head", 4);
  Put64(&h, 8, seq);
  Guid fileWrite = s.dataWriteGuid;
  fileWrite[15] ^= 0x5A;
  PutGuid(&h, 16, fileWrite);
  PutGuid(&h, 32, s.dataWriteGuid);
  if (s.damage.logGuid) PutGuid(&h, 48, "{11111111-2222-3333-4444-555555555555}");
  Put16(&h, 64, 0);           // log version
  Put16(&h, 66, 1);           // version
  Put32(&h, 68, static_cast<uint32_t>(kMiB));  // log length
  Put64(&h, 72, kLogOffset);
  Put32(&h, 4, Crc32c(h.data(), 4096) ^ (badCrc ? 1u : 0u));
  return h;
}

}  // namespace

Guid GuidFromText(const std::string& text) {
  const boost::uuids::uuid u = boost::uuids::string_generator()(text);
  Guid g;
  std::copy(u.begin(), u.end(), g.begin());
  return g;
}

std::string GuidText(const Guid& g) {
  boost::uuids::uuid u;
  std::copy(g.begin(), g.end(), u.begin());
  std::string t = boost::uuids::to_string(u);
  for (char& c : t) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return "{" + t + "}";
}

uint64_t ChunkRatio(const ImageDesc& s) { return (8388608ull * s.logicalSector) / s.blockSize; }

Image Write(const ImageDesc& s) {
  Image img;
  const uint64_t bs = s.blockSize;
  const uint64_t ratio = ChunkRatio(s);
  const uint64_t dataBlocks = (s.virtualSize + bs - 1) / bs;
  const uint64_t sbBlocks = (dataBlocks + ratio - 1) / ratio;
  const uint64_t batEntries = s.differencing ? (ratio + 1) * sbBlocks : dataBlocks + (dataBlocks - 1) / ratio;
  const uint64_t batOffset = s.damage.batOffset ? s.damage.batOffset : kBatOffset;
  const uint64_t batLength = RoundUp(batEntries * 8, kMiB);

  // File identifier.
  std::vector<uint8_t> ident(kKiB64, 0);
  std::memcpy(ident.data(), "vhdxfile", 8);
  const std::vector<uint8_t> creator = Utf16("mkvhdx");
  std::memcpy(ident.data() + 8, creator.data(), creator.size());
  img.pieces[0] = ident;

  // Headers: the newer one has the higher sequence number.
  const Damage& d = s.damage;
  uint64_t seq1 = d.header2Newer ? 1 : 2, seq2 = d.header2Newer ? 2 : 1;
  if (d.equalSequence) seq1 = seq2 = 1;
  img.pieces[kKiB64] = Header(s, seq1, d.header1Crc);
  img.pieces[2 * kKiB64] = Header(s, seq2, d.header2Crc);

  // Region tables.
  std::vector<uint8_t> region(kKiB64, 0);
  std::memcpy(region.data(), "regi", 4);
  Put32(&region, 8, d.regionCount ? d.regionCount : 2);
  PutGuid(&region, 16, kBatGuid);
  Put64(&region, 32, batOffset);
  Put32(&region, 40, static_cast<uint32_t>(batLength));
  Put32(&region, 44, 1);
  PutGuid(&region, 48, kMetadataGuid);
  Put64(&region, 64, kMetadataOffset);
  Put32(&region, 72, static_cast<uint32_t>(kMiB));
  Put32(&region, 76, 1);
  const uint32_t regionCrc = Crc32c(region.data(), region.size());
  std::vector<uint8_t> region1 = region, region2 = region;
  Put32(&region1, 4, regionCrc ^ (d.region1Crc ? 1u : 0u));
  Put32(&region2, 4, regionCrc ^ (d.region2Crc ? 1u : 0u));
  img.pieces[3 * kKiB64] = region1;
  img.pieces[4 * kKiB64] = region2;

  // Metadata: table at the region's start, items from 64 KiB on.
  std::vector<uint8_t> meta(kMiB, 0);
  std::memcpy(meta.data(), "metadata", 8);
  uint32_t itemOff = static_cast<uint32_t>(kKiB64);
  int n = 0;
  auto addItem = [&](const char* guid, const std::vector<uint8_t>& data, uint32_t flags) {
    const size_t e = 32 + 32 * static_cast<size_t>(n++);
    PutGuid(&meta, e, guid);
    Put32(&meta, e + 16, itemOff);
    Put32(&meta, e + 20, static_cast<uint32_t>(data.size()));
    Put32(&meta, e + 24, flags);
    std::memcpy(meta.data() + itemOff, data.data(), data.size());
    itemOff += static_cast<uint32_t>(RoundUp(data.size(), 8));
  };
  std::vector<uint8_t> v(8, 0);
  Put32(&v, 0, s.blockSize);
  Put32(&v, 4, s.differencing ? 2u : 0u);
  addItem(kFileParameters, v, 4);
  v.assign(8, 0);
  Put64(&v, 0, s.virtualSize);
  addItem(kVirtualDiskSize, v, 6);
  v.assign(16, 0);
  PutGuid(&v, 0, s.virtualDiskId);
  addItem(kPage83, v, 6);
  v.assign(4, 0);
  Put32(&v, 0, s.logicalSector);
  addItem(kLogicalSector, v, 6);
  Put32(&v, 0, s.physicalSector);
  addItem(kPhysicalSector, v, 6);
  if (s.differencing) {
    std::vector<std::pair<std::string, std::string>> kv;
    if (!s.parentLinkage.empty()) kv.emplace_back("parent_linkage", s.parentLinkage);
    if (!s.parentPath.empty()) kv.emplace_back("absolute_win32_path", s.parentPath);
    std::vector<uint8_t> loc(20 + 12 * kv.size(), 0);
    PutGuid(&loc, 0, kVhdxLocatorType);
    Put16(&loc, 18, static_cast<uint16_t>(kv.size()));
    for (size_t i = 0; i < kv.size(); ++i) {
      const std::vector<uint8_t> key = Utf16(kv[i].first), value = Utf16(kv[i].second);
      Put32(&loc, 20 + 12 * i, static_cast<uint32_t>(loc.size()));
      loc.insert(loc.end(), key.begin(), key.end());
      Put32(&loc, 24 + 12 * i, static_cast<uint32_t>(loc.size()));
      loc.insert(loc.end(), value.begin(), value.end());
      Put16(&loc, 28 + 12 * i, static_cast<uint16_t>(key.size()));
      Put16(&loc, 30 + 12 * i, static_cast<uint16_t>(value.size()));
    }
    addItem(kParentLocator, loc, 4);
  }
  Put16(&meta, 10, static_cast<uint16_t>(n));
  img.pieces[kMetadataOffset] = meta;

  // Blocks and the BAT.
  std::vector<uint8_t> bat(batLength, 0);
  uint64_t next = RoundUp(batOffset + batLength, kMiB);
  std::map<uint64_t, std::vector<uint8_t>> bitmaps;  // chunk -> 1 MiB bitmap
  const uint64_t sectorsPerBlock = bs / s.logicalSector;
  auto bitmapOf = [&](uint64_t chunk) -> std::vector<uint8_t>& {
    std::vector<uint8_t>& b = bitmaps[chunk];
    if (b.empty()) b.assign(kMiB, 0);
    return b;
  };
  for (const auto& [index, block] : s.blocks) {
    const uint64_t chunk = index / ratio;
    const uint64_t entry = index + chunk;
    uint64_t value = block.state & 7u;
    if (block.state == 6 || block.state == 7) {
      // A block given no data is all zeros: its place is kept, not written.
      if (!block.data.empty()) {
        std::vector<uint8_t> data = block.data;
        data.resize(bs, 0);
        img.pieces[next] = data;
      }
      value |= next;  // a MiB multiple: the offset field is bits 20-63
      next += RoundUp(bs, kMiB);
    }
    Put64(&bat, entry * 8, value);
    if (block.state == 7) {
      std::vector<uint8_t>& b = bitmapOf(chunk);
      const uint64_t first = (index % ratio) * sectorsPerBlock;
      for (uint64_t i = 0; i < block.sectors.size() && i < sectorsPerBlock; ++i) {
        if (block.sectors[i]) b[(first + i) / 8] |= static_cast<uint8_t>(1u << ((first + i) % 8));
      }
    }
  }
  for (const auto& [chunk, bits] : s.extraSectorBitmaps) {
    std::vector<uint8_t>& b = bitmapOf(chunk);
    for (uint64_t i = 0; i < bits.size() && i < 8 * kMiB; ++i) {
      if (bits[i]) b[i / 8] |= static_cast<uint8_t>(1u << (i % 8));
    }
  }
  for (auto& [chunk, b] : bitmaps) {
    const uint64_t entry = (ratio + 1) * chunk + ratio;
    if (!s.differencing || entry >= batEntries) continue;
    img.pieces[next] = std::move(b);
    Put64(&bat, entry * 8, next | 6u);
    next += kMiB;
  }
  img.pieces[batOffset] = bat;
  img.size = next;
  return img;
}

std::vector<uint8_t> Image::Flatten() const {
  std::vector<uint8_t> out(size, 0);
  for (const auto& [off, bytes] : pieces) {
    if (off < size) std::memcpy(out.data() + off, bytes.data(), std::min<uint64_t>(bytes.size(), size - off));
  }
  return out;
}

bool WriteFile(const Image& image, const std::string& path) {
  pf::File* f = nullptr;
  if (pf::FileOpenWrite(path.c_str(), &f) != 0) return false;
  // The full length first: the gaps between the pieces stay holes.
  bool ok = pf::FileTruncate(f, image.size) == 0;
  for (const auto& [off, bytes] : image.pieces) {
    ok = ok && pf::FileSeek(f, static_cast<int64_t>(off), 0, nullptr) == 0 &&
         pf::FileWrite(f, bytes.data(), bytes.size()) == 0;
  }
  pf::FileClose(f);
  return ok;
}

std::vector<uint8_t> RawDisk(const ImageDesc& s) {
  std::vector<uint8_t> raw(s.virtualSize, 0);
  for (const auto& [index, block] : s.blocks) {
    if (block.state != 6 && block.state != 7) continue;
    const uint64_t start = index * s.blockSize;
    for (uint64_t i = 0; i < s.blockSize && start + i < s.virtualSize; ++i) {
      const bool present = block.state == 6 ||
                           (i / s.logicalSector < block.sectors.size() && block.sectors[i / s.logicalSector]);
      if (present && i < block.data.size()) raw[start + i] = block.data[i];
    }
  }
  return raw;
}

}  // namespace mkvhdx
