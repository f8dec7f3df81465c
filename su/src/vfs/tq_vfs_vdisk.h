// tq_vfs_vdisk.h - the catalog pass that finds virtual disks.
#ifndef TVU_VFS_VDISK_H
#define TVU_VFS_VDISK_H

struct CON_ARGS;

// Scans the consolidated catalog for the files that make up virtual disks
// (VMDK changed-block files) so that they can be rebuilt.  Returns 0 on
// success.  Skipped when gVOPTIONS.iNo_vmdk_search is set.
int VdiskParseCatalog(const CON_ARGS* args, const char* catalogPath);

// Tree mode: the VMDK file system and then the mapper rules (mapper flag
// clear); returns the mapper's result.
int VdiskInitVmdkAndMapper(const CON_ARGS* args);
// Tree mode with the mapper flag set: the Hyper-V RCT sources.
int VdiskInitRctSources();

#endif
