// tq_vfs_chain.h - what a consolidation and the tree mode both read before
// they start: the product configuration, the meta files folder of the
// saveset to consolidate, its "consolidate.arg", the saveset list and the
// consolidated catalog's type.
//
// Single-threaded: runs before the operation (or the tree) starts.
#ifndef TVU_VFS_CHAIN_H
#define TVU_VFS_CHAIN_H

#include <cstddef>
#include <cstdint>

#include "vfs/tq_vfs_args.h"

// The module-wide consolidation arguments record, and its reset (cleared
// record, catalog path buffer of 32767 characters, the saveset table).
CON_ARGS* ConsolidationArgs();
void ResetConsolidationArgs();

// Reads everything for the saveset `saveset` into the record and the saveset
// table and detects the catalog type; metaDir receives the meta files folder
// (ending in "\").  Returns DB_NUM_I_OK, or DB_NUM_E_FAILED after logging the
// reason at level 1500 (also kept for DB_GetError).  Unrecoverable conditions
// (a malformed saveset line, an unknown catalog type) end the process.
uint32_t LoadChain(const char* saveset, char* metaDir, size_t metaDirSize);

#endif
