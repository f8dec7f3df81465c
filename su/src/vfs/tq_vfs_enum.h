// tq_vfs_enum.h - directory enumeration of the virtual file system and the
// complete tree build, both filled from the consolidated catalog.
//
// Thread safety: both take the tree cache's critical section for the whole of
// a fill; they may be called from several threads (the FUSE mount does).
#ifndef TVU_VFS_ENUM_H
#define TVU_VFS_ENUM_H

#include <cstdint>
#include <vector>

#include "vfs/tq_vfs_cache.h"
#include "vfs/tq_vfs_init.h"

// Lists the entries of one directory.  searchPath is a narrow path with
// backslashes ("\" for the root, "\demo\sub" below it).  On a miss the
// directory is filled from the consolidated catalog and its entries are
// completed from their saveset streams.  result receives the children
// (pointers into the tree, valid until TerminateVFS).
int32_t GetSavesetEntries(const char* searchPath, bool folderSearch, bool exactItem,
                          std::vector<LIS_NODE*>* result);

// Enumerates the whole tree below searchPath; returns the number of catalog
// lines processed.
uint64_t BuildCompleteTree(const char* searchPath);

// File nodes of the complete build, indexed by fileId - 1.
const std::vector<LIS_NODE*>& VfsFileTable();
// Appends a file node made outside the complete build to the file table and
// gives it the next fileId; a node that has one already keeps it.  Returns
// the node's fileId.
uint64_t VfsFileTableAppend(LIS_NODE* node);

// Completes a node from its saveset stream by the saveset data type (CPIO:
// relative data offset and size; dump: the item's block map, relative offset
// 0 and di_size as size).  0 when located.
int VfsUpdateEntryFromSaveset(LIS_NODE* node, const char* narrowPath);

// Forgets the file table (TerminateVFS).
void VfsEnumReset();

#endif
