// tq_vfs_media.h - one set of operations per saveset media type.
//
// The saveset table (tq_vfs_saveset.cpp) checks the index, traces and
// dispatches here; each media file implements its type's stream semantics.
// Every function gets the entry's index (for messages) and the entry itself.
#ifndef TVU_VFS_MEDIA_H
#define TVU_VFS_MEDIA_H

#include <cstdint>

#include "vfs/tq_vfs_saveset.h"

struct SAVESET_MEDIA_OPS {
  // 0 on success; failures that leave the stream unknown end the process.
  int (*pfnOpen)(int32_t iSavesetIdx, SAVESET* ps);
  int (*pfnClose)(int32_t iSavesetIdx, SAVESET* ps);
  // Sets *piBytesRead and, at end of stream, bit 0 of *pucEof.
  void (*pfnRead)(int32_t iSavesetIdx, SAVESET* ps, void* pBuffer, uint64_t iBufSize, uint64_t* piBytesRead,
                  uint8_t* pucEof);
  int (*pfnSeek)(int32_t iSavesetIdx, SAVESET* ps, int64_t iOffset);
  int (*pfnFeof)(int32_t iSavesetIdx, SAVESET* ps);
  int (*pfnSize)(int32_t iSavesetIdx, SAVESET* ps, uint64_t* pSize);
  int (*pfnTell)(int32_t iSavesetIdx, SAVESET* ps, uint64_t* pPosition);
};

extern const SAVESET_MEDIA_OPS g_sZeroMediaOps;  // smZERO
extern const SAVESET_MEDIA_OPS g_sFileMediaOps;  // smFILE
extern const SAVESET_MEDIA_OPS g_sVk4MediaOps;   // smVK4
extern const SAVESET_MEDIA_OPS g_sVk4ngMediaOps; // smVK4NG

// Frees a file saveset's read-ahead buffer (close, and the table's free).
void MediaFileDropReadAhead(SAVESET* ps);

// Shared by the media whose stream position is the entry's position field.
int MediaPositionSize(int32_t iSavesetIdx, SAVESET* ps, uint64_t* pSize);
int MediaPositionTell(int32_t iSavesetIdx, SAVESET* ps, uint64_t* pPosition);
// End of a dedup stream: the position has reached the size.
int MediaDedupFeof(int32_t iSavesetIdx, SAVESET* ps);
// A failed dedup call leaves the stream in an unknown state: the message goes
// to the trace and the standard error stream with "FATAL " in front, into the
// status file (with "FATAL " when fatalWordInReport), and the process ends.
[[noreturn]] void MediaDedupStreamFatal(const char* call, int r, int32_t iSavesetIdx, const SAVESET* ps,
                                        const char* lastError, bool fatalWordInReport);

// The operations of a media type, or null for an unknown type.
const SAVESET_MEDIA_OPS* saveset_media_ops(uint32_t uiMediaType);

#endif
