// tq_vfs_vdisk.h - the catalog pass that finds virtual disks.
#ifndef TVU_VFS_VDISK_H
#define TVU_VFS_VDISK_H

struct CON_ARGS;

// Scans the consolidated catalog for the files that make up virtual disks
// (VMDK changed-block files) so that they can be rebuilt.  Returns 0 on
// success.  Skipped when gVOPTIONS.iNo_vmdk_search is set.
int VdiskParseCatalog(const CON_ARGS* args, const char* catalogPath);

#endif
