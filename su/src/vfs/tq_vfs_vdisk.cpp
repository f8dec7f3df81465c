// tq_vfs_vdisk.cpp - the virtual disk sources of the virtual file system.
#include "vfs/tq_vfs_vdisk.h"

#include "runtime/trace.h"
#include "vfs/tq_vfs_chain.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_mapper.h"
#include "vfs/tq_vfs_rct.h"
#include "vfs/tq_vfs_vmdk.h"

int VdiskParseCatalog(const CON_ARGS* args, const char* catalogPath) {
  if (gVOPTIONS.iNo_vmdk_search) {
    WRITE_TRACE(1, "VMDK search disabled; catalog [%s] not scanned for virtual disks", catalogPath);
    return 0;
  }
  return localfs_catalog_parse_VMDK(args, catalogPath);
}

int VdiskInitVmdkAndMapper(const CON_ARGS* args) {
  if (gVOPTIONS.iNo_vmdk_search)
    WRITE_TRACE(1, "VMDK search disabled");
  else if (initializeVMDK_FS() != 0)
    WRITE_TRACE(1, "VMDK file system could not be initialised");
  return initializeMAPPER_FS(args);
}

int VdiskInitRctSources() { return init_vhdx_rct(ConsolidationArgs()); }
