// tq_vfs_media_file.cpp - savesets that are plain files.  The stream position
// is the OS file pointer; bit 0 of the entry's flags records end of file.
#include "platform/platform.h"
#include "plugin/db_hooks.h"
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
  int err = pf::FileRead(ps->hFile, pBuffer, iBufSize, &got);
  *piBytesRead = got;
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
  uint64_t pos = 0;
  int err = pf::FileSeek(ps->hFile, iOffset, 0, &pos);
  if (err != 0) {
    WRITE_TRACE(1, "seek to %llu problem lr = %d error = %d", static_cast<unsigned long long>(iOffset), -1, err);
    return 1;
  }
  ps->ucFlags &= static_cast<uint8_t>(~SAVESET_FLAG_EOF);
  return 0;
}

int FileFeof(int32_t, SAVESET* ps) { return (ps->ucFlags & SAVESET_FLAG_EOF) ? 1 : 0; }

// Learns the size by moving to the end and back to where the pointer was.
int FileSize(int32_t, SAVESET* ps, uint64_t* pSize) {
  uint64_t here = 0, end = 0;
  int err = pf::FileSeek(ps->hFile, 0, 1, &here);
  if (err == 0) err = pf::FileSeek(ps->hFile, 0, 2, &end);
  if (err != 0) {
    WRITE_TRACE(1, "seek problem dwr = %ld error = %d", -1L, err);
    return 1;
  }
  err = pf::FileSeek(ps->hFile, static_cast<int64_t>(here), 0, nullptr);
  if (err != 0) {
    WRITE_TRACE(1, "seek problem dwr = %ld error = %d", -1L, err);
    return 1;
  }
  *pSize = end;
  return 0;
}

int FileTell(int32_t, SAVESET* ps, uint64_t* pPosition) {
  int err = pf::FileSeek(ps->hFile, 0, 1, pPosition);
  return err == 0 ? 0 : 1;
}

}  // namespace

const SAVESET_MEDIA_OPS g_sFileMediaOps = {FileOpen, FileClose, FileRead, FileSeek, FileFeof, FileSize, FileTell};
