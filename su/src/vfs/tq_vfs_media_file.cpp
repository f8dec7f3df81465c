// tq_vfs_media_file.cpp - savesets that are plain files.  The stream position
// is kept in the entry and every read is positional (one system call, and
// readers of different savesets never share a file pointer); bit 0 of the
// entry's flags records end of file.
#include <cerrno>

#include "platform/platform.h"
#include "report/tvu_report.h"
#include "runtime/trace.h"
#include "vfs/tq_vfs_media.h"

namespace {

int FileOpen(int32_t, SAVESET* ps) {
  pf::File* f = nullptr;
  int err = pf::FileOpenRead(ps->szName, &f);
  if (err != 0) {
    WRITE_TRACE(1, "Cannot open [%s] error = %d", ps->szName, err);
    tvu_fatal("Cannot open saveset [%s] error = %d", ps->szName, err);
  }
  ps->hFile = f;
  ps->llPosition = 0;
  ps->ucFlags &= static_cast<uint8_t>(~SAVESET_FLAG_EOF);
  return 0;
}

int FileClose(int32_t, SAVESET* ps) {
  if (ps->hFile) pf::FileClose(ps->hFile);
  ps->hFile = nullptr;
  return 0;
}

// One read of the whole request (the platform keeps reading after partial
// reads, so a short count means end of file).  A failed read is not fatal:
// the caller sees the short count.
void FileRead(int32_t, SAVESET* ps, void* pBuffer, uint64_t iBufSize, uint64_t* piBytesRead, uint8_t* pucEof) {
  uint64_t got = 0;
  int err = pf::FileReadAt(ps->hFile, static_cast<uint64_t>(ps->llPosition), pBuffer, iBufSize, &got);
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
