// tq_vfs_vfile_table.cpp - the three process-wide tables of virtual files and
// the operations that reach a file through its handle.
//
// Range rules.  The vfile functions compare a handle, widened with its sign
// and taken as unsigned 64-bit, against the table's count, so a negative
// handle is simply out of range.  The pure-virtual functions test for a
// negative handle first.  An out-of-range handle is never an error message:
// seek, size and read give 0, lock and unlock -1, pure-virtual seek all ones.
//
// Locks.  A failed wait on or release of a file's lock ends the process;
// nothing is retried, because a lock in an unknown state leaves the file's
// shared position unprotected.
#include <cstring>
#include <vector>

#include "platform/platform.h"
#include "report/tvu_report.h"
#include "runtime/trace.h"
#include "vfs/tq_vfs_vfile.h"

namespace {

using ull = unsigned long long;

std::vector<std::unique_ptr<tq_vfs_vfile>> s_vfileTable;
std::vector<std::unique_ptr<tq_vfs_vfile>> s_vfileTableMERGE;
std::vector<std::unique_ptr<tq_vfs_PureVirtualFile>> s_pureVirtualTable;

template <class T>
T* Lookup(const std::vector<std::unique_ptr<T>>& table, int32_t iHandle) {
  const uint64_t h = static_cast<uint64_t>(static_cast<int64_t>(iHandle));
  return h < table.size() ? table[h].get() : nullptr;
}

void LockOrDie(pf::Mutex* m) {
  int err = pf::MutexLock(m);
  if (err != 0) {
    WRITE_TRACE(1, "mutex state invalid = %d GetLastError() = %d", -1, err);
    tvu_fatal("Internal error: mutex state invalid");
  }
}

void UnlockOrDie(pf::Mutex* m) {
  int err = pf::MutexUnlock(m);
  if (err != 0) {
    WRITE_TRACE(1, "mutex release failed GetLastError() = %d", err);
    tvu_fatal("Internal error: mutex release");
  }
}

// A seek may land on any position up to the last byte of the highest
// segment, gaps included; beyond that it returns 0 and keeps the position.
uint64_t SeekFile(tq_vfs_vfile* f, int64_t offset) {
  if (!f || f->sliceCount() == 0) return 0;
  if (offset > static_cast<int64_t>(f->size()) - 1) return 0;
  f->m_fpos = offset;
  return static_cast<uint64_t>(offset);
}

int32_t Push(std::vector<std::unique_ptr<tq_vfs_vfile>>* table, std::unique_ptr<tq_vfs_vfile> file) {
  table->push_back(std::move(file));
  return static_cast<int32_t>(table->size() - 1);
}

}  // namespace

// ---- the tables ------------------------------------------------------------

int32_t vfile_table_push(std::unique_ptr<tq_vfs_vfile> file) { return Push(&s_vfileTable, std::move(file)); }

int32_t vfile_table_MERGE_push(std::unique_ptr<tq_vfs_vfile> file) { return Push(&s_vfileTableMERGE, std::move(file)); }

int32_t pure_virtual_table_push(std::unique_ptr<tq_vfs_PureVirtualFile> file) {
  s_pureVirtualTable.push_back(std::move(file));
  return static_cast<int32_t>(s_pureVirtualTable.size() - 1);
}

size_t vfile_table_count() { return s_vfileTable.size(); }
size_t vfile_table_MERGE_count() { return s_vfileTableMERGE.size(); }

tq_vfs_vfile* vfile_get(int32_t handle) { return Lookup(s_vfileTable, handle); }
tq_vfs_vfile* vfile_get_MERGE(int32_t handle) { return Lookup(s_vfileTableMERGE, handle); }

void vfile_tables_clear() {
  s_vfileTable.clear();
  s_vfileTableMERGE.clear();
  s_pureVirtualTable.clear();
}

// ---- handle operations -----------------------------------------------------

int vfile_open(int32_t iHandle) {
  WRITE_TRACE(3, "vfile_open iHandle=%d", iHandle);
  tq_vfs_vfile* f = Lookup(s_vfileTable, iHandle);
  if (!f) return -1;
  WRITE_TRACE(3, "tq_vfs_vfile::open [%ls]", f->name().c_str());
  return 0;
}

uint64_t vfile_seek(int32_t iHandle, int64_t offset) {
  WRITE_TRACE(3, "vfile_seek iHandle=%d offset=%llu", iHandle, static_cast<ull>(offset));
  return SeekFile(Lookup(s_vfileTable, iHandle), offset);
}

uint64_t vfile_size(int32_t iHandle) {
  WRITE_TRACE(3, "vfile_size iHandle=%d", iHandle);
  tq_vfs_vfile* f = Lookup(s_vfileTable, iHandle);
  uint64_t ret = f ? f->size() : 0;
  WRITE_TRACE(3, "ret = %llu", static_cast<ull>(ret));
  return ret;
}

uint64_t vfile_read(int32_t iHandle, void* buffer, uint64_t size) {
  WRITE_TRACE(3, "vfile_read handle=%d size=%zd", iHandle, static_cast<std::ptrdiff_t>(size));
  tq_vfs_vfile* f = Lookup(s_vfileTable, iHandle);
  return f ? f->read(buffer, size) : 0;
}

uint64_t vfile_seek_MERGE(int32_t iHandle, int64_t offset) {
  WRITE_TRACE(3, "vfile_seek_MERGE iHandle=%d offset=%llu", iHandle, static_cast<ull>(offset));
  return SeekFile(Lookup(s_vfileTableMERGE, iHandle), offset);
}

uint64_t vfile_read_MERGE(int32_t iHandle, void* buffer, uint64_t size) {
  WRITE_TRACE(3, "vfile_read_MERGE handle=%d size=%zd", iHandle, static_cast<std::ptrdiff_t>(size));
  tq_vfs_vfile* f = Lookup(s_vfileTableMERGE, iHandle);
  return f ? f->read(buffer, size) : 0;
}

int vfile_mutex_lock(int32_t iHandle) {
  tq_vfs_vfile* f = Lookup(s_vfileTable, iHandle);
  if (!f) return -1;
  LockOrDie(f->hMutex);
  return 0;
}

int vfile_mutex_unlock(int32_t iHandle) {
  tq_vfs_vfile* f = Lookup(s_vfileTable, iHandle);
  if (!f) return -1;
  UnlockOrDie(f->hMutex);
  return 0;
}

int vfile_mutex_lock_MERGE(int32_t iHandle) {
  tq_vfs_vfile* f = Lookup(s_vfileTableMERGE, iHandle);
  if (!f) return -1;
  LockOrDie(f->hMutex);
  return 0;
}

int vfile_mutex_unlock_MERGE(int32_t iHandle) {
  tq_vfs_vfile* f = Lookup(s_vfileTableMERGE, iHandle);
  if (!f) return -1;
  UnlockOrDie(f->hMutex);
  return 0;
}

// ---- in-memory files -------------------------------------------------------

static tq_vfs_PureVirtualFile* PureVirtual(int32_t iHandle) {
  if (iHandle < 0 || static_cast<size_t>(iHandle) >= s_pureVirtualTable.size()) return nullptr;
  return s_pureVirtualTable[static_cast<size_t>(iHandle)].get();
}

uint64_t pure_virtual_seek(int32_t iHandle, uint64_t offset) {
  tq_vfs_PureVirtualFile* p = PureVirtual(iHandle);
  if (!p) return ~0ull;
  if (offset >= p->content.size()) return p->ullPosition;
  p->ullPosition = offset;
  return offset;
}

uint64_t pure_virtual_read(int32_t iHandle, void* buffer, uint64_t size) {
  tq_vfs_PureVirtualFile* p = PureVirtual(iHandle);
  if (!p) return ~0ull;
  WRITE_TRACE(2, "size_t tq_vfs_PureVirtualFile::read");
  const uint64_t length = p->content.size();
  // The seek keeps the position below the length; an empty file stays at 0.
  const uint64_t pos = p->ullPosition < length ? p->ullPosition : length;
  uint64_t count = size;
  if (size > length - pos) {
    WRITE_TRACE(2, "size_t tq_vfs_PureVirtualFile::read - trying to read beyond EOD");
    count = length - pos;
  }
  if (count) memcpy(buffer, p->content.data() + pos, count);
  return count;
}
