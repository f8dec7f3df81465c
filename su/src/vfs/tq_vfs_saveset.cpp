// tq_vfs_saveset.cpp - the saveset table: index checks, tracing and dispatch
// to the media operations, the per-saveset operation mutexes and the lookup of
// a saveset by name.
#include "vfs/tq_vfs_saveset.h"

#include <zlib.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/platform.h"
#include "report/tvu_report.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_media.h"

SAVESET* g_psSavesets = nullptr;
int32_t g_iSavesetCount = 0;
static int32_t s_iSavesetCapacity = 0;
static uint64_t s_ullTableGeneration = 1;

uint64_t saveset_table_generation() { return s_ullTableGeneration; }

static uint32_t s_uiReadAhead = 0;
void saveset_set_readahead(uint32_t bytes) { s_uiReadAhead = bytes; }
uint32_t saveset_get_readahead() { return s_uiReadAhead; }

const SAVESET_MEDIA_OPS* saveset_media_ops(uint32_t uiMediaType) {
  switch (uiMediaType) {
    case smZERO:
      return &g_sZeroMediaOps;
    case smFILE:
      return &g_sFileMediaOps;
    case smVK4:
      return &g_sVk4MediaOps;
    case smVK4NG:
      return &g_sVk4ngMediaOps;
    default:
      return nullptr;
  }
}

// The index check of every operation: an index outside the table ends the
// process with the operation's own message.  (A negative index is outside
// too: it would address memory before the table.)
static SAVESET* CheckIndex(int32_t iSavesetIdx, const char* message) {
  if (iSavesetIdx < 0 || iSavesetIdx + 1 > g_iSavesetCount) {
    WRITE_TRACE(1, "Saveset index out of bounds");
    tvu_fatal("%s", message);
  }
  return &g_psSavesets[iSavesetIdx];
}

int32_t saveset_append(const SAVESET& entry) {
  if (g_iSavesetCount == s_iSavesetCapacity) {
    int32_t cap = s_iSavesetCapacity ? s_iSavesetCapacity * 2 : 16;
    auto* grown = static_cast<SAVESET*>(realloc(g_psSavesets, sizeof(SAVESET) * static_cast<size_t>(cap)));
    if (!grown) tvu_out_of_memory(sizeof(SAVESET) * static_cast<size_t>(cap), __FILE__, __LINE__);
    g_psSavesets = grown;
    s_iSavesetCapacity = cap;
  }
  g_psSavesets[g_iSavesetCount] = entry;
  int32_t idx = g_iSavesetCount++;
  ++s_ullTableGeneration;
  // A zero source is made while the operation runs: its mutex comes at once.
  if (entry.uiMediaType == smZERO && !entry.hOpMutex) saveset_operation_mutex_create(idx);
  return idx;
}

void saveset_table_free() {
  for (int32_t i = 0; i < g_iSavesetCount; ++i) {
    SAVESET& s = g_psSavesets[i];
    free(s.szName);
    free(s.szDedupHost);
    MediaFileDropReadAhead(&s);
    pf::FileClose(s.hFile);
    pf::MutexClose(s.hOpMutex);
  }
  free(g_psSavesets);
  g_psSavesets = nullptr;
  g_iSavesetCount = 0;
  s_iSavesetCapacity = 0;
  ++s_ullTableGeneration;
}

int saveset_init(int32_t iSavesetIdx) {
  SAVESET* ps = CheckIndex(iSavesetIdx, "Internal error: saveset index out of bounds");
  if (ps->hOpMutex) return 0;
  return saveset_operation_mutex_create(iSavesetIdx);
}

int saveset_open(int32_t iSavesetIdx) {
  WRITE_TRACE(3, "+++saveset_open iSavesetIdx = %d", iSavesetIdx);
  SAVESET* ps = CheckIndex(iSavesetIdx, "Internal error: saveset index out of bounds");
  const SAVESET_MEDIA_OPS* ops = saveset_media_ops(ps->uiMediaType);
  if (!ops) {
    WRITE_TRACE(1, "Unknown media type %d", static_cast<int>(ps->uiMediaType));
    return 1;
  }
  int rc = ops->pfnOpen(iSavesetIdx, ps);
  if (rc == 0) ps->uiOpen = 1;
  WRITE_TRACE(3, "---saveset_open");
  return rc;
}

int saveset_close(int32_t iSavesetIdx) {
  WRITE_TRACE(1, "+++saveset_close iSavesetIdx=%d", iSavesetIdx);
  // Closing an entry that is not open is a no-op.
  if (iSavesetIdx >= 0 && iSavesetIdx < g_iSavesetCount && g_psSavesets[iSavesetIdx].uiOpen == 0) {
    WRITE_TRACE(1, "Saveset is not opened iSavesetIdx=%d", iSavesetIdx);
    return 0;
  }
  SAVESET* ps = CheckIndex(iSavesetIdx, "saveset_close - Saveset index out of bounds");
  const SAVESET_MEDIA_OPS* ops = saveset_media_ops(ps->uiMediaType);
  int rc;
  if (!ops) {
    WRITE_TRACE(1, "Unknown media type %d", static_cast<int>(ps->uiMediaType));
    rc = 1;
  } else {
    rc = ops->pfnClose(iSavesetIdx, ps);
    ps->uiOpen = 0;
  }
  WRITE_TRACE(1, "---saveset_close iRet=%d", rc);
  return rc;
}

int saveset_read(int32_t iSavesetIdx, void* pBuffer, uint64_t iBufSize, uint64_t* piBytesRead, uint8_t* pucEof) {
  SAVESET* ps = CheckIndex(iSavesetIdx, "saveset_read - Saveset index out of bounds");
  const SAVESET_MEDIA_OPS* ops = saveset_media_ops(ps->uiMediaType);
  uint64_t fpos = 0;
  if (korvo::trace_level() >= 3) {
    if (ops) ops->pfnTell(iSavesetIdx, ps, &fpos);
    korvo::write_trace(3, "+++saveset_read iSavesetIdx = %d iSavesetFPOS = %llu iBufSize = %d", iSavesetIdx,
                       static_cast<unsigned long long>(fpos), static_cast<int>(iBufSize));
  }
  if (!ops) return 0;  // an unknown media type reads nothing
  ops->pfnRead(iSavesetIdx, ps, pBuffer, iBufSize, piBytesRead, pucEof);
  if (korvo::trace_level() >= 3) {
    // Diagnostic only: lets two traces of the same stream be compared.
    uLong sum = crc32(0L, static_cast<const Bytef*>(pBuffer), static_cast<uInt>(*piBytesRead));
    korvo::write_trace(3, "saveset_read iSavesetIdx = %d iSavesetFPOS = %llu lChkSum = %llu bytes %d", iSavesetIdx,
                       static_cast<unsigned long long>(fpos), static_cast<unsigned long long>(sum),
                       static_cast<int>(*piBytesRead));
  }
  WRITE_TRACE(3, "---saveset_read piBytesRead = %d", static_cast<int>(*piBytesRead));
  return 0;
}

int saveset_seek(int32_t iSavesetIdx, int64_t iOffset) {
  WRITE_TRACE(3, "+++saveset_seek iSavesetIdx = %d iOffset = %llu", iSavesetIdx,
              static_cast<unsigned long long>(iOffset));
  SAVESET* ps = CheckIndex(iSavesetIdx, "saveset_seek - Saveset index out of bounds");
  const SAVESET_MEDIA_OPS* ops = saveset_media_ops(ps->uiMediaType);
  int rc = ops ? ops->pfnSeek(iSavesetIdx, ps, iOffset) : 1;
  WRITE_TRACE(3, "---saveset_seek iRet = %d", rc);
  return rc;
}

int saveset_feof(int32_t iSavesetIdx) {
  WRITE_TRACE(3, "+++saveset_feof iSavesetIdx = %d", iSavesetIdx);
  SAVESET* ps = CheckIndex(iSavesetIdx, "saveset_feof Saveset index out of bounds");
  const SAVESET_MEDIA_OPS* ops = saveset_media_ops(ps->uiMediaType);
  int rc = ops ? ops->pfnFeof(iSavesetIdx, ps) : 1;
  WRITE_TRACE(3, "---saveset_feof");
  return rc;
}

int saveset_size(int32_t iSavesetIdx, uint64_t* pSize) {
  WRITE_TRACE(3, "+++saveset_size iSavesetIdx = %d", iSavesetIdx);
  SAVESET* ps = CheckIndex(iSavesetIdx, "saveset_size Saveset index out of bounds");
  const SAVESET_MEDIA_OPS* ops = saveset_media_ops(ps->uiMediaType);
  int rc = ops ? ops->pfnSize(iSavesetIdx, ps, pSize) : 1;
  WRITE_TRACE(3, "---saveset_size iRet = %d savesetSize =%lld", rc, static_cast<long long>(rc == 0 ? *pSize : 0));
  return rc;
}

int saveset_ftello(int32_t iSavesetIdx, uint64_t* pPosition) {
  SAVESET* ps = CheckIndex(iSavesetIdx, "saveset_ftello - Saveset index out of bounds");
  const SAVESET_MEDIA_OPS* ops = saveset_media_ops(ps->uiMediaType);
  if (!ops) return 1;
  if (ps->uiMediaType == smFILE) WRITE_TRACE(3, "+++saveset_ftello iSavesetIdx = %d ", iSavesetIdx);
  int rc = ops->pfnTell(iSavesetIdx, ps, pPosition);
  if (ps->uiMediaType == smFILE)
    WRITE_TRACE(3, "---saveset_ftello iSavesetIdx = %d position = %llu", iSavesetIdx,
                static_cast<unsigned long long>(*pPosition));
  return rc;
}

int32_t saveset_find_by_name(const char* name) {
  char pattern[512];
  snprintf(pattern, sizeof pattern, "%s.*", name);
  for (int32_t i = 0; i < g_iSavesetCount; ++i) {
    const char* entry = g_psSavesets[i].szName;
    if (entry && korvo::fnmatch(pattern, korvo::basename(entry)) == 0) return i;
  }
  return -1;
}

int saveset_operation_mutex_create(int32_t iSavesetIdx) {
  SAVESET* ps = CheckIndex(iSavesetIdx, "Internal error: saveset index out of bounds");
  pf::Mutex* m = nullptr;
  if (pf::MutexCreate(&m) != 0) return 1;
  ps->hOpMutex = m;
  return 0;
}

void saveset_operation_mutex_lock(int32_t iSavesetIdx) {
  SAVESET* ps = CheckIndex(iSavesetIdx, "Internal error: saveset index out of bounds");
  int err = pf::MutexLock(ps->hOpMutex);
  if (err != 0) {
    WRITE_TRACE(1, "saveset_operation_mutex_lock mutex state invalid = %d GetLastError() = %d", -1, err);
    tvu_fatal("Internal error: mutex state invalid");
  }
}

void saveset_operation_mutex_unlock(int32_t iSavesetIdx) {
  SAVESET* ps = CheckIndex(iSavesetIdx, "Internal error: saveset index out of bounds");
  int err = pf::MutexUnlock(ps->hOpMutex);
  if (err != 0) {
    WRITE_TRACE(1, "saveset_operation_mutex_unlock mutex release failed GetLastError() = %d", err);
    tvu_fatal("Internal error: mutex release");
  }
}
