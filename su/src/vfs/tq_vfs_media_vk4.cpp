// tq_vfs_media_vk4.cpp - savesets that are objects in the Vk4 dedup store,
// read over the store's remote service.  The stream keeps its own position;
// the store only moves forward, so a backward seek rewinds and skips.
#include <cstdio>

#include "report/tvu_report.h"
#include "runtime/trace.h"
#include "tqs/tq_dedup/n7dedup_client2.h"
#include "vfs/tq_vfs_media.h"

namespace {

DedupClientStruct* Client(int32_t idx, const SAVESET* ps) {
  DedupClientStruct* c = dedup_client(ps->iDedupHandle);
  if (!c) tvu_fatal("Vk4 saveset [%s] (index %d) has no connection", ps->szName, idx);
  return c;
}

int Vk4Open(int32_t idx, SAVESET* ps) {
  int32_t handle = -1;
  int r = dedup_connect(&handle, ps->szDedupHost, ps->uiDedupPort);
  ps->iDedupHandle = handle;
  if (r != 0) {
    WRITE_TRACE(1, "Error dedup_connect ret = [%d]", r);
    tvu_fatal("Cannot establish connection to Vk4 server [%s:%d] for [%s] error = %d vk4 = %s", ps->szDedupHost,
              static_cast<int>(ps->uiDedupPort), ps->szName, r, g_dedupLastError);
  }
  WRITE_TRACE(1, "dedup_connect return with SID: %d", handle);
  DedupClientStruct* c = Client(idx, ps);
  r = c->startRecv_h(ps->szName);
  if (r < 0) {
    WRITE_TRACE(1, "Error dedup_start_recv_h ret = [%d]", r);
    tvu_fatal("Cannot access vk4 saveset [%s] error = %d vk4 = %s", ps->szName, r, g_dedupLastError);
  }
  DEDUP_OBJECT_INFO info;
  ps->llSize = dedup_get_object_info(handle, &info, ps->szName) == 0 ? info.llDedupBytes + info.llNewBytes : 0;
  WRITE_TRACE(1, "dedup_start_recv_rpc_h[%s] handle = %d size = %lu", ps->szName, handle,
              static_cast<unsigned long>(ps->llSize));
  return 0;
}

int Vk4Close(int32_t, SAVESET* ps) {
  dedup_close(ps->iDedupHandle);
  ps->iDedupHandle = -1;
  return 0;
}

// A reply longer than the request is cut to it; the bytes beyond it are
// lost, and a store that moved its position past them hands out every later
// byte shifted.  The stream cannot repair that, but the operator is told.
void ReportLongReply(const SAVESET* ps, int64_t llPosition, int32_t iAsked, int64_t llReceived) {
  char text[1024];
  snprintf(text, sizeof text,
           "Vk4 saveset [%s] at position %lld: the store returned %lld bytes for %d asked; the %lld bytes "
           "beyond the request are dropped and the data after them may be shifted",
           ps->szName, static_cast<long long>(llPosition), static_cast<long long>(llReceived), iAsked,
           static_cast<long long>(llReceived - iAsked));
  WRITE_TRACE(1, "%s", text);
  tvu_log(TQ_LOG_ERROR, "%s", text);
}

void Vk4Read(int32_t idx, SAVESET* ps, void* pBuffer, uint64_t iBufSize, uint64_t* piBytesRead, uint8_t* pucEof) {
  DedupClientStruct* c = Client(idx, ps);
  char* pOut = static_cast<char*>(pBuffer);
  uint64_t total = 0;
  // One call asks for at most what one reply may carry, and the store may
  // answer a call with less than asked before the object ends: only an empty
  // reply ends the stream.
  while (total < iBufSize) {
    uint64_t left = iBufSize - total;
    int32_t want = left > static_cast<uint64_t>(kDedupMaxRead) ? kDedupMaxRead : static_cast<int32_t>(left);
    int32_t got = 0;
    int r = c->fread_h(c->conid(), pOut + total, want, &got);
    WRITE_TRACE(2, "dedup_fread_rpc_h r = %d bytes requested = %d read = %d handle = %d", r, want, got,
                ps->iDedupHandle);
    if (r != 0) MediaDedupStreamFatal("dedup_fread_rpc_h", r, idx, ps, g_dedupLastError, false);
    if (c->lastReplyBytes() > want) ReportLongReply(ps, ps->llPosition, want, c->lastReplyBytes());
    if (got == 0) break;
    total += static_cast<uint64_t>(got);
    ps->llPosition += got;
  }
  *piBytesRead = total;
  if (total < iBufSize) *pucEof |= SAVESET_FLAG_EOF;
}

int Vk4Seek(int32_t idx, SAVESET* ps, int64_t iOffset) {
  if (iOffset > ps->llSize) {
    // The store cannot go past the object's end: the seek is skipped, not failed.
    WRITE_TRACE(1, "Seeking past EOF (%llu > %llu). Seek aborted", static_cast<unsigned long long>(iOffset),
                static_cast<unsigned long long>(ps->llSize));
    return 0;
  }
  WRITE_TRACE(3, "saveset FPOS = %llu", static_cast<unsigned long long>(ps->llPosition));
  DedupClientStruct* c = Client(idx, ps);
  int64_t distance;
  if (ps->llPosition > iOffset) {
    int r = c->rewind_h(c->conid());
    if (r != 0) MediaDedupStreamFatal("dedup_rewind_h", r, idx, ps, g_dedupLastError, false);
    ps->llPosition = 0;
    distance = iOffset;
  } else {
    distance = iOffset - ps->llPosition;
  }
  WRITE_TRACE(3, "dedup skipping %lu bytes", static_cast<unsigned long>(distance));
  int r = c->skip_h(c->conid(), distance);
  if (r < 0) MediaDedupStreamFatal("dedup_skip_h", r, idx, ps, g_dedupLastError, true);
  ps->llPosition += distance;
  return 0;
}

}  // namespace

const SAVESET_MEDIA_OPS g_sVk4MediaOps = {Vk4Open,        Vk4Close,         Vk4Read,          Vk4Seek,
                                          MediaDedupFeof, MediaPositionSize, MediaPositionTell};
