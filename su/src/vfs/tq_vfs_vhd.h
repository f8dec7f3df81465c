// tq_vfs_vhd.h - dynamic VHD images made on the fly over a raw disk image.
//
// No disk file is written: the VHD is a sliced virtual file whose footer,
// dynamic header, block allocation table (BAT) and sector bitmaps are memory
// slices, and whose data blocks are slices of the source image's own sources
// (the source's winning slices, moved to their place in the VHD).
//
// Layout: footer copy at 0, dynamic header at 512, BAT at 1536 (padded with
// 0xFF to a multiple of 512), then for every placed 2 MiB block its sector
// bitmap (512 bytes, all bits set) and its 2 MiB of data (zeros past the
// source's end and in the source's gaps), then the footer.  A block is placed
// when some slice of the source covers a byte of it; the others stay absent
// in the BAT and read as zeros.
//
// Every VHD carries the same time stamp and unique id, so that two runs over
// the same chain give byte-identical images.
//
// Single-threaded: runs during VFS initialisation.
#ifndef TVU_VFS_VHD_H
#define TVU_VFS_VHD_H

#include <boost/endian/buffers.hpp>
#include <cstdint>
#include <memory>
#include <string>

#include "vfs/tq_vfs_cache.h"
#include "vfs/tq_vfs_vfile.h"

namespace vhd {

namespace be = boost::endian;

constexpr uint64_t kSectorSize = 512;
constexpr uint64_t kBlockSize = 0x200000;  // 2 MiB data per BAT entry
constexpr uint64_t kHeaderOffset = 512;
constexpr uint64_t kTableOffset = 1536;
constexpr uint32_t kTimeStamp = 0x220D794D;  // fixed: images do not depend on the clock
constexpr uint8_t kUniqueId[16] = {0x41, 0x30, 0x3e, 0x60, 0x91, 0x94, 0x41, 0x54,
                                   0x89, 0x63, 0x12, 0x4f, 0x9c, 0x1e, 0x61, 0x0d};

struct Footer {                              // 512 bytes, big-endian; at 0 and at the end
  char cookie[8];                            // "conectix"
  be::big_uint32_buf_t features;             // 2: reserved bit, always set
  be::big_uint32_buf_t version;              // 0x00010000
  be::big_uint64_buf_t dataOffset;           // byte offset of the dynamic header
  be::big_uint32_buf_t timeStamp;            // seconds since 2000-01-01 UTC
  char creatorApp[4];                        // "tap\0"
  be::big_uint32_buf_t creatorVersion;       // 0x00050003
  char creatorHostOs[4];                     // "Wi2k"
  be::big_uint64_buf_t originalSize;         // bytes, exact (need not be a multiple of 512)
  be::big_uint64_buf_t currentSize;          // bytes, exact
  be::big_uint16_buf_t cylinders;            // CHS geometry
  uint8_t heads;
  uint8_t sectorsPerTrack;
  be::big_uint32_buf_t diskType;             // 3: dynamic
  be::big_uint32_buf_t checksum;             // one's complement of the byte sum, this field as 0
  uint8_t uniqueId[16];
  uint8_t savedState;
  uint8_t reserved[427];
};
static_assert(sizeof(Footer) == 512, "on-disk size");

struct DynamicHeader {                       // 1024 bytes, big-endian; at kHeaderOffset
  char cookie[8];                            // "cxsparse"
  be::big_uint64_buf_t dataOffset;           // unused: all ones
  be::big_uint64_buf_t tableOffset;          // byte offset of the BAT
  be::big_uint32_buf_t headerVersion;        // 0x00010000
  be::big_uint32_buf_t maxTableEntries;      // BAT entries = ceil(current size / block size)
  be::big_uint32_buf_t blockSize;            // data bytes per block
  be::big_uint32_buf_t checksum;             // as the footer's
  uint8_t parentUniqueId[16];                // no parent: zeros
  be::big_uint32_buf_t parentTimeStamp;
  be::big_uint32_buf_t reserved1;
  uint8_t parentUnicodeName[512];
  uint8_t parentLocators[8 * 24];
  uint8_t reserved2[256];
};
static_assert(sizeof(DynamicHeader) == 1024, "on-disk size");

struct Geometry {
  uint16_t cylinders;
  uint8_t heads;
  uint8_t sectorsPerTrack;
};

// The CHS geometry of a disk of totalSectors sectors, by the VHD format's
// algorithm (the count is capped at 65535 * 16 * 255).
Geometry ChsGeometry(uint64_t totalSectors);

// One's complement of the sum of the bytes (the checksum field must be 0).
uint32_t Checksum(const void* data, size_t size);

// The footer of a dynamic disk of diskSize bytes, checksum set.
Footer MakeFooter(uint64_t diskSize);
// The dynamic header of a disk with batEntries blocks, checksum set.
DynamicHeader MakeDynamicHeader(uint32_t batEntries);

// Builds the VHD of source (its bytes [0, size) are the disk).  Null, with
// the reason in *why, when the source is empty or too large for the format.
std::unique_ptr<tq_vfs_vfile> Build(const tq_vfs_vfile& source, const std::wstring& name, std::string* why);

}  // namespace vhd

// Makes the VHD `name` of the raw image at node `head` (a sliced file, kind
// 1, or a whole saveset, kind 4) and puts it in directory `dir` as a sliced
// file node.  Returns the VHD's handle in the virtual file table, or -1 when
// it cannot be made (traced).
int localfs_VHD_create(LIS_NODE* head, LIS_NODE* dir, const std::wstring& name);

#endif
