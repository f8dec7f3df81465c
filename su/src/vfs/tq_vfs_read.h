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

namespace pf {
struct File;
}

// The one entry: dispatches on node->llSource.  context is the narrow name
// handed to the saveset traces.
uint64_t ReadFromVFS(const char* context, LIS_NODE* node, uint64_t fileOffset, char* buffer, uint64_t size);
uint64_t ReadFromSaveset(const char* context, LIS_NODE* node, uint64_t fileOffset, char* buffer, uint64_t size,
                         bool located);
uint64_t ReadFromDUMPSaveset(const char* context, LIS_NODE* node, uint64_t fileOffset, char* buffer, uint64_t size);

// Where a read of a saveset item (kinds 0 and 4) would take its bytes, when
// they are one contiguous range of a saveset file: the file, the position in
// it and the count after the end rules.  Locates the item first as a read
// would.  0 on success; non-zero when the bytes do not lie in a file that way
// (another kind, another medium, a dump chain, or nothing to read), and the
// caller reads through ReadFromVFS instead.
int MapFromSaveset(LIS_NODE* node, uint64_t fileOffset, uint64_t size, pf::File** file, uint64_t* position,
                   uint64_t* count);

#endif
