// tq_vfs_chain.cpp - reading the configuration, arguments and saveset list of
// a chain, and detecting its catalog's type.
#include "vfs/tq_vfs_chain.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "platform/platform.h"
#include "report/tvu_report.h"
#include "runtime/ini.h"
#include "runtime/text.h"
#include "tvu_con.h"
#include "vfs/tq_vfs_catalog.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_saveset.h"

namespace {

// Large buffers (the record holds 64 KiB of root path): kept off the stack.
std::unique_ptr<CON_ARGS> g_args(new CON_ARGS());
std::unique_ptr<char[]> g_catalogPath(new char[CON_CATALOG_PATH_CAP + 1]());

}  // namespace

CON_ARGS* ConsolidationArgs() { return g_args.get(); }

void ResetConsolidationArgs() {
  // The options come from the argument file of each operation.
  gVOPTIONS = VFS_OPTIONS{};
  memset(g_args.get(), 0, sizeof(CON_ARGS));
  memset(g_catalogPath.get(), 0, CON_CATALOG_PATH_CAP + 1);
  g_args->pszCatalogPath = g_catalogPath.get();
  g_args->uiCatalogPathCap = CON_CATALOG_PATH_CAP;
  g_args->piSavesetCount = &g_iSavesetCount;
  g_args->ppSavesets = &g_psSavesets;
}

uint32_t LoadChain(const char* saveset, char* metaDir, size_t metaDirSize) {
  CON_ARGS* args = g_args.get();
  char szValue[4096] = "";
  char szReason[256] = "";
  if (korvo::i_READ_INI("TQ_INI", "[pathes]", "gv_rw_tqslis", szValue, sizeof szValue, szReason, sizeof szReason) !=
      1) {
    tvu_log(TQ_LOG_PROGRESS,
            "Korvo TQSLIS directory could not be read: [%s], section: %s, variable: [%s]  Reason: [%s]", "TQ_INI",
            "[pathes]", "gv_rw_tqslis", szReason);
    tvu_set_error(DB_NUM_E_FAILED,
                  "Korvo TQSLIS directory could not be read: [%s], section: %s, variable: [%s]  Reason: [%s]", "TQ_INI",
                  "[pathes]", "gv_rw_tqslis", szReason);
    return DB_NUM_E_FAILED;
  }

  snprintf(metaDir, metaDirSize, "%s%s_mnt\\", szValue, saveset);
  tvu_set_meta_dir(metaDir);
  tvu_log(TQ_LOG_PROGRESS, "VFS meta files dir: %s", metaDir);

  if (ReadConsolidateArgs(args, metaDir) != 0) return DB_NUM_E_FAILED;

  FILE* fpList = pf::FOpen(args->szSavesetList, "r");
  if (!fpList) {
    tvu_log_error("Cannot read from [%s]", args->szSavesetList);
    return DB_NUM_E_FAILED;
  }
  std::string line;
  while (korvo::read_line(fpList, &line)) {
    tvu_log(TQ_LOG_PROGRESS, "Read saveset line: [%s]", line.c_str());
    ReadSavesetLine(g_iSavesetCount, line.c_str());
  }
  fclose(fpList);
  tvu_log(TQ_LOG_PROGRESS, "Initilaized %d savesets to structure psVFS_IP", g_iSavesetCount);

  CatalogSetSavesetType(args->iSavesetType);
  // The detector gets the whole path: the arguments allow far longer paths
  // than a file name, and a cut path names another file.
  CatalogSetPath(args->pszCatalogPath);
  if (DetectCatalogType() != 0) {
    fprintf(stderr, "Unable to determine catalog type\n");
    tvu_fatal("Unable to determine catalog type");
  }
  return DB_NUM_I_OK;
}
