// tq_vfs_vfile.h - sliced virtual files and the tables that hold them.
//
// A sliced virtual file is assembled from slices: stretches of its address
// space that each come from one source (a fill byte, a stretch of a saveset,
// a shared memory buffer, or a stretch of a MERGE file).  Slices may overlap.
//
// Combine rule: at every byte the slice with the greatest mTime among those
// covering it supplies the data; among equal mTimes the slice added first
// (lowest index) wins; if no covering slice has an mTime above 0, slice 0 of
// the file is used.  Positions covered by no slice are a gap: a read that
// reaches one ends there and returns 0.
//
// Files live in three process-wide tables addressed by handle (their index,
// in order of appending; never reused, never removed while the VFS lives):
// the VMDK table, the MERGE table and the in-memory table.
//
// Thread safety: tables grow only during VFS initialisation.  A file's
// position is shared: callers hold the file's lock (vfile_mutex_lock) across
// a seek and the read that belongs to it.  Lock order: the file read, then a
// MERGE file a slice refers to, then the saveset operation lock.
#ifndef TVU_VFS_VFILE_H
#define TVU_VFS_VFILE_H

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace pf {
struct Mutex;
}

enum VFILE_SLICE_TYPE : int32_t { stFILL = 1, stSAVESET = 2, stMEMORY = 3, stMERGE = 4 };

// One slice.  Invariant: miIntervalStart <= miIntervalEnd; the slice covers
// miIntervalStart <= position < miIntervalEnd.
struct tq_vfs_slice {
  int64_t mTime = 0;                // version: larger is newer
  int32_t iType = stFILL;           // VFILE_SLICE_TYPE
  int64_t miIntervalStart = 0;
  int64_t miIntervalEnd = 0;
  int32_t miSavesetIdx = -1;        // stSAVESET: saveset index
  uint64_t miSavesetOffset = 0;     // stSAVESET: saveset position of the byte at miIntervalStart
  std::shared_ptr<std::vector<unsigned char>> pBuffer;  // stMEMORY: data of miIntervalStart at its start
  uint64_t ullFill = 0;             // stFILL: low 8 bits are the byte
  uint64_t ullMergeHandle = 0;      // stMERGE: handle in the MERGE table
  uint64_t ullMergeOffset = 0;      // stMERGE: MERGE file position of the byte at miIntervalStart
};

class tq_vfs_vfile {
 public:
  tq_vfs_vfile(const std::wstring& cpFilename, const std::wstring& relativePath);
  virtual ~tq_vfs_vfile();
  tq_vfs_vfile(const tq_vfs_vfile&) = delete;
  tq_vfs_vfile& operator=(const tq_vfs_vfile&) = delete;

  // Adds a slice (copied; a memory buffer is shared).  Always 0; a zero-size
  // slice is ignored.
  int add_slice(const tq_vfs_slice& slice);
  // Reads from the position on and advances it; returns the bytes read.
  uint64_t read(void* buffer, uint64_t size);
  // Index of the slice that supplies a segment covered by `slices`.
  int32_t getNewestSlice(const std::vector<int32_t>& slices) const;

  // Last covered position + 1; 0 when nothing is covered.
  uint64_t size() const;
  bool empty() const;

  const std::wstring& name() const { return cpFilename_; }
  const std::wstring& relativePath() const { return relativePath_; }
  size_t sliceCount() const { return slices_.size(); }
  size_t segmentCount() const;
  // Calls visit for every stretch [first, last] that one slice supplies, in
  // ascending order, with that slice: what a read would copy from where.
  // Gaps are skipped.  REQUIRES: no add_slice runs concurrently.
  void forEachRun(const std::function<void(int64_t first, int64_t last, const tq_vfs_slice& slice)>& visit) const;

  int64_t m_fpos = 0;
  struct tm tmCtime {};   // filled by the VMDK catalog pass
  struct tm tmMtime {};
  pf::Mutex* hMutex = nullptr;

 private:
  struct SliceMap;  // the interval map (private)
  std::vector<tq_vfs_slice> slices_;
  std::unique_ptr<SliceMap> map_;
  std::wstring cpFilename_;
  std::wstring relativePath_;
};

// In-memory file: content and position.
struct tq_vfs_PureVirtualFile {
  uint64_t ullPosition = 0;
  std::vector<unsigned char> content;
};

// ---- the tables ------------------------------------------------------------
// Appends a file; returns its handle.
int32_t vfile_table_push(std::unique_ptr<tq_vfs_vfile> file);
int32_t vfile_table_MERGE_push(std::unique_ptr<tq_vfs_vfile> file);
int32_t pure_virtual_table_push(std::unique_ptr<tq_vfs_PureVirtualFile> file);
size_t vfile_table_count();
size_t vfile_table_MERGE_count();
// The file of a handle, or null when out of range.
tq_vfs_vfile* vfile_get(int32_t handle);
tq_vfs_vfile* vfile_get_MERGE(int32_t handle);
// Empties all three tables (TerminateVFS).
void vfile_tables_clear();

// ---- handle operations -----------------------------------------------------
int vfile_open(int32_t iHandle);  // 0, or -1 for an out-of-range handle
uint64_t vfile_seek(int32_t iHandle, int64_t offset);
uint64_t vfile_size(int32_t iHandle);
uint64_t vfile_read(int32_t iHandle, void* buffer, uint64_t size);
uint64_t vfile_seek_MERGE(int32_t iHandle, int64_t offset);
uint64_t vfile_read_MERGE(int32_t iHandle, void* buffer, uint64_t size);
int vfile_mutex_lock(int32_t iHandle);
int vfile_mutex_unlock(int32_t iHandle);
int vfile_mutex_lock_MERGE(int32_t iHandle);
int vfile_mutex_unlock_MERGE(int32_t iHandle);
// In-memory files: seek (all ones for a bad handle) and read at the position
// (the position is not advanced by the read).
uint64_t pure_virtual_seek(int32_t iHandle, uint64_t offset);
uint64_t pure_virtual_read(int32_t iHandle, void* buffer, uint64_t size);

#endif
