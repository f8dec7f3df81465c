// tq_vfs_vdisk.cpp - the catalog pass for virtual disks.
//
// TODO: VMDK disks saved with changed-block tracking are rebuilt from their
// changed-block files here; until that reader exists the pass finds no disk,
// which leaves the consolidation stream untouched (it never depends on it).
#include "vfs/tq_vfs_vdisk.h"

#include "runtime/trace.h"
#include "vfs/tq_vfs_common.h"

int VdiskParseCatalog(const CON_ARGS* /*args*/, const char* catalogPath) {
  if (gVOPTIONS.iNo_vmdk_search) {
    WRITE_TRACE(1, "VMDK search disabled; catalog [%s] not scanned for virtual disks", catalogPath);
    return 0;
  }
  WRITE_TRACE(1, "Virtual disk catalog pass over [%s]: no virtual disk sources in this build", catalogPath);
  return 0;
}

// TODO: VMDK disks appear under "/R/VMDK" and mapper rules place files under
// "/R/MAPPER" once the virtual files exist; until then the tree holds the
// catalog's items only.
int VdiskInitVmdkAndMapper(const CON_ARGS* /*args*/) {
  if (gVOPTIONS.iNo_vmdk_search) WRITE_TRACE(1, "VMDK search disabled");
  WRITE_TRACE(1, "No VMDK file system or mapper rules in this build");
  return 0;
}

// TODO: RCT records and sector-bitmap merges of Hyper-V disks.
int VdiskInitRctSources() {
  WRITE_TRACE(1, "No RCT sources in this build");
  return 0;
}
