// tq_vfs_vhd.cpp - a dynamic VHD as a sliced virtual file over a raw image.
#include "vfs/tq_vfs_vhd.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

#include "report/tvu_report.h"
#include "runtime/trace.h"
#include "vfs/tq_vfs_enum.h"

namespace vhd {

namespace {

using ull = unsigned long long;
using Bytes = std::vector<unsigned char>;

// The VHD's own parts carry one version: they never overlap, so no slice has
// to win over another, and a version above 0 keeps slice 0 from serving
// segments it does not cover.
constexpr int64_t kVersion = 1;

std::shared_ptr<Bytes> Share(const void* data, size_t size) {
  auto p = std::make_shared<Bytes>(size);
  std::memcpy(p->data(), data, size);
  return p;
}

void AddMemory(tq_vfs_vfile* file, uint64_t at, std::shared_ptr<Bytes> bytes) {
  tq_vfs_slice s;
  s.mTime = kVersion;
  s.iType = stMEMORY;
  s.miIntervalStart = static_cast<int64_t>(at);
  s.miIntervalEnd = static_cast<int64_t>(at + bytes->size());
  s.pBuffer = std::move(bytes);
  file->add_slice(s);
}

void AddZeros(tq_vfs_vfile* file, uint64_t at, uint64_t length) {
  tq_vfs_slice s;
  s.mTime = kVersion;
  s.iType = stFILL;
  s.miIntervalStart = static_cast<int64_t>(at);
  s.miIntervalEnd = static_cast<int64_t>(at + length);
  s.ullFill = 0;
  file->add_slice(s);
}

// The part [first, last] of the source's slice `from`, moved to `at`.
void AddMoved(tq_vfs_vfile* file, uint64_t at, int64_t first, int64_t last, const tq_vfs_slice& from) {
  const uint64_t skip = static_cast<uint64_t>(first - from.miIntervalStart);
  tq_vfs_slice s = from;
  s.mTime = kVersion;
  s.miIntervalStart = static_cast<int64_t>(at);
  s.miIntervalEnd = static_cast<int64_t>(at) + (last - first + 1);
  switch (static_cast<VFILE_SLICE_TYPE>(from.iType)) {
    case stSAVESET:
      s.miSavesetOffset = from.miSavesetOffset + skip;
      break;
    case stMERGE:
      s.ullMergeOffset = from.ullMergeOffset + skip;
      break;
    case stMEMORY: {
      // A memory slice's data start at its buffer's start: the part is copied.
      const uint64_t have = from.pBuffer ? from.pBuffer->size() : 0;
      const uint64_t begin = std::min(skip, have);
      const uint64_t end = std::min(skip + static_cast<uint64_t>(last - first + 1), have);
      s.pBuffer = std::make_shared<Bytes>(from.pBuffer->begin() + static_cast<std::ptrdiff_t>(begin),
                                          from.pBuffer->begin() + static_cast<std::ptrdiff_t>(end));
      break;
    }
    case stFILL:
      break;
  }
  file->add_slice(s);
}

}  // namespace

Geometry ChsGeometry(uint64_t totalSectors) {
  totalSectors = std::min<uint64_t>(totalSectors, 65535ull * 16 * 255);
  uint64_t spt, heads, cylinderTimesHeads;
  if (totalSectors >= 65535ull * 16 * 63) {
    spt = 255;
    heads = 16;
    cylinderTimesHeads = totalSectors / spt;
  } else {
    spt = 17;
    cylinderTimesHeads = totalSectors / spt;
    heads = std::max<uint64_t>((cylinderTimesHeads + 1023) / 1024, 4);
    if (cylinderTimesHeads >= heads * 1024 || heads > 16) {
      spt = 31;
      heads = 16;
      cylinderTimesHeads = totalSectors / spt;
    }
    if (cylinderTimesHeads >= heads * 1024) {
      spt = 63;
      heads = 16;
      cylinderTimesHeads = totalSectors / spt;
    }
  }
  return Geometry{static_cast<uint16_t>(cylinderTimesHeads / heads), static_cast<uint8_t>(heads),
                  static_cast<uint8_t>(spt)};
}

uint32_t Checksum(const void* data, size_t size) {
  const unsigned char* p = static_cast<const unsigned char*>(data);
  uint32_t sum = 0;
  for (size_t i = 0; i < size; ++i) sum += p[i];
  return ~sum;
}

Footer MakeFooter(uint64_t diskSize) {
  Footer f;
  std::memset(&f, 0, sizeof f);
  std::memcpy(f.cookie, "conectix", 8);
  f.features = 2;
  f.version = 0x00010000;
  f.dataOffset = kHeaderOffset;
  f.timeStamp = kTimeStamp;
  std::memcpy(f.creatorApp, "tap", 4);  // with its terminating zero byte
  f.creatorVersion = 0x00050003;
  std::memcpy(f.creatorHostOs, "Wi2k", 4);
  f.originalSize = diskSize;
  f.currentSize = diskSize;
  const uint64_t sectors = (diskSize + kSectorSize - 1) / kSectorSize;
  const Geometry g = ChsGeometry(sectors);
  WRITE_TRACE(1, "source disk size = %llu sectorSize = %llu cylinders = %llu heads %llu sectorsPerTrack %llu",
              static_cast<ull>(diskSize), static_cast<ull>(kSectorSize), static_cast<ull>(g.cylinders),
              static_cast<ull>(g.heads), static_cast<ull>(g.sectorsPerTrack));
  f.cylinders = g.cylinders;
  f.heads = g.heads;
  f.sectorsPerTrack = g.sectorsPerTrack;
  f.diskType = 3;
  std::memcpy(f.uniqueId, kUniqueId, sizeof kUniqueId);
  f.checksum = Checksum(&f, sizeof f);
  return f;
}

DynamicHeader MakeDynamicHeader(uint32_t batEntries) {
  DynamicHeader h;
  std::memset(&h, 0, sizeof h);
  std::memcpy(h.cookie, "cxsparse", 8);
  h.dataOffset = ~0ull;
  h.tableOffset = kTableOffset;
  h.headerVersion = 0x00010000;
  h.maxTableEntries = batEntries;
  h.blockSize = static_cast<uint32_t>(kBlockSize);
  h.checksum = Checksum(&h, sizeof h);
  return h;
}

std::unique_ptr<tq_vfs_vfile> Build(const tq_vfs_vfile& source, const std::wstring& name, std::string* why) {
  const uint64_t size = source.size();
  const uint64_t entries = (size + kBlockSize - 1) / kBlockSize;
  WRITE_TRACE(1, "BATentries = %llu", static_cast<ull>(entries));
  if (size == 0) {
    *why = "the source is empty";
    return nullptr;
  }
  const uint64_t batBytes = (entries * 4 + kSectorSize - 1) / kSectorSize * kSectorSize;
  // Every block placed: the largest image, which BAT entries (sector numbers,
  // 32 bits) must still reach.
  const uint64_t maxEnd = kTableOffset + batBytes + entries * (kSectorSize + kBlockSize) + kSectorSize;
  if (maxEnd / kSectorSize >= 0xFFFFFFFFull) {
    *why = "the source is too large for the VHD format";
    return nullptr;
  }

  // Which blocks hold data of the source, and the runs that supply it.
  struct Run {
    int64_t first, last;
    tq_vfs_slice slice;
  };
  std::vector<Run> runs;
  source.forEachRun([&runs](int64_t first, int64_t last, const tq_vfs_slice& s) { runs.push_back(Run{first, last, s}); });

  auto file = std::make_unique<tq_vfs_vfile>(name, name);
  const Footer footer = MakeFooter(size);
  const DynamicHeader header = MakeDynamicHeader(static_cast<uint32_t>(entries));
  auto footerBytes = Share(&footer, sizeof footer);
  AddMemory(file.get(), 0, footerBytes);
  AddMemory(file.get(), kHeaderOffset, Share(&header, sizeof header));

  Bytes bat;
  try {
    bat.assign(batBytes, 0xFF);
  } catch (const std::bad_alloc&) {
    WRITE_TRACE(1, "Could not allocate BAT region size = %d[bytes]", static_cast<int>(batBytes));
    *why = "no memory for the BAT";
    return nullptr;
  }
  // All bits set: a reader that honours the bitmap must find every sector of
  // a placed block present (a clear bit reads as zeros there).
  auto bitmap = std::make_shared<Bytes>(kSectorSize, 0xFF);

  uint64_t at = kTableOffset + batBytes;
  size_t iRun = 0;
  for (uint64_t b = 0; b < entries; ++b) {
    const int64_t blockFirst = static_cast<int64_t>(b * kBlockSize);
    const int64_t blockEnd = blockFirst + static_cast<int64_t>(kBlockSize);
    while (iRun < runs.size() && runs[iRun].last < blockFirst) ++iRun;
    if (iRun >= runs.size() || runs[iRun].first >= blockEnd) continue;  // absent

    const uint32_t sector = static_cast<uint32_t>(at / kSectorSize);
    bat[b * 4 + 0] = static_cast<unsigned char>(sector >> 24);
    bat[b * 4 + 1] = static_cast<unsigned char>(sector >> 16);
    bat[b * 4 + 2] = static_cast<unsigned char>(sector >> 8);
    bat[b * 4 + 3] = static_cast<unsigned char>(sector);
    AddMemory(file.get(), at, bitmap);
    at += kSectorSize;
    // The block's data: the runs inside it, zeros between them and after them.
    int64_t pos = blockFirst;
    for (size_t i = iRun; i < runs.size() && runs[i].first < blockEnd; ++i) {
      const int64_t first = std::max(runs[i].first, blockFirst);
      const int64_t last = std::min(runs[i].last, blockEnd - 1);
      if (first > pos) AddZeros(file.get(), at + static_cast<uint64_t>(pos - blockFirst), static_cast<uint64_t>(first - pos));
      AddMoved(file.get(), at + static_cast<uint64_t>(first - blockFirst), first, last, runs[i].slice);
      pos = last + 1;
    }
    if (pos < blockEnd) AddZeros(file.get(), at + static_cast<uint64_t>(pos - blockFirst), static_cast<uint64_t>(blockEnd - pos));
    at += kBlockSize;
  }
  AddMemory(file.get(), kTableOffset, Share(bat.data(), bat.size()));
  AddMemory(file.get(), at, footerBytes);
  return file;
}

}  // namespace vhd

int localfs_VHD_create(LIS_NODE* head, LIS_NODE* dir, const std::wstring& name) {
  WRITE_TRACE(1, "+++localfs_VHD_create");
  WRITE_TRACE(1, "cpwDestinationFileName = [%ls]", name.c_str());
  // The raw image: a sliced file as it stands, or a whole saveset as one slice.
  std::unique_ptr<tq_vfs_vfile> whole;
  const tq_vfs_vfile* source = nullptr;
  if (head->llSource == nsVMDK) {
    source = vfile_get(head->iHandle);
  } else if (head->llSource == nsSAVESET_MAPPED) {
    whole = std::make_unique<tq_vfs_vfile>(head->wsName, head->wsName);
    tq_vfs_slice s;
    s.mTime = 1;
    s.iType = stSAVESET;
    s.miIntervalStart = 0;
    s.miIntervalEnd = static_cast<int64_t>(head->ullSize);
    s.miSavesetIdx = head->sLoc.ssetIdx;
    s.miSavesetOffset = head->sLoc.ssetOff;
    whole->add_slice(s);
    source = whole.get();
  }
  if (source == nullptr) {
    WRITE_TRACE(1, "ERROR: Could not find merge file for %ls ", head->wsName.c_str());
    tvu_log_error("ERROR: Could not find merge file for %ls ", head->wsName.c_str());
    WRITE_TRACE(1, "--localfs_VHD_create index: %d", -1);
    return -1;
  }
  std::string why;
  std::unique_ptr<tq_vfs_vfile> image = vhd::Build(*source, name, &why);
  if (!image) {
    WRITE_TRACE(1, "localfs_VHD_create [%ls]: %s", name.c_str(), why.c_str());
    WRITE_TRACE(1, "--localfs_VHD_create index: %d", -1);
    return -1;
  }
  const uint64_t size = image->size();
  const int32_t handle = vfile_table_push(std::move(image));

  LIS_NODE* node = LISCacheNewNode(name, 'f');
  node->llSource = nsVMDK;
  node->iHandle = handle;
  node->ullSize = size;
  node->bChildrenPopulated = true;
  node->sCtime = head->sCtime;
  node->sMtime = head->sMtime;
  LISCacheLock();
  LISCacheAppendChild(dir, node);
  VfsFileTableAppend(node);
  LISCacheUnlock();
  WRITE_TRACE(1, "--localfs_VHD_create index: %d", handle);
  return handle;
}
