// tq_vfs_vmdk.h - VMDK disks saved with changed-block tracking, rebuilt as
// sliced virtual files under "/R/VMDK".
//
// A disk arrives as one full-disk catalog line (type 'R', size = disk size)
// and, in each saveset, changed-block files that hold one range of the disk
// each, named "<disk file name>@<offset>-<length>.<extension>" (offset and
// length in bytes, decimal).  The rebuild starts from zeros (a zero-source
// saveset of the disk's size, dated by the full-disk line) and adds one slice
// per changed-block file, dated by its catalog time, so the newest data wins.
//
// Single-threaded: runs during VFS initialisation.
#ifndef TVU_VFS_VMDK_H
#define TVU_VFS_VMDK_H

#include <cstdint>

struct CON_ARGS;

// Offset and size of a changed-block file from its name; false when the name
// is no changed-block file name.
bool extractVMDK_CBT_params(const wchar_t* name, uint64_t* offset, uint64_t* size);

// Reads the catalog and builds the VMDK table; 0, or non-zero when the
// catalog cannot be read.  A changed-block file that cannot be located in its
// stream ends the process.
int localfs_catalog_parse_VMDK(const CON_ARGS* args, const char* catalogPath);

// Tree mode: runs the catalog pass once and puts the rebuilt disks under
// "/R/VMDK"; 0, or -1 on failure.
int initializeVMDK_FS();

// Forgets that the VMDK file system was initialised (TerminateVFS).
void VmdkReset();

#endif
