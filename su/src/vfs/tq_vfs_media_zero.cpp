// tq_vfs_media_zero.cpp - the zero source: a saveset of any length that reads
// as zero bytes.  It stands in for the unchanged parts of rebuilt disks.
#include <cstring>

#include "vfs/tq_vfs_media.h"

namespace {

int ZeroOpen(int32_t, SAVESET*) { return 0; }
int ZeroClose(int32_t, SAVESET*) { return 0; }

void ZeroRead(int32_t, SAVESET* ps, void* pBuffer, uint64_t iBufSize, uint64_t* piBytesRead, uint8_t*) {
  memset(pBuffer, 0, iBufSize);
  *piBytesRead = iBufSize;
  ps->llPosition += static_cast<int64_t>(iBufSize);
}

// The offset is relative for the zero source, and clamped to the size.
int ZeroSeek(int32_t, SAVESET* ps, int64_t iOffset) {
  ps->llPosition += iOffset < ps->llSize ? iOffset : ps->llSize;
  return 0;
}

int ZeroFeof(int32_t, SAVESET*) { return 0; }  // a zero source never ends

}  // namespace

const SAVESET_MEDIA_OPS g_sZeroMediaOps = {ZeroOpen, ZeroClose, ZeroRead, ZeroSeek, ZeroFeof, MediaPositionSize, MediaPositionTell};
