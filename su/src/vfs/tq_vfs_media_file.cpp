// tq_vfs_media_file.cpp - savesets that are plain files.  The stream position
// is kept in the entry and every read is positional (one system call, and
// readers of different savesets never share a file pointer); bit 0 of the
// entry's flags records end of file.  With read-ahead on, short reads are
// served from one buffer per saveset, so that many small runs at rising
// offsets cost one system call per buffer rather than one per run.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/platform.h"
#include "report/tvu_report.h"
#include "runtime/trace.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_media.h"

// The buffer holds [ullOffset, ullOffset + uiLength) of the file.  It is
// touched only under the saveset's operation mutex, as every read is.
struct SAVESET_READAHEAD {
  uint64_t ullOffset;
  uint32_t uiLength;
  uint32_t uiCapacity;
  char data[1];
};

void MediaFileDropReadAhead(SAVESET* ps) {
  free(ps->pReadAhead);
  ps->pReadAhead = nullptr;
}

namespace {

SAVESET_READAHEAD* ReadAheadBuffer(SAVESET* ps, uint32_t capacity) {
  if (ps->pReadAhead && ps->pReadAhead->uiCapacity == capacity) return ps->pReadAhead;
  MediaFileDropReadAhead(ps);
  auto* ra = static_cast<SAVESET_READAHEAD*>(malloc(sizeof(SAVESET_READAHEAD) + capacity));
  if (!ra) tvu_out_of_memory(sizeof(SAVESET_READAHEAD) + capacity, __FILE__, __LINE__);
  ra->ullOffset = 0;
  ra->uiLength = 0;
  ra->uiCapacity = capacity;
  ps->pReadAhead = ra;
  return ra;
}

// Serves a read from the buffer, refilling it at the position where it ends
// short.  The result is what one positional read of the whole request would
// have given: the bytes up to the end of the file, fewer only on an error.
int ReadThroughBuffer(SAVESET* ps, uint32_t capacity, char* out, uint64_t size, uint64_t* done) {
  SAVESET_READAHEAD* ra = ReadAheadBuffer(ps, capacity);
  uint64_t pos = static_cast<uint64_t>(ps->llPosition);
  *done = 0;
  while (*done < size) {
    if (ra->uiLength > 0 && pos >= ra->ullOffset && pos < ra->ullOffset + ra->uiLength) {
      const uint64_t avail = ra->ullOffset + ra->uiLength - pos;
      const uint64_t n = avail < size - *done ? avail : size - *done;
      memcpy(out + *done, ra->data + (pos - ra->ullOffset), n);
      *done += n;
      pos += n;
      continue;
    }
    uint64_t got = 0;
    const int err = pf::FileReadAt(ps->hFile, pos, ra->data, ra->uiCapacity, &got);
    ra->ullOffset = pos;
    ra->uiLength = err == 0 ? static_cast<uint32_t>(got) : 0;
    if (err != 0) return err;
    if (got == 0) break;  // end of file
  }
  return 0;
}

int FileOpen(int32_t, SAVESET* ps) {
  pf::File* f = nullptr;
  int err = pf::FileOpenRead(ps->szName, &f);
  if (err != 0) {
    WRITE_TRACE(1, "Cannot open [%s] error = %d", ps->szName, err);
    tvu_fatal("Cannot open saveset [%s] error = %d", ps->szName, err);
  }
  ps->hFile = f;
  MediaFileDropReadAhead(ps);
  ps->llPosition = 0;
  ps->ucFlags &= static_cast<uint8_t>(~SAVESET_FLAG_EOF);
  return 0;
}

int FileClose(int32_t, SAVESET* ps) {
  MediaFileDropReadAhead(ps);
  if (ps->hFile) pf::FileClose(ps->hFile);
  ps->hFile = nullptr;
  return 0;
}

// One read of the whole request (the platform keeps reading after partial
// reads, so a short count means end of file).  A failed read is not fatal:
// the caller sees the short count.
void FileRead(int32_t, SAVESET* ps, void* pBuffer, uint64_t iBufSize, uint64_t* piBytesRead, uint8_t* pucEof) {
  uint64_t got = 0;
  const uint32_t readAhead = saveset_get_readahead();
  int err = readAhead > 0 && iBufSize < readAhead
                ? ReadThroughBuffer(ps, readAhead, static_cast<char*>(pBuffer), iBufSize, &got)
                : pf::FileReadAt(ps->hFile, static_cast<uint64_t>(ps->llPosition), pBuffer, iBufSize, &got);
  *piBytesRead = got;
  ps->llPosition += static_cast<int64_t>(got);
  if (err != 0) {
    WRITE_TRACE(1, "Read error %d", err);
    return;
  }
  if (got == 0 && iBufSize > 0) {
    WRITE_TRACE(2, "EOF hit");
    *pucEof |= SAVESET_FLAG_EOF;
    ps->ucFlags |= SAVESET_FLAG_EOF;
  }
}

int FileSeek(int32_t, SAVESET* ps, int64_t iOffset) {
  // As the OS would: a position before the start, or on a file that is not
  // open, is refused; any position after it is allowed.
  int err = !ps->hFile ? EBADF : iOffset < 0 ? EINVAL : 0;
  if (err != 0) {
    WRITE_TRACE(1, "seek to %llu problem lr = %d error = %d", static_cast<unsigned long long>(iOffset), -1, err);
    return 1;
  }
  ps->llPosition = iOffset;
  ps->ucFlags &= static_cast<uint8_t>(~SAVESET_FLAG_EOF);
  return 0;
}

int FileFeof(int32_t, SAVESET* ps) { return (ps->ucFlags & SAVESET_FLAG_EOF) ? 1 : 0; }

// The size is where the end of the file lies; the stream position is not
// touched by asking.
int FileSize(int32_t, SAVESET* ps, uint64_t* pSize) {
  uint64_t end = 0;
  int err = pf::FileSeek(ps->hFile, 0, 2, &end);
  if (err != 0) {
    WRITE_TRACE(1, "seek problem dwr = %ld error = %d", -1L, err);
    return 1;
  }
  *pSize = end;
  return 0;
}

int FileTell(int32_t, SAVESET* ps, uint64_t* pPosition) {
  if (!ps->hFile) return 1;
  *pPosition = static_cast<uint64_t>(ps->llPosition);
  return 0;
}

}  // namespace

const SAVESET_MEDIA_OPS g_sFileMediaOps = {FileOpen, FileClose, FileRead, FileSeek, FileFeof, FileSize, FileTell};
