// tq_vfs_bitmap.cpp - the block-bitmap merge: increments laid over a head.
#include "vfs/tq_vfs_bitmap.h"

#include <exception>
#include <memory>
#include <vector>

#include "runtime/trace.h"
#include "vfs/tq_vfs_enum.h"
#include "vfs/tq_vfs_read.h"
#include "vfs/tq_vfs_vfile.h"
#include "vfs/tq_vfs_vhd.h"

namespace {

using ull = unsigned long long;

// The bitmap is read in pieces of this size.
constexpr uint64_t kBitmapPiece = 0x10000;

LIS_NODE* s_head = nullptr;
LIS_NODE* s_increment = nullptr;
// Version of the next slice of the head: each head starts at 1 (its whole
// image), and every run of every increment after it is newer.
int64_t s_sliceNumber = 0;

// A run of consecutive set blocks: disk blocks [firstBlock, firstBlock +
// count) whose data start at dataOffset in the increment's data.
struct Run {
  uint64_t firstBlock = 0;
  uint64_t count = 0;
  uint64_t dataOffset = 0;
};

// Adds the run to the head.  The slice takes no more than the head's size
// (the last block of a disk may be partial) and no more than the increment's
// data hold; what it cannot take is traced and left to older slices.
void AddRun(tq_vfs_vfile* head, const LIS_NODE* data, const Run& run) {
  if (run.count == 0) return;
  const uint64_t headSize = head->size();
  const uint64_t first = run.firstBlock * kBitmapBlockSize;
  uint64_t length = run.count * kBitmapBlockSize;
  if (first >= headSize) {
    WRITE_TRACE(1, "bitmap_append_bitmap: blocks %llu-%llu lie past the disk's end %llu",
                static_cast<ull>(run.firstBlock), static_cast<ull>(run.firstBlock + run.count - 1),
                static_cast<ull>(headSize));
    return;
  }
  if (length > headSize - first) length = headSize - first;
  const uint64_t dataHave = data->ullSize > run.dataOffset ? data->ullSize - run.dataOffset : 0;
  if (length > dataHave) {
    WRITE_TRACE(1, "bitmap_append_bitmap: [%ls] holds %llu bytes from %llu, the bitmap asks %llu",
                data->wsName.c_str(), static_cast<ull>(dataHave), static_cast<ull>(run.dataOffset),
                static_cast<ull>(length));
    length = dataHave;
  }
  tq_vfs_slice s;
  s.mTime = ++s_sliceNumber;
  s.iType = stSAVESET;
  s.miIntervalStart = static_cast<int64_t>(first);
  s.miIntervalEnd = static_cast<int64_t>(first + length);
  s.miSavesetIdx = data->sLoc.ssetIdx;
  s.miSavesetOffset = data->sLoc.ssetOff + run.dataOffset;
  head->add_slice(s);
}

}  // namespace

int bitmap_set_head(LIS_NODE* targetDir, LIS_NODE* dir, const std::wstring& name, int32_t ssetIdx, uint64_t size) {
  WRITE_TRACE(1, "+++bitmap_set_head");
  int rc = 0;
  if (s_head != nullptr) rc = bitmap_finalize(targetDir);

  auto file = std::make_unique<tq_vfs_vfile>(name, name);
  s_sliceNumber = 1;
  tq_vfs_slice s;
  s.mTime = s_sliceNumber;
  s.iType = stSAVESET;
  s.miIntervalStart = 0;
  s.miIntervalEnd = static_cast<int64_t>(size);
  s.miSavesetIdx = ssetIdx;
  s.miSavesetOffset = 0;
  file->add_slice(s);
  const int32_t handle = vfile_table_push(std::move(file));

  LIS_NODE* node = LISCacheNewNode(name, 'f');
  node->llSource = nsVMDK;
  node->iHandle = handle;
  node->ullSize = size;
  node->bChildrenPopulated = true;
  LISCacheLock();
  LISCacheAppendChild(dir, node);
  VfsFileTableAppend(node);
  LISCacheUnlock();
  s_head = node;
  s_increment = nullptr;
  WRITE_TRACE(1, "---bitmap_set_head [%ls] handle %d", name.c_str(), handle);
  return rc;
}

void bitmap_set_increment(LIS_NODE* data) { s_increment = data; }

int bitmap_append_bitmap(const char* context, LIS_NODE* bitmapFile) {
  WRITE_TRACE(1, "+++bitmap_append_bitmap [%ls]", bitmapFile->wsName.c_str());
  tq_vfs_vfile* head = s_head ? vfile_get(s_head->iHandle) : nullptr;
  LIS_NODE* data = s_increment;
  s_increment = nullptr;
  if (head == nullptr || data == nullptr) {
    WRITE_TRACE(1, "---bitmap_append_bitmap no %s", head == nullptr ? "head" : "increment data");
    return -1;
  }
  std::vector<char> piece(kBitmapPiece);
  uint64_t bitmapOffset = 0;
  uint64_t block = 0;     // disk block of the next bit
  uint64_t dataNext = 0;  // where the next set block's data start in the increment
  Run run;
  size_t byteIdx = 0;
  try {
    for (;;) {
      const uint64_t got = ReadFromVFS(context, bitmapFile, bitmapOffset, piece.data(), piece.size());
      if (got == 0) break;
      for (byteIdx = 0; byteIdx < got; ++byteIdx) {
        const unsigned char byte = static_cast<unsigned char>(piece[byteIdx]);
        if (byte == 0) {  // eight absent blocks: the common case, one step
          AddRun(head, data, run);
          run.count = 0;
          block += 8;
          continue;
        }
        for (int bit = 7; bit >= 0; --bit, ++block) {
          if ((byte >> bit) & 1u) {
            if (run.count == 0) {
              run.firstBlock = block;
              run.dataOffset = dataNext;
            }
            ++run.count;
            dataNext += kBitmapBlockSize;
          } else {
            AddRun(head, data, run);
            run.count = 0;
          }
        }
      }
      bitmapOffset += got;
    }
    AddRun(head, data, run);
    if (bitmapOffset < bitmapFile->ullSize) {
      WRITE_TRACE(1, "bitmap_append_bitmap: [%ls] read %llu of %llu bytes", bitmapFile->wsName.c_str(),
                  static_cast<ull>(bitmapOffset), static_cast<ull>(bitmapFile->ullSize));
    }
  } catch (const std::exception& e) {
    WRITE_TRACE(1, "bitmap_append_bitmap - std::exception caught at bitmap_offset = %llu  byte_idx = %d %s",
                static_cast<ull>(bitmapOffset), static_cast<int>(byteIdx), e.what());
  } catch (...) {
    WRITE_TRACE(1, "bitmap_append_bitmap - unknown exception caught; bitmap_offset = %llu byte_idx = %d",
                static_cast<ull>(bitmapOffset), static_cast<int>(byteIdx));
  }
  WRITE_TRACE(1, "---bitmap_append_bitmap");
  return 0;
}

int bitmap_convert_to_vhd(LIS_NODE* head, LIS_NODE* targetDir) {
  if (head->wsName.find(L".qcow") != std::wstring::npos) {
    WRITE_TRACE(1, "Not converting qcow disk to vhd");
    WRITE_TRACE(1, "---bitmap_convert_to_vhd");
    return 0;
  }
  const std::wstring name = head->wsName + L".vhd";
  WRITE_TRACE(1, "+++bitmap_convert_to_vhd");
  return localfs_VHD_create(head, targetDir, name) < 0 ? -1 : 0;
}

int bitmap_finalize(LIS_NODE* targetDir) {
  if (s_head == nullptr) return 0;
  LIS_NODE* head = s_head;
  s_head = nullptr;
  s_increment = nullptr;
  return bitmap_convert_to_vhd(head, targetDir);
}

LIS_NODE* bitmap_head() { return s_head; }

void bitmap_reset() {
  s_head = nullptr;
  s_increment = nullptr;
  s_sliceNumber = 0;
}
