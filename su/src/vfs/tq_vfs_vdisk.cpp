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
