// tq_vfs_init.cpp - InitVFS and TerminateVFS.
#include "vfs/tq_vfs_init.h"

#include <cstdio>
#include <cstring>
#include <vector>

#include "archive/dump_format.h"
#include "archive/dump_stream.h"
#include "platform/platform.h"
#include "vfs/tq_vfs_chain.h"
#include "vfs/tq_vfs_args.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "vfs/tq_vfs_cache.h"
#include "vfs/tq_vfs_catalog.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_dedup_lib.h"
#include "vfs/tq_vfs_enum.h"
#include "vfs/tq_vfs_saveset.h"
#include "vfs/tq_vfs_timer.h"
#include "vfs/tq_vfs_vdisk.h"
#include "vfs/tq_vfs_vfile.h"
#include "vfs/tq_vfs_vmdk.h"

namespace {

bool s_bTerminate = false;
std::string s_sLslPath;
std::string s_sLstPath;
std::string s_sFailure;  // why the last InitVFS failed, when it says so

}  // namespace

bool VfsTerminating() { return s_bTerminate; }

const std::string& InitVFSFailure() { return s_sFailure; }

std::string SiblingCatalogPath(const char* catalogPath, const char* extension) {
  std::string path(catalogPath);
  if (path.size() > 3) path.resize(path.size() - 4);
  path += extension;
  return path;
}

static int InitVFSTree();

// The first record of a saveset of a "-t dump" chain must be the header of a
// dump volume that is not compressed.  Reads it, seeks back to 0 and checks
// it; 0 when the saveset can be read as a dump.
static int CheckDumpVolume(int32_t i) {
  const char* name = g_psSavesets[i].szName;
  WRITE_TRACE(1, "DUMP type requested. Checking if this is a valid UFS volume");
  uint8_t first[dump::kRecordSize];
  uint64_t got = 0;
  uint8_t eof = 0;
  if (saveset_read(i, first, sizeof first, &got, &eof) != 0) {
    WRITE_TRACE(1, "Cannot read from saveset [%s]\n", name);
    fprintf(stderr, "ERROR: Cannot read from saveset [%s]", name);
    return 1;
  }
  if (saveset_seek(i, 0) != 0) {
    WRITE_TRACE(1, "Cannot seek on saveset [%s]", name);
    fprintf(stderr, "ERROR: Cannot seek on saveset [%s]\n", name);
    return 1;
  }
  // A saveset shorter than one record is no dump either.
  const int reason = got == sizeof first ? DumpCheckVolume(first) : -1;
  if (reason == 0) return 0;
  if (reason == 1) WRITE_TRACE(1, "Saveset is compressed but compresesed savesets are not supported");
  WRITE_TRACE(1, "Saveset [%s] is not a valid UFS volume. r = %d.", name, reason);
  const char* why = reason == 1 ? "Compression not supported" : "Unknown error";
  fprintf(stderr, "ERROR: Saveset is not supported [%s]. Not a valid UFS volume as requested with -t dump switch\n",
          name);
  fprintf(stderr, "%s\n", why);
  s_sFailure = std::string("Saveset is not supported [") + name +
               "]. Not a valid UFS volume as requested with -t dump switch: " + why;
  return 1;
}

int InitVFS(const CON_ARGS* args) {
  WRITE_TRACE(1, "+++InitVFS");
  VfsTimerReset();
  if (gVOPTIONS.iStartDelaySec > 0) pf::SleepMs(static_cast<uint32_t>(gVOPTIONS.iStartDelaySec) * 1000u);
  CatalogSetSavesetType(args->iSavesetType);
  s_bTerminate = false;
  s_sFailure.clear();

  s_sLslPath = SiblingCatalogPath(args->pszCatalogPath, ".lsl");
  s_sLstPath = SiblingCatalogPath(args->pszCatalogPath, ".lst");

  if (args->iSavesetType == sdtDUMP) {
    if (g_iCatalogType == ctLSL) {
      g_iCatalogType = ctLSLv2;
      printf("Assuming catalog type is LSLv2\n");
      WRITE_TRACE(1, "Assuming catalog type is LSLv2");
    } else if (g_iCatalogType == ctLIS) {
      g_iCatalogType = ctLISv2;
      printf("Assuming catalog type is LISv2\n");
      WRITE_TRACE(1, "Assuming catalog type is LISv2");
    }
  }

  WRITE_TRACE(1, "Catalog path = [%s]", args->pszCatalogPath);
  WRITE_TRACE(1, "Open savesets");
  if (DedupLibMutexCreate() != 0) {
    WRITE_TRACE(1, "Vk4-NG mutex creation failed");
    return 1;
  }

  for (int32_t i = 0; i < g_iSavesetCount; ++i) {
    WRITE_TRACE(1, "processing saveset %d", i);
    if (saveset_init(i) != 0) {
      WRITE_TRACE(1, "saveset_init(%d) failed", i);
      return 1;
    }
    if (saveset_open(i) != 0) {
      WRITE_TRACE(1, "Cannot open saveset [%d]=[%s]", i, g_psSavesets[i].szName);
      fprintf(stderr, "ERROR: Cannot open saveset %s\n", g_psSavesets[i].szName);
      WRITE_TRACE(1, "---InitVFS");
      return 1;
    }
    if (args->iSavesetType == sdtDUMP && CheckDumpVolume(i) != 0) {
      WRITE_TRACE(1, "---InitVFS");
      return 1;
    }
    WRITE_TRACE(1, "processed saveset %d", i);
  }

  int iRet;
  if (CatalogGetLineByLine()) {
    iRet = VdiskParseCatalog(args, args->pszCatalogPath);
  } else {
    iRet = InitVFSTree();
  }
  WRITE_TRACE(1, "---InitVFS iRet = %d", iRet);
  return iRet;
}

// Tree mode: the tree cache, the virtual disk sources, the root's entries and,
// when asked, the whole tree.
static int InitVFSTree() {
  WRITE_TRACE(1, "+++LISCacheInit");
  WRITE_TRACE(1, "Opening savesets");
  if (LISCacheInit() != 0) {
    WRITE_TRACE(1, "---InitVFS LISCacheInit failed");
    return 1;
  }
  WRITE_TRACE(1, "---LISCacheInit");

  int iRet = gVOPTIONS.iMapper ? VdiskInitRctSources() : VdiskInitVmdkAndMapper(ConsolidationArgs());

  std::vector<LIS_NODE*> root;
  GetSavesetEntries("\\", true, false, &root);

  if (gVOPTIONS.iBuildCache) {
    WRITE_TRACE(1, "Building cache ...");
    printf("Building cache. This might take a while... \n");
    fflush(stdout);
    VfsTimerStart(vtTREE);
    unsigned long long items = BuildCompleteTree("\\");
    VfsTimerStop(vtTREE);
    printf("Cache built. Took %2.1f[s] Items: %llu\n", VfsTimerSeconds(vtTREE), items);
    WRITE_TRACE(1, "Cache built %2.1f[s]. Items processed: %llu", VfsTimerSeconds(vtTREE), items);
  }

  if (korvo::trace_level() >= 3) LISCacheDump(LISCacheRoot());
  WRITE_TRACE(1, " ctUpdateFSEntryFromCPIOSaveset duration %2.1f[s]", VfsTimerSeconds(vtCPIO));
  WRITE_TRACE(1, " ctUpdateFSEntryFromMTFSaveset duration %2.1f[s]", VfsTimerSeconds(vtMTF));
  WRITE_TRACE(1, " ctUpdateFSEntryFromDUMPaveset duration %2.1f[s]", VfsTimerSeconds(vtDUMP));
  WRITE_TRACE(1, " cttq_vfs_vfile_add_slice duration %2.1f[s]", VfsTimerSeconds(vtSLICE));
  WRITE_TRACE(1, " ctBuildCompleteTreee duration %2.1f[s]", VfsTimerSeconds(vtTREE));
  return iRet;
}

void TerminateVFS() {
  WRITE_TRACE(1, "+++TerminateVFS");
  s_bTerminate = true;
  for (int32_t i = 0; i < g_iSavesetCount; ++i) {
    if (saveset_close(i) != 0) WRITE_TRACE(1, "Cannot close saveset [%d]", i);
    pf::MutexClose(g_psSavesets[i].hOpMutex);
    g_psSavesets[i].hOpMutex = nullptr;
  }
  DedupLibMutexClose();
  WRITE_TRACE(1, "+++DestroyLISCache");
  unsigned long long removed = LISCacheTerminate();
  VfsEnumReset();
  vfile_tables_clear();
  VmdkReset();
  DumpItemMapsReset();
  WRITE_TRACE(1, "---DestroyLISCache entriesRemoved=%llu", removed);
  WRITE_TRACE(1, "---TerminateVFS");
}
