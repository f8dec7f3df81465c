// db_operation.cpp - the consolidation operation: initialisation, the data
// stream of DB_ReadBlock, the finish pause and the close.
//
// The stream is the concatenation of byte ranges of the earlier savesets in
// the order the consolidated catalog lists them.  Consecutive catalog lines of
// one saveset are merged into one run, from the first line's offset to the
// last line's end, and every run is copied with one seek and one read per
// DB_ReadBlock call.
#include "plugin/db_operation.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/platform.h"
#include "vfs/tq_vfs_chain.h"
#include "vfs/tq_vfs_args.h"
#include "plugin/db_hooks.h"
#include "runtime/ini.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "tvu_con.h"
#include "vfs/tq_vfs_catalog.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_init.h"
#include "vfs/tq_vfs_saveset.h"

namespace {

constexpr size_t kPathBuffer = 4096;
// Read-ahead of file savesets while streaming: the runs of a catalog of many
// small items lie at rising offsets of a few savesets.  TQ_READAHEAD (bytes;
// 0 turns it off) sets it.
constexpr uint32_t kDefaultReadAhead = 256 * 1024;
constexpr uint32_t kMaxReadAhead = 64u * 1024 * 1024;

uint32_t ReadAheadSetting() {
  std::string text;
  if (!pf::GetEnv("TQ_READAHEAD", &text) || text.empty()) return kDefaultReadAhead;
  char* end = nullptr;
  const unsigned long long v = strtoull(text.c_str(), &end, 10);
  if (*end != '\0') {
    tvu_log(TQ_LOG_DETAIL, "TQ_READAHEAD [%s] is no byte count; using %u", text.c_str(), kDefaultReadAhead);
    return kDefaultReadAhead;
  }
  return v > kMaxReadAhead ? kMaxReadAhead : static_cast<uint32_t>(v);
}

struct OPERATION {
  uint32_t uiType;
  uint32_t uiFlags;
  char* szSaveset;               // owned copy of the descriptor's saveset name
  pf::Event* hFinishEvent;
  bool bFinishEventCreated;
  char szMetaDir[kPathBuffer];
  FILE* fpCatalog;               // the consolidated catalog
  // The read run.
  int32_t iRunSaveset;
  uint64_t ullRunPos;
  uint64_t ullRunRemaining;
  int32_t iCollectSaveset;       // saveset of the run being collected; -1: none
  LIS_ENTRY sPending;            // the parsed line that opens the next run
  bool bPending;                 // sPending is parsed and not yet taken into a run
  uint64_t ullTotalServed;
  uint64_t ullCatalogLine;       // number of the last catalog line read
};

OPERATION s_op{0, 0, nullptr, nullptr, false, "", nullptr, 0, 0, 0, -1, LIS_ENTRY(), false, 0, 0};
char s_szLine[LIS_LINE_BUFFER];
char s_catalogBuffer[256 * 1024];

void EnsureFinishEvent() {
  if (s_op.bFinishEventCreated) return;
  if (pf::EventCreate(kFinishItemEventName, &s_op.hFinishEvent) == 0) s_op.bFinishEventCreated = true;
}

void ResetRun() {
  s_op.iRunSaveset = 0;
  s_op.ullRunPos = 0;
  s_op.ullRunRemaining = 0;
  s_op.iCollectSaveset = -1;
  s_op.bPending = false;
  s_op.ullTotalServed = 0;
  s_op.ullCatalogLine = 0;
}

void LogReadData(const LIS_ENTRY& e) {
  tvu_log(TQ_LOG_PROGRESS,
          e.cType == 'd' ? "ReadData SSID: %d  directory: %s size: %llu offset: %llu"
                         : "ReadData SSID: %d  file: %s size: %llu offset: %llu",
          e.iSavesetIdx, e.sPath.c_str(), static_cast<unsigned long long>(e.ullSize),
          static_cast<unsigned long long>(e.ullOffset));
}

enum CollectResult { crEND, crRUN, crERROR };

// Reads the next catalog line into s_szLine without its line end.  0 at the
// catalog's end, 1 for a line, -1 for a line longer than the buffer: its
// tail would otherwise be read as a line of its own and its bytes streamed.
int ReadCatalogLine() {
  if (!s_op.fpCatalog || !fgets(s_szLine, sizeof s_szLine, s_op.fpCatalog)) return 0;
  ++s_op.ullCatalogLine;
  size_t n = strlen(s_szLine);
  if (n == 0 || s_szLine[n - 1] != '\n') {
    // No line end read: the line ends here only at the end of the file or
    // when its line end is the next character.
    int c = getc(s_op.fpCatalog);
    if (c != EOF && c != '\n') {
      ungetc(c, s_op.fpCatalog);
      return -1;
    }
  }
  while (n > 0 && (s_szLine[n - 1] == '\n' || s_szLine[n - 1] == '\r')) s_szLine[--n] = '\0';
  return 1;
}

// Collects the next run from the consolidated catalog: crEND at the end of
// the catalog with nothing collected, crERROR for a line the run cannot take.
// A run may hold no bytes (lines of size 0 only): the call then delivers
// nothing and the next one goes on; only the catalog's end ends the stream.
CollectResult CollectRun() {
  bool bTaken = false;
  uint64_t ullStart = 0, ullEnd = 0;
  for (;;) {
    LIS_ENTRY& e = s_op.sPending;
    if (!s_op.bPending) {
      const int got = ReadCatalogLine();
      if (got == 0) break;
      if (got < 0) {
        tvu_log_error("Catalog [%s] line %llu is longer than %u bytes: the consolidated catalog cannot be read",
                      ConsolidationArgs()->pszCatalogPath, static_cast<unsigned long long>(s_op.ullCatalogLine),
                      static_cast<unsigned>(sizeof s_szLine - 1));
        return crERROR;
      }
      // The stream needs where the item lies, not its wide names.
      if (ParseSavesetEntry(&e, s_szLine, "fd", false) != 0) continue;
      s_op.bPending = true;
    }
    LogReadData(e);
    if (s_op.iCollectSaveset != -1 && s_op.iCollectSaveset != e.iSavesetIdx) {
      // A saveset change ends the run; the line stays pending and opens the next.
      s_op.iCollectSaveset = e.iSavesetIdx;
      break;
    }
    if (!bTaken) ullStart = e.ullOffset;
    if (e.ullOffset + e.ullSize < ullStart) {
      // A run reaches from its first line's offset to its last line's end; a
      // line that ends before the run starts would make that length negative.
      tvu_log_error("Catalog line [%s] of saveset %d ends at %llu, before its run starts at %llu: the consolidated "
                    "catalog lists the items of a saveset out of their order",
                    e.sPath.c_str(), e.iSavesetIdx, static_cast<unsigned long long>(e.ullOffset + e.ullSize),
                    static_cast<unsigned long long>(ullStart));
      return crERROR;
    }
    ullEnd = e.ullOffset + e.ullSize;
    s_op.iRunSaveset = e.iSavesetIdx;
    s_op.iCollectSaveset = e.iSavesetIdx;
    bTaken = true;
    s_op.bPending = false;
    s_op.ullRunPos = ullStart;
    s_op.ullRunRemaining = ullEnd - ullStart;
  }
  return bTaken ? crRUN : crEND;
}

}  // namespace

uint32_t OperationInit(uint32_t type, uint32_t flags, char** controlVariables, const char* descriptorSaveset) {
  ResetConsolidationArgs();
  ResetRun();

  tvu_trace("%s: Operation type: [%d] -> DB_TYPE_BCK=%d, DB_TYPE_RST=%d, DB_TYPE_DIR=%d", "DB_InitOperation",
            static_cast<int>(type), DB_TYPE_BCK, DB_TYPE_RST, DB_TYPE_DIR);
  EnsureFinishEvent();
  free(s_op.szSaveset);
  s_op.szSaveset = safe_strdup(descriptorSaveset ? descriptorSaveset : "");
  tvu_trace("Saveset: %s", s_op.szSaveset);
  s_op.uiType = type;
  s_op.uiFlags = flags;

  // The saveset to consolidate: the text after "DATABASE=CON:" anywhere in a
  // control variable; the first such variable wins.
  std::string toConsolidate;
  bool bFound = false;
  for (char** pp = controlVariables; pp && *pp; ++pp) {
    const char* var = *pp;
    const char* at = bFound ? nullptr : strstr(var, "DATABASE=CON:");
    if (at) {
      toConsolidate = at + strlen("DATABASE=CON:");
      bFound = true;
      tvu_log(TQ_LOG_PROGRESS, "Saveset to consolidate: %s", toConsolidate.c_str());
    }
    tvu_trace("%s: Control variable found: [%s]", "DB_InitOperation", var);
    if (strncmp(var, "DATABASE=", 9) == 0 && strcmp(var + 9, "CON:") != 0 && type != DB_TYPE_BCK)
      tvu_log(TQ_LOG_DETAIL, "Found DATABASE control variable while NOT backup");
  }
  if (!bFound) {
    tvu_log_error("Saveset to consolidate could not be parsed ");
    return 2;
  }

  if (LoadChain(toConsolidate.c_str(), s_op.szMetaDir, sizeof s_op.szMetaDir) != DB_NUM_I_OK) {
    OperationClose();
    return DB_NUM_E_FAILED;
  }
  CatalogSetLineByLine(true);

  tvu_log(TQ_LOG_PROGRESS, "Catalog file: %s", ConsolidationArgs()->pszCatalogPath);
  tvu_log(TQ_LOG_PROGRESS, "Saveset file: %s", ConsolidationArgs()->szSavesetList);
  s_op.fpCatalog = pf::FOpen(ConsolidationArgs()->pszCatalogPath, "r");
  // The catalog is read front to back once: large reads, not one per 4 KiB.
  if (s_op.fpCatalog) setvbuf(s_op.fpCatalog, s_catalogBuffer, _IOFBF, sizeof s_catalogBuffer);
  tvu_log(TQ_LOG_PROGRESS, "Saveset type: %d", ConsolidationArgs()->iSavesetType);
  if (!s_op.fpCatalog) {
    // Without its catalog the stream cannot be built; say so now rather than
    // at the first read.
    tvu_log_error("Cannot read from [%s]", ConsolidationArgs()->pszCatalogPath);
    OperationClose();
    return DB_NUM_E_FAILED;
  }

  // Most failures of InitVFS show up at the first read; a saveset that is not
  // the kind of volume the chain's data type says ends the operation here.
  saveset_set_readahead(ReadAheadSetting());
  if (InitVFS(ConsolidationArgs()) != 0 && !InitVFSFailure().empty()) {
    tvu_log_error("%s", InitVFSFailure().c_str());
    OperationClose();
    return DB_NUM_E_FAILED;
  }
  return DB_NUM_I_OK;
}

uint32_t OperationReadBlock(char* buffer, uint32_t* length) {
  tvu_log(TQ_LOG_DETAIL, "uipIO_DBBlockLen %llu", static_cast<unsigned long long>(*length));
  tvu_trace("DB_ReadBlock");

  if (s_op.ullRunRemaining == 0) {
    CollectResult collected = CollectRun();
    if (collected == crERROR) {
      *length = 0;
      return DB_NUM_E_FAILED;
    }
    if (collected == crEND) {
      *length = 0;
      return DB_NUM_I_END;
    }
  }

  uint64_t requested = *length;
  uint64_t n = s_op.ullRunRemaining < requested ? s_op.ullRunRemaining : requested;
  uint64_t delivered = 0;
  while (s_op.ullRunRemaining > 0) {
    const int32_t idx = s_op.iRunSaveset;
    saveset_operation_mutex_lock(idx);
    int rc = saveset_seek(idx, static_cast<int64_t>(s_op.ullRunPos));
    if (rc != 0) {
      saveset_operation_mutex_unlock(idx);
      tvu_log_error("Error on saveset seek, ret %d", rc);
      *length = 0;
      return DB_NUM_E_FAILED;
    }
    uint64_t got = 0;
    uint8_t eof = 0;
    rc = saveset_read(idx, buffer, n, &got, &eof);
    saveset_operation_mutex_unlock(idx);
    if (rc != 0) {
      tvu_log_error("Error on saveset read, ret %d", rc);
      *length = 0;
      return DB_NUM_E_FAILED;
    }
    // Every read of the loop fills the buffer from its start with n bytes, so
    // anything short of n would deliver a wrong stream: the saveset ends
    // before the catalog says it does.
    if (got != n) {
      tvu_log_error("Saveset [%s] ends before its catalog says: %llu of %llu bytes read at offset %llu",
                    g_psSavesets[idx].szName, static_cast<unsigned long long>(got),
                    static_cast<unsigned long long>(n), static_cast<unsigned long long>(s_op.ullRunPos));
      *length = 0;  // nothing of this call may be taken as stream
      return DB_NUM_E_FAILED;
    }
    s_op.ullRunPos += got;
    delivered += got;
    s_op.ullRunRemaining -= got;
    requested -= got;
    if (requested == 0) break;
  }
  s_op.ullTotalServed += delivered;
  *length = static_cast<uint32_t>(delivered);
  return DB_NUM_I_OK;
}

uint32_t OperationItemFinishStatus() {
  tvu_trace("DB_ItemFinishStatus");
  EnsureFinishEvent();
  if (s_op.uiType == DB_TYPE_BCK) {
    int r = pf::EventWait(s_op.hFinishEvent, 3000);
    pf::EventReset(s_op.hFinishEvent);
    tvu_trace("%s: WaitForSingleObject ended with [%d]", "DB_ItemFinishStatus", r);
  }
  tvu_trace("DB_ItemFinishStatus: Item processed successful!");
  return DB_NUM_I_OK;
}

uint32_t OperationClose() {
  tvu_trace("DB_CloseOperation");
  EnsureFinishEvent();
  free(s_op.szSaveset);
  s_op.szSaveset = nullptr;
  pf::EventClose(s_op.hFinishEvent);
  s_op.hFinishEvent = nullptr;
  s_op.bFinishEventCreated = false;
  TerminateVFS();
  if (s_op.fpCatalog) fclose(s_op.fpCatalog);
  s_op.fpCatalog = nullptr;
  saveset_table_free();
  saveset_set_readahead(0);
  ResetRun();
  return DB_NUM_I_OK;
}
