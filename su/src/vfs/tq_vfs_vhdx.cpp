// tq_vfs_vhdx.cpp - the VHDX parser (see tq_vfs_vhdx.h).
//
// Layout read (offsets in the file, all integers little-endian):
//   0x10000, 0x20000  headers 1 and 2: "head", CRC-32C over 4 KiB, sequence
//                     number, FileWriteGuid, DataWriteGuid, LogGuid, log
//                     version and version, log length, log offset
//   0x30000, 0x40000  region tables 1 and 2: "regi", CRC-32C over 64 KiB,
//                     entry count (at most 2047), 32-byte entries from +16
//   metadata region   table of 32-byte entries from +32, items at their offsets
//   BAT region        64-bit entries: state in bits 0-2, file offset in MiB
//                     in bits 20-63; after every chunk_ratio payload entries
//                     one sector-bitmap entry
#include "vfs/tq_vfs_vhdx.h"

#include <boost/crc.hpp>
#include <boost/uuid/string_generator.hpp>
#include <boost/uuid/uuid.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <exception>

#include "platform/platform.h"
#include "report/tvu_report.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "vfs/tq_vfs_vfile.h"

namespace {

using ull = unsigned long long;
using ul = unsigned long;

constexpr uint64_t k64K = 0x10000;
constexpr uint64_t k1M = 0x100000;
constexpr uint64_t kHeader1 = 0x10000, kHeader2 = 0x20000;
constexpr uint64_t kRegion1 = 0x30000, kRegion2 = 0x40000;
constexpr uint32_t kMaxRegionEntries = 2047;
constexpr uint64_t kSectorsPerBitmapBlock = 1ull << 23;  // one bit per sector, 1 MiB

const char* const kBatGuid = "{2DC27766-F623-4200-9D64-115E9BFD4A08}";
const char* const kMetadataGuid = "{8B7CA206-4790-4B9A-B8FE-575F050F886E}";
const char* const kFileParameters = "{CAA16737-FA36-4D43-B3B6-33F0AA44E76B}";
const char* const kVirtualDiskSize = "{2FA54224-CD1B-4876-B211-5DBED83BF4B8}";
const char* const kPage83 = "{BECA12AB-B2E6-4523-93EF-C309E000C746}";
const char* const kLogicalSector = "{8141BF1D-A96F-4709-BA47-F233A8FAAB5F}";
const char* const kPhysicalSector = "{CDA348C7-445D-4471-9CC9-E9885251C556}";
const char* const kParentLocator = "{A8D35F2D-B30B-454D-ABF7-D3D84834AB0C}";
const char* const kVhdxLocatorType = "{B04AEFB7-D19E-4A81-B789-25B8E9445913}";

uint16_t Get16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
uint32_t Get32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[3]) << 24;
}
uint64_t Get64(const uint8_t* p) { return static_cast<uint64_t>(Get32(p)) | static_cast<uint64_t>(Get32(p + 4)) << 32; }

uint32_t Crc32c(const uint8_t* p, size_t n) {
  boost::crc_optimal<32, 0x1EDC6F41, 0xFFFFFFFF, 0xFFFFFFFF, true, true> crc;
  crc.process_bytes(p, n);
  return crc.checksum();
}

// CRC-32C of a block with its checksum field (bytes 4-7) taken as zero.
bool ChecksumMatches(const std::vector<uint8_t>& block, size_t length) {
  std::vector<uint8_t> copy(block.begin(), block.begin() + static_cast<std::ptrdiff_t>(length));
  std::memset(copy.data() + 4, 0, 4);
  return Crc32c(copy.data(), copy.size()) == Get32(block.data() + 4);
}

// A positioned read of the whole length; short reads leave zeros (a file
// cut short reads as holes, and the checks below then fail on them).
std::vector<uint8_t> ReadAt(tq_vfs_vfile* f, uint64_t offset, uint64_t length) {
  std::vector<uint8_t> buf(length, 0);
  if (f == nullptr || offset >= f->size()) return buf;
  pf::MutexLock(f->hMutex);
  f->m_fpos = static_cast<int64_t>(offset);
  f->read(buf.data(), length);
  pf::MutexUnlock(f->hMutex);
  return buf;
}

std::wstring Utf16(const uint8_t* p, size_t bytes) {
  std::wstring out;
  for (size_t i = 0; i + 1 < bytes; i += 2) out.push_back(static_cast<wchar_t>(Get16(p + i)));
  return out;
}

struct Header {
  bool valid = false;
  uint64_t seq = 0;
  VhdxGuid logGuid{};
  uint32_t logLength = 0;
  uint64_t logOffset = 0;
};

Header ReadHeader(const std::vector<uint8_t>& h) {
  Header out;
  out.seq = Get64(&h[8]);
  out.logGuid = vhdx_guid_from_disk(&h[48]);
  out.logLength = Get32(&h[68]);
  out.logOffset = Get64(&h[72]);
  if (std::memcmp(h.data(), "head", 4) != 0) {
    WRITE_TRACE(1, "VHDX header - signature mismatch");
  } else if (!ChecksumMatches(h, 4096)) {
    WRITE_TRACE(1, "VHDX header - CRC32C mismatch");
  } else {
    out.valid = true;
  }
  return out;
}

void TraceLogHeader(tq_vfs_vfile* f, const VhdxImage& img) {
  if (korvo::trace_level() < 1) return;
  const std::vector<uint8_t> log = ReadAt(f, img.log_offset, k64K);
  WRITE_TRACE(1, "LOG HEADER entry length: %lu", static_cast<ul>(Get32(&log[8])));
  WRITE_TRACE(1, "LOG HEADER sequence number: %lu", static_cast<ul>(Get64(&log[16])));
  WRITE_TRACE(1, "LOG HEADER descriptor count: %lu", static_cast<ul>(Get32(&log[24])));
  WRITE_TRACE(1, "HEADER LOG GUID: %s LOG HEADER GUID: %s", vhdx_guid_text(img.log_guid).c_str(),
              vhdx_guid_text(vhdx_guid_from_disk(&log[32])).c_str());
  WRITE_TRACE(1, "LOG HEADER last file offset: %lu", static_cast<ul>(Get64(&log[56])));
}

void ParseParentLocator(const uint8_t* loc, size_t avail, VhdxImage* img) {
  if (avail < 20 || vhdx_guid_from_disk(loc) != vhdx_guid_from_text(kVhdxLocatorType)) {
    WRITE_TRACE(1, "parent locator type not VHDX - ignored");
    return;
  }
  const uint16_t count = Get16(loc + 18);
  for (uint16_t i = 0; i < count && 20 + 12u * (i + 1u) <= avail; ++i) {
    const uint8_t* e = loc + 20 + 12 * i;
    const uint32_t keyOff = Get32(e), valueOff = Get32(e + 4);
    const uint16_t keyLen = Get16(e + 8), valueLen = Get16(e + 10);
    if (keyOff + static_cast<uint64_t>(keyLen) > avail || valueOff + static_cast<uint64_t>(valueLen) > avail) {
      WRITE_TRACE(1, "parent locator entry %u outside the item - ignored", static_cast<unsigned>(i));
      continue;
    }
    const std::wstring key = Utf16(loc + keyOff, keyLen), value = Utf16(loc + valueOff, valueLen);
    WRITE_TRACE(1, "%ls = %ls", key.c_str(), value.c_str());
    img->parent_locator[key] = value;
    if (key == L"parent_linkage") {
      // A value that is no GUID links to nothing: the disk counts as one
      // without a parent, so no tree takes it as a tail.
      try {
        img->parent_guid = vhdx_guid_from_text(korvo::wcstombs_utf8(value.c_str()));
      } catch (const std::exception& bad) {
        WRITE_TRACE(1, "parent_linkage [%ls] is no GUID (%s) - ignored", value.c_str(), bad.what());
      }
    } else if (key == L"absolute_win32_path") {
      img->parent_path = value;
    }
  }
}

void ParseMetadata(tq_vfs_vfile* f, uint64_t offset, VhdxImage* img) {
  const std::vector<uint8_t> meta = ReadAt(f, offset, k64K);
  const uint16_t count = Get16(&meta[10]);
  for (uint32_t i = 0; i < count && 32 + 32 * (i + 1) <= k64K; ++i) {
    const uint8_t* e = &meta[32 + 32 * i];
    const VhdxGuid id = vhdx_guid_from_disk(e);
    const uint32_t itemOff = Get32(e + 16), itemLen = Get32(e + 20);
    // An item lies inside the file and is at most 1 MiB long; one that does
    // not is passed over rather than read as a huge run of zeros.
    if (itemLen > k1M || offset + itemOff + itemLen > (f ? f->size() : 0)) {
      WRITE_TRACE(1, "Metadata item %u at %llu (%lu bytes) lies outside the file or is too long - skipped", i,
                  static_cast<ull>(offset + itemOff), static_cast<ul>(itemLen));
      continue;
    }
    const std::vector<uint8_t> item = ReadAt(f, offset + itemOff, std::max<uint32_t>(itemLen, 16));
    const uint8_t* p = item.data();
    if (id == vhdx_guid_from_text(kFileParameters)) {
      img->block_size = Get32(p);
      const uint32_t flags = Get32(p + 4);
      img->leave_block_allocated = flags & 1;
      img->has_parent = (flags >> 1) & 1;
      WRITE_TRACE(1, "BLOCK_SIZE: %lu", static_cast<ul>(img->block_size));
      WRITE_TRACE(1, "LEAVE_BLOCK_ALLOCATED: %d", img->leave_block_allocated ? 1 : 0);
      WRITE_TRACE(1, "HAS_PARENT: %d", img->has_parent ? 1 : 0);
      if (img->has_parent) WRITE_TRACE(1, "Differencing file");
    } else if (id == vhdx_guid_from_text(kVirtualDiskSize)) {
      img->virtual_disk_size = Get64(p);
      WRITE_TRACE(1, "VIRTUAL_DISK_SIZE: %llu", static_cast<ull>(img->virtual_disk_size));
    } else if (id == vhdx_guid_from_text(kPage83)) {
      img->virtual_disk_id = vhdx_guid_from_disk(p);
      WRITE_TRACE(1, "VIRTUAL_DISK_ID: %s", vhdx_guid_text(img->virtual_disk_id).c_str());
    } else if (id == vhdx_guid_from_text(kLogicalSector)) {
      img->logical_sector_size = Get32(p);
      WRITE_TRACE(1, "LOGICAL_SECTOR_SIZE: %lu", static_cast<ul>(img->logical_sector_size));
    } else if (id == vhdx_guid_from_text(kPhysicalSector)) {
      img->physical_sector_size = Get32(p);
      WRITE_TRACE(1, "PHYSICAL_SECTOR_SIZE: %lu", static_cast<ul>(img->physical_sector_size));
    } else if (id == vhdx_guid_from_text(kParentLocator)) {
      ParseParentLocator(p, itemLen, img);
    }
  }
}

// Calls add(first, count) for every run of set bits in bitmap[firstByte,
// endByte), bits counted from the first byte's least significant bit.
// Runs, not single bits, keep the interval sets cheap for full bitmaps.
template <class Add>
void ForEachSetRun(const std::vector<uint8_t>& bitmap, uint64_t firstByte, uint64_t endByte, Add add) {
  endByte = std::min<uint64_t>(endByte, bitmap.size());
  uint64_t runStart = 0, runLength = 0;
  for (uint64_t k = firstByte; k < endByte; ++k) {
    const uint8_t byte = bitmap[k];
    if (byte == 0 || byte == 0xFF) {  // whole bytes: end or extend the run at once
      if (byte == 0xFF) {
        if (runLength == 0) runStart = 8 * (k - firstByte);
        runLength += 8;
      } else if (runLength != 0) {
        add(runStart, runLength);
        runLength = 0;
      }
      continue;
    }
    for (unsigned b = 0; b < 8; ++b) {
      const uint64_t bit = 8 * (k - firstByte) + b;
      if ((byte >> b) & 1) {
        if (runLength == 0) runStart = bit;
        ++runLength;
      } else if (runLength != 0) {
        add(runStart, runLength);
        runLength = 0;
      }
    }
  }
  if (runLength != 0) add(runStart, runLength);
}

// Adds the logical sectors whose bits are set in bitmap[firstByte, endByte),
// the first bit standing for the sector at virtualOffset.
void AddBitmapSectors(const std::vector<uint8_t>& bitmap, uint64_t firstByte, uint64_t endByte,
                      uint64_t virtualOffset, VhdxImage* img, VhdxBlock* rec) {
  const uint64_t ss = img->logical_sector_size;
  ForEachSetRun(bitmap, firstByte, endByte, [&](uint64_t first, uint64_t count) {
    const auto iv = VhdxRanges::interval_type::right_open(virtualOffset + first * ss, virtualOffset + (first + count) * ss);
    rec->ranges.add(iv);
    img->present_ranges.add(iv);
    img->bitmap_ranges.add(iv);
  });
}

// false when the BAT region cannot hold the entries the disk needs: such an
// image is refused rather than walked (its size would make the walk's
// tables as large as the disk claims to be).
bool WalkBat(tq_vfs_vfile* f, VhdxImage* img) {
  const uint64_t bs = img->block_size;
  const uint64_t ratio = (8388608ull * img->logical_sector_size) / bs;
  const uint64_t dataBlocks = (img->virtual_disk_size + bs - 1) / bs;
  const uint64_t sbBlocks = (dataBlocks + ratio - 1) / ratio;
  const bool diff = img->differencing();
  const uint64_t total = diff ? (ratio + 1) * sbBlocks : dataBlocks + (dataBlocks ? (dataBlocks - 1) / ratio : 0);
  const uint64_t payloadTotal = diff ? total - sbBlocks : dataBlocks;
  img->chunk_ratio = ratio;
  WRITE_TRACE(1, "BAT_SIZE: %lu", static_cast<ul>(img->bat_length));
  WRITE_TRACE(1, "BAT_OFFSET: %lu", static_cast<ul>(img->bat_offset));
  WRITE_TRACE(1, "BAT_ENTRIES: %lu", static_cast<ul>(total));
  WRITE_TRACE(1, "CHUNK_RATIO: %lu", static_cast<ul>(ratio));
  WRITE_TRACE(1, "DATA_BLOCKS_COUNT: %lu", static_cast<ul>(dataBlocks));
  WRITE_TRACE(1, "SECTOR_BLOCKS_COUNT: %lu", static_cast<ul>(sbBlocks));

  if (total > img->bat_length / 8) {
    WRITE_TRACE(1, "BAT region of %lu bytes holds fewer than the %llu entries the disk needs - image refused",
                static_cast<ul>(img->bat_length), static_cast<ull>(total));
    return false;
  }
  // The BAT is read whole.
  const std::vector<uint8_t> raw = ReadAt(f, img->bat_offset, img->bat_length);
  img->bat.assign(std::max<uint64_t>(total, raw.size() / 8), 0);
  for (size_t i = 0; i < raw.size() / 8; ++i) img->bat[i] = Get64(&raw[8 * i]);

  uint64_t entry = 0, payloadSeen = 0, sbSeen = 0, virtualOffset = 0;
  std::vector<uint8_t> chunkBitmap;
  while (entry < total) {
    bool partialInChunk = false;
    for (uint64_t j = 0; j < ratio && payloadSeen < payloadTotal && entry < total; ++j, ++entry, ++payloadSeen) {
      const uint64_t e = img->bat[entry];
      const uint8_t state = e & 7;
      const uint64_t mb = e >> 20;
      VhdxBlock rec;
      rec.state = state;
      rec.file_offset_mb = mb;
      switch (state) {
        case 0: case 1: case 2: case 3:
          img->blocks.push_back(std::move(rec));
          break;
        case 6: {
          WRITE_TRACE(2, "%lu:%lu PB %d offset %lu", static_cast<ul>(entry), static_cast<ul>(j), state, static_cast<ul>(mb));
          const auto iv = VhdxRanges::interval_type::right_open(virtualOffset, virtualOffset + bs);
          rec.ranges.add(iv);
          img->present_ranges.add(iv);
          img->blocks.push_back(std::move(rec));
          break;
        }
        case 7: {
          WRITE_TRACE(2, "%lu:%lu PB %d offset %lu", static_cast<ul>(entry), static_cast<ul>(j), state, static_cast<ul>(mb));
          if (!diff) {
            WRITE_TRACE(1, "%lu:%lu PB BAT entry in invalid state (%d)", static_cast<ul>(entry), static_cast<ul>(j), state);
          }
          partialInChunk = true;
          // The sector-bitmap entry that closes this chunk.
          const uint64_t sbEntry = (ratio + 1) * (payloadSeen / ratio) + ratio;
          if (chunkBitmap.empty()) {
            const uint64_t sb = sbEntry < img->bat.size() ? img->bat[sbEntry] : 0;
            chunkBitmap = ReadAt(f, sb & ~(k1M - 1), k1M);
          }
          const uint64_t bitsPerByte = static_cast<uint64_t>(img->logical_sector_size) * 8;
          const uint64_t first = (virtualOffset % (bs * ratio)) / bitsPerByte;
          const uint64_t end = ((virtualOffset % (bs * ratio)) + bs) / bitsPerByte;
          AddBitmapSectors(chunkBitmap, first, end, virtualOffset, img, &rec);
          img->blocks.push_back(std::move(rec));
          break;
        }
        default:  // 4, 5: reserved
          WRITE_TRACE(1, "%lu:%lu PB BAT entry in invalid state (%d)", static_cast<ul>(entry), static_cast<ul>(j), state);
          break;
      }
      virtualOffset += bs;
    }
    chunkBitmap.clear();
    if (sbSeen < sbBlocks && entry < total) {
      const uint64_t e = img->bat[entry];
      const int state = static_cast<int>(e & 7);
      if (state == 6 && diff) {
        WRITE_TRACE(2, "%lu SB %d offset: %lu", static_cast<ul>(entry), state, static_cast<ul>(e >> 20));
        const std::vector<uint8_t> bitmap = ReadAt(f, (e >> 20) * k1M, k1M);
        const uint64_t ss = img->logical_sector_size;
        const uint64_t base = sbSeen * kSectorsPerBitmapBlock;  // first sector this block describes
        ForEachSetRun(bitmap, 0, bitmap.size(), [&](uint64_t first, uint64_t count) {
          img->bitmap_ranges.add(VhdxRanges::interval_type::right_open((base + first) * ss, (base + first + count) * ss));
        });
      } else if (state == 6) {
        WRITE_TRACE(1, "%lu SB BAT entry in invalid state(%d) not allowed on non diff disk", static_cast<ul>(entry), state);
      } else if (state != 0 || (partialInChunk && diff)) {
        WRITE_TRACE(1, "%lu SB BAT entry in invalid state(%d)", static_cast<ul>(entry), state);
      }
      ++sbSeen;
      ++entry;
    } else if (payloadSeen >= payloadTotal) {
      break;
    }
  }
  return true;
}

}  // namespace

std::string vhdx_guid_text(const VhdxGuid& g) {
  boost::uuids::uuid u;
  std::copy(g.begin(), g.end(), u.begin());
  std::string t = boost::uuids::to_string(u);
  for (char& c : t) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return "{" + t + "}";
}

VhdxGuid vhdx_guid_from_text(const std::string& text) {
  const boost::uuids::uuid u = boost::uuids::string_generator()(text);
  VhdxGuid g;
  std::copy(u.begin(), u.end(), g.begin());
  return g;
}

VhdxGuid vhdx_guid_from_disk(const uint8_t* d) {
  return VhdxGuid{d[3], d[2], d[1], d[0], d[5], d[4], d[7], d[6], d[8], d[9], d[10], d[11], d[12], d[13], d[14], d[15]};
}

bool vhdx_guid_is_zero(const VhdxGuid& g) {
  return std::all_of(g.begin(), g.end(), [](uint8_t b) { return b == 0; });
}

void vhdx_half_open(const VhdxRanges::interval_type& iv, uint64_t* first, uint64_t* end) {
  const boost::icl::interval_bounds b = iv.bounds();
  *first = iv.lower() + ((b.bits() & boost::icl::interval_bounds::_left_open) ? 1 : 0);
  *end = iv.upper() + ((b.bits() & boost::icl::interval_bounds::_right_open) ? 0 : 1);
}

std::wostream& operator<<(std::wostream& os, const VhdxImage& image) {
  const std::string g = vhdx_guid_text(image.guid), p = vhdx_guid_text(image.parent_guid);
  os << L"GUID:" << std::wstring(g.begin(), g.end()) << L" parent GUID:" << std::wstring(p.begin(), p.end())
     << L" parent filename: [" << image.parent_path << L"]";
  return os;
}

VhdxImagePtr parse_vhdx(const VhdxSource& source) {
  tq_vfs_vfile* f = source.pFile;
  WRITE_TRACE(1, "+++parse_vhdx %ls", source.name.c_str());
  ReadAt(f, 0, k64K);  // the file identifier: not checked

  const std::vector<uint8_t> h1 = ReadAt(f, kHeader1, k64K);
  const std::vector<uint8_t> h2 = ReadAt(f, kHeader2, k64K);
  // The identity is header 1's DataWriteGuid whichever header is used.
  const VhdxGuid guid = vhdx_guid_from_disk(&h1[32]);
  WRITE_TRACE(1, "DataWriteGuid(header1): %s", vhdx_guid_text(guid).c_str());
  WRITE_TRACE(1, "DataWriteGuid(header2): %s", vhdx_guid_text(guid).c_str());
  const Header hdr1 = ReadHeader(h1), hdr2 = ReadHeader(h2);
  int use = 0;
  if (hdr1.valid && hdr2.valid) {
    use = hdr1.seq > hdr2.seq ? 1 : 2;  // equal: header 2
  } else if (hdr1.valid) {
    use = 1;
  } else if (hdr2.valid) {
    use = 2;
  } else {
    WRITE_TRACE(1, "---parse_vhdx No VHDX header is valid - abort");
    tvu_fatal("No VHDX header is valid %s", korvo::wcstombs_utf8(source.name.c_str()).c_str());
  }
  const Header& hdr = use == 1 ? hdr1 : hdr2;
  WRITE_TRACE(1, "using header %d", use);
  WRITE_TRACE(1, "LOG OFFSET: %lu LOG LENGTH: %lu", static_cast<ul>(hdr.logOffset), static_cast<ul>(hdr.logLength));
  if (!vhdx_guid_is_zero(hdr.logGuid)) {
    WRITE_TRACE(1, "VHDX file contains log. tq_vfs cannot reply log");
    std::fputs("VHDX file contains log. tq_vfs cannot reply log\n", stdout);
    std::fflush(stdout);
    tvu_fatal("VHDX file contains log. tq_vfs cannot reply log %s", korvo::wcstombs_utf8(source.name.c_str()).c_str());
  }

  // Only the region table of the chosen header is used.
  const std::vector<uint8_t> region = ReadAt(f, use == 1 ? kRegion1 : kRegion2, k64K);
  bool regionOk = false;
  const uint32_t count = Get32(&region[8]);
  if (std::memcmp(region.data(), "regi", 4) != 0) {
    WRITE_TRACE(1, "Region header - signature mismatch");
  } else if (count > kMaxRegionEntries) {
    WRITE_TRACE(1, "Region header - entry count above 2047");
  } else if (!ChecksumMatches(region, k64K)) {
    WRITE_TRACE(1, "Region header - CRC32C mismatch");
  } else {
    regionOk = true;
  }
  if (!regionOk) {
    WRITE_TRACE(1, "---parse_vhdx Region %d table header not valid - abort", use);
    return nullptr;
  }
  bool batFound = false, metaFound = false;
  uint64_t batOffset = 0, metaOffset = 0;
  uint32_t batLength = 0;
  const VhdxGuid batGuid = vhdx_guid_from_text(kBatGuid), metaGuid = vhdx_guid_from_text(kMetadataGuid);
  for (uint32_t i = 0; i < count; ++i) {
    const uint8_t* e = &region[16 + 32 * i];
    const VhdxGuid id = vhdx_guid_from_disk(e);
    if (id == batGuid) {
      batOffset = Get64(e + 16);
      batLength = Get32(e + 24);
      batFound = true;
    } else if (id == metaGuid) {
      metaOffset = Get64(e + 16);
      metaFound = true;
    }
  }
  auto badOffset = [](uint64_t off) { return off < k1M || off % k1M != 0; };
  if ((batFound && badOffset(batOffset)) || (metaFound && badOffset(metaOffset))) {
    WRITE_TRACE(1, "---parse_vhdx - offset must be at least 1MB and a multiple of 1 MB");
    return nullptr;
  }

  // The regions lie inside the file: a BAT said to reach past its end would
  // be read as a huge run of zeros.
  const uint64_t fileSize = f ? f->size() : 0;
  if (batFound && batOffset + batLength > fileSize) {
    WRITE_TRACE(1, "---parse_vhdx - BAT region [%llu, +%lu) beyond the end of the file (%llu)",
                static_cast<ull>(batOffset), static_cast<ul>(batLength), static_cast<ull>(fileSize));
    return nullptr;
  }

  auto img = std::make_shared<VhdxImage>();
  img->source = source;
  img->guid = guid;
  img->sequence_number = hdr.seq;
  img->log_guid = hdr.logGuid;
  img->log_offset = hdr.logOffset;
  img->log_length = hdr.logLength;
  img->bat_offset = batOffset;
  img->bat_length = batLength;
  img->file_size = f ? f->size() : 0;
  if (metaFound) ParseMetadata(f, metaOffset, img.get());
  if (hdr.logLength != 0) TraceLogHeader(f, *img);
  // A zero block or sector size would divide by zero in the BAT arithmetic.
  if (batFound && img->block_size != 0 && img->logical_sector_size != 0 &&
      (8388608ull * img->logical_sector_size) / img->block_size != 0) {
    if (!WalkBat(f, img.get())) {
      WRITE_TRACE(1, "---parse_vhdx");
      return nullptr;
    }
  } else {
    WRITE_TRACE(1, "parse_vhdx - no BAT or no block geometry");
  }
  WRITE_TRACE(1, "---parse_vhdx");
  return img;
}
