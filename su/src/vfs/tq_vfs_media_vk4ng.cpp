// tq_vfs_media_vk4ng.cpp - savesets that are objects in the next-generation
// dedup store, read through the store maker's library.  Every single call
// into the library is made under the dedup library mutex.
#include <cstdio>
#include <string>

#include "report/tvu_report.h"
#include "runtime/trace.h"
#include "vfs/tq_vfs_dedup_lib.h"
#include "vfs/tq_vfs_media.h"

namespace {

// Runs one library call under the library mutex.
template <class F>
auto Locked(F&& call) -> decltype(call()) {
  DedupLibLock();
  auto result = call();
  DedupLibUnlock();
  return result;
}

std::string LastMessage() {
  const TQ_DEDUP_API* api = DedupLibrary();
  return Locked([&] {
    const char* m = api->pfnGetLastMessage();
    return std::string(m ? m : "");
  });
}

// Tells the operator (log level 1500 and trace) that the library claimed
// more bytes than the request; the count is cut by the caller.
void ReportLongReply(const SAVESET* ps, int64_t llPosition, int64_t llAsked, int64_t llReceived) {
  char text[1024];
  snprintf(text, sizeof text,
           "Vk4NG saveset [%s] at position %lld: the library returned %lld bytes for %lld asked; the count is "
           "cut to the request and the data after it may be shifted",
           ps->szName, static_cast<long long>(llPosition), static_cast<long long>(llReceived),
           static_cast<long long>(llAsked));
  WRITE_TRACE(1, "%s", text);
  tvu_log(TQ_LOG_ERROR, "%s", text);
}

int Vk4ngOpen(int32_t, SAVESET* ps) {
  const TQ_DEDUP_API* api = DedupLibrary();
  WRITE_TRACE(1, "Using DeDup2 (RUST lib). Hostname=%s / port=%d, HTTP type=%s", ps->szDedupHost,
              static_cast<int>(ps->uiDedupPort), ps->szHttpType);
  ps->iDedupHandle = Locked([&] {
    return api->pfnInit(ps->szDedupHost, static_cast<int32_t>(ps->uiDedupPort), ps->szHttpType, tvu_dedup_message);
  });
  WRITE_TRACE(1, "dedup_init_v2 return with SID: %d", ps->iDedupHandle);
  int32_t r = Locked([&] { return api->pfnStartRestore(ps->iDedupHandle, ps->szName); });
  if (r < 0) {
    WRITE_TRACE(1, "Error dedup_start_restore ret = [%d]", r);
    tvu_fatal("Cannot access vk4ng saveset [%s] error = %d", ps->szName, r);
  }
  ps->llSize = Locked([&] { return api->pfnGetObjectSize(ps->iDedupHandle, ps->szName); });
  WRITE_TRACE(1, "dedup_start_restore[%s] handle = %d size = %lu", ps->szName, ps->iDedupHandle,
              static_cast<unsigned long>(ps->llSize));
  return 0;
}

int Vk4ngClose(int32_t, SAVESET* ps) {
  const TQ_DEDUP_API* api = DedupLibrary();
  Locked([&] { return api->pfnFinishRestore(ps->iDedupHandle); });
  ps->iDedupHandle = -1;
  return 0;
}

void Vk4ngRead(int32_t idx, SAVESET* ps, void* pBuffer, uint64_t iBufSize, uint64_t* piBytesRead, uint8_t* pucEof) {
  const TQ_DEDUP_API* api = DedupLibrary();
  int64_t got = Locked([&] {
    return api->pfnReadRestore(ps->iDedupHandle, static_cast<char*>(pBuffer), static_cast<int64_t>(iBufSize));
  });
  int r = got == 0 ? 1 : 0;
  WRITE_TRACE(2, "dedup_read_restore r = %d bytes requested = %d read = %d handle = %d", r,
              static_cast<int>(iBufSize), static_cast<int>(got), ps->iDedupHandle);
  if (got == 0) MediaDedupStreamFatal("dedup_read_restore", r, idx, ps, LastMessage().c_str(), false);
  if (got > static_cast<int64_t>(iBufSize)) {
    // The caller's buffer ends at the request: a larger count is cut to it,
    // and the operator is told, since the stream may be shifted from here on.
    ReportLongReply(ps, ps->llPosition, static_cast<int64_t>(iBufSize), got);
    got = static_cast<int64_t>(iBufSize);
  }
  *piBytesRead = static_cast<uint64_t>(got);
  ps->llPosition += got;
  if (static_cast<uint64_t>(got) < iBufSize) *pucEof |= SAVESET_FLAG_EOF;
}

// No past-the-end check here: the library decides what a skip beyond the
// object's end means.
int Vk4ngSeek(int32_t idx, SAVESET* ps, int64_t iOffset) {
  const TQ_DEDUP_API* api = DedupLibrary();
  WRITE_TRACE(3, "saveset FPOS = %llu", static_cast<unsigned long long>(ps->llPosition));
  int64_t distance;
  if (ps->llPosition > iOffset) {
    int32_t r = Locked([&] { return api->pfnRewindRestore(ps->iDedupHandle); });
    if (r != 0) MediaDedupStreamFatal("dedup_rewind_restore", r, idx, ps, LastMessage().c_str(), false);
    ps->llPosition = 0;
    distance = iOffset;
  } else {
    distance = iOffset - ps->llPosition;
  }
  WRITE_TRACE(3, "dedup skipping %lu bytes", static_cast<unsigned long>(distance));
  int32_t r = Locked([&] { return api->pfnSkipRestore(ps->iDedupHandle, distance); });
  if (r < 0) MediaDedupStreamFatal("dedup_skip_restore", r, idx, ps, LastMessage().c_str(), true);
  ps->llPosition += distance;
  return 0;
}

}  // namespace

const SAVESET_MEDIA_OPS g_sVk4ngMediaOps = {Vk4ngOpen,      Vk4ngClose,        Vk4ngRead,        Vk4ngSeek,
                                            MediaDedupFeof, MediaPositionSize, MediaPositionTell};
