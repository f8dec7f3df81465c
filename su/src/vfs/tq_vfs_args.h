// tq_vfs_args.h - the consolidation arguments ("consolidate.arg") and the
// saveset list that fills the saveset table.
//
// Single-threaded: read by DB_InitOperation before the operation starts.
#ifndef TVU_VFS_ARGS_H
#define TVU_VFS_ARGS_H

#include <cstdint>
#include <string>

#include "vfs/tq_vfs_saveset.h"

constexpr uint32_t CON_CATALOG_PATH_CAP = 32767;   // characters
constexpr uint32_t CON_LIST_PATH_CAP = 32767;      // characters
constexpr uint32_t CON_ROOT_PATH_CAP = 65536;      // bytes

struct CON_ARGS {
  char szSavesetList[CON_LIST_PATH_CAP + 1];  // "-f": saveset list file
  int32_t bSavesetList;
  char* pszCatalogPath;                       // "-l": consolidated catalog (points at a caller buffer)
  uint32_t uiCatalogPathCap;                  // its capacity in characters
  int32_t bCatalogPath;
  char szRootPath[CON_ROOT_PATH_CAP];         // "-r": stored, not used further
  int32_t bRootPath;
  int32_t iSavesetType;                       // "-t": SAVESET_DATA_TYPE
  int32_t bSavesetType;
  int32_t* piSavesetCount;                    // the saveset table
  SAVESET** ppSavesets;
};

// Reads "<metaDir>consolidate.arg" into args.  Returns 0 (also for an empty
// file) or 1 when the file cannot be opened, after logging
// "Cannot read from [<path>]" at level 1500.
int ReadConsolidateArgs(CON_ARGS* args, const char* metaDir);

// Appends the saveset that one saveset-list line names to the table.  Lines
// with "vk4:" or "vk4ng:" name dedup savesets ("vk4:NAME:HOST:PORT"); any
// other line is a saveset file's path.  A malformed line ends the process.
void ReadSavesetLine(int32_t iIndex, const char* line);

// The transfer type of the dedup store behind `port` from its INI file under
// "gv_rw_ini:xfpd_conf/"; "hyper" when it cannot be read.  out has 10 bytes.
void ReadTransferType(uint32_t port, char* out);

#endif
