// tq_vfs_read.h - reading a tree node's bytes, by the node's source kind.
//
// Every path reads at most the requested count, never past the item's end,
// and returns the number of bytes placed in the buffer; 0 means nothing was
// read (end of data or an error, which is traced).  Safe to call from several
// threads: saveset reads hold the saveset's operation mutex across their seek
// and read; locating an item in its stream holds the tree cache's lock.
#ifndef TVU_VFS_READ_H
#define TVU_VFS_READ_H

#include <cstdint>

#include "vfs/tq_vfs_cache.h"

// The one entry: dispatches on node->llSource.  context is the narrow name
// handed to the saveset traces.
uint64_t ReadFromVFS(const char* context, LIS_NODE* node, uint64_t fileOffset, char* buffer, uint64_t size);
uint64_t ReadFromSaveset(const char* context, LIS_NODE* node, uint64_t fileOffset, char* buffer, uint64_t size,
                         bool located);
uint64_t ReadFromDUMPSaveset(const char* context, LIS_NODE* node, uint64_t fileOffset, char* buffer, uint64_t size);

#endif
