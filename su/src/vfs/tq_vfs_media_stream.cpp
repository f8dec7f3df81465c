// tq_vfs_media_stream.cpp - what the media with a position field of their own
// (zero source, Vk4, Vk4NG) share.
#include <cstdio>

#include "report/tvu_report.h"
#include "runtime/trace.h"
#include "vfs/tq_vfs_media.h"

int MediaPositionSize(int32_t, SAVESET* ps, uint64_t* pSize) {
  *pSize = static_cast<uint64_t>(ps->llSize);
  return 0;
}

int MediaPositionTell(int32_t, SAVESET* ps, uint64_t* pPosition) {
  *pPosition = static_cast<uint64_t>(ps->llPosition);
  return 0;
}

int MediaDedupFeof(int32_t, SAVESET* ps) {
  WRITE_TRACE(3, "dedup_feof_h handle = %d", ps->iDedupHandle);
  return ps->llPosition >= ps->llSize ? 1 : 0;
}

void MediaDedupStreamFatal(const char* call, int r, int32_t idx, const SAVESET* ps, const char* lastError,
                           bool fatalWordInReport) {
  char text[2048];
  snprintf(text, sizeof text, "%s r = %d saveset index = %d name = %s g_dedupLastError = %s", call, r, idx,
           ps->szName, lastError);
  WRITE_TRACE(1, "FATAL %s", text);
  fprintf(stderr, "FATAL %s\n", text);
  if (fatalWordInReport) tvu_fatal("FATAL %s", text);
  tvu_fatal("%s", text);
}
