// vhdx_writer.h - writes VHDX images (format version 1) for tests and the demo.
//
// The image is described by its geometry and a map of payload blocks; the
// writer lays it out as: file identifier at 0, the two headers at 64 KiB and
// 128 KiB, the two region tables at 192 KiB and 256 KiB, a 1 MiB log region
// at 1 MiB (never active), the metadata region at 2 MiB, the BAT from 3 MiB,
// then the sector-bitmap blocks and the payload blocks, each on a 1 MiB
// boundary.  The result is a sparse list of pieces: stretches not listed are
// zero, so a large virtual disk costs only the blocks it holds.
//
// Damage options write the malformed forms a reader must refuse or survive.
#ifndef TVU_TOOLS_VHDX_WRITER_H
#define TVU_TOOLS_VHDX_WRITER_H

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace mkvhdx {

using Guid = std::array<uint8_t, 16>;  // canonical byte order (as the text reads)

Guid GuidFromText(const std::string& text);  // "{...}" or bare
std::string GuidText(const Guid& g);         // "{XXXXXXXX-...}" upper case

struct Block {
  uint8_t state = 6;                 // payload BAT state: 0, 1, 2, 3, 6, 7 (4, 5 for damage)
  std::vector<uint8_t> data;         // states 6, 7: block_size bytes (shorter is zero-padded,
                                     // none: zeros, not stored, so huge disks stay cheap)
  std::vector<bool> sectors;         // state 7: one flag per logical sector of the block
};

struct Damage {
  bool header1Crc = false;           // header 1's checksum wrong
  bool header2Crc = false;
  bool logGuid = false;              // both headers carry a non-zero LogGuid
  bool equalSequence = false;        // both headers have sequence number 1
  bool header2Newer = true;          // header 2 has the higher sequence number
  bool region1Crc = false;           // region table 1's checksum wrong
  bool region2Crc = false;
  uint32_t regionCount = 0;          // when non-zero: the entry count field written
  uint64_t batOffset = 0;            // when non-zero: the BAT region's file offset
};

struct ImageDesc {
  uint64_t virtualSize = 8ull << 20;
  uint32_t blockSize = 2u << 20;
  uint32_t logicalSector = 512;
  uint32_t physicalSector = 4096;
  Guid dataWriteGuid{};
  Guid virtualDiskId{};
  bool differencing = false;          // has-parent flag and parent locator
  std::string parentLinkage;          // "{...}" text; empty: key left out
  std::string parentPath;             // absolute_win32_path; empty: key left out
  std::map<uint64_t, Block> blocks;   // by block index
  // Sector-bitmap blocks of a differencing image: by chunk, explicit bits
  // beyond those that state-7 blocks set (each flag one logical sector of
  // the chunk).  A chunk with a state-7 block always gets its bitmap.
  std::map<uint64_t, std::vector<bool>> extraSectorBitmaps;
  Damage damage;
};

struct Image {
  uint64_t size = 0;                               // file size
  std::map<uint64_t, std::vector<uint8_t>> pieces;  // file offset -> bytes; the rest is zero
  std::vector<uint8_t> Flatten() const;             // the whole file (small images only)
};

uint64_t ChunkRatio(const ImageDesc& s);
Image Write(const ImageDesc& s);
// Writes the image to a local file (sparse); false on an I/O error.
bool WriteFile(const Image& image, const std::string& path);
// The virtual disk as a reader must see it, without a parent (small disks only).
std::vector<uint8_t> RawDisk(const ImageDesc& s);

}  // namespace mkvhdx

#endif
