// tq_vfs_bitmap.h - block-bitmap disk chains: a full raw image (the head)
// with increments laid over it, each a bitmap and the data of its blocks.
//
// An increment's bitmap has one bit per 64 KiB block of the disk: bit 7 of
// byte k stands for block 8k, bit 0 for block 8k + 7.  Its data item holds
// the blocks whose bit is set, in ascending block order, without gaps.  The
// merge makes the head a sliced virtual file: one slice for the whole image
// and one per run of consecutive set blocks, each increment's slices newer
// than everything before it, so the latest increment wins where blocks
// overlap.  Nothing is copied.
//
// One head at a time, module-wide: starting a new head, or finishing the
// rules, converts the open head into a dynamic VHD named after it with
// ".vhd" appended (a head whose name contains ".qcow" stays as it is).
//
// Single-threaded: runs while the mapper rules are read.
#ifndef TVU_VFS_BITMAP_H
#define TVU_VFS_BITMAP_H

#include <cstdint>
#include <string>

#include "vfs/tq_vfs_cache.h"

constexpr uint64_t kBitmapBlockSize = 0x10000;  // disk bytes per bitmap bit

// Makes the whole saveset `ssetIdx` (size bytes) the head of a new merge: a
// sliced-file node `name` appended to `dir`.  A head that is still open is
// converted into `targetDir` first.  0, or -1 when the open head cannot be
// converted (traced).
int bitmap_set_head(LIS_NODE* targetDir, LIS_NODE* dir, const std::wstring& name, int32_t ssetIdx, uint64_t size);

// The whole-saveset node whose bytes are the next increment's blocks.
void bitmap_set_increment(LIS_NODE* data);

// Lays one increment over the head: the bitmap is the node `bitmapFile`
// (read through the tree), its blocks the node given to bitmap_set_increment,
// which is used up by this call.  0; -1 when there is no head or no
// increment data.  A read failure or an exception part way leaves the slices
// added before it (traced).
int bitmap_append_bitmap(const char* context, LIS_NODE* bitmapFile);

// Converts `head` into its VHD in `targetDir`; 0, or -1 when the VHD cannot
// be made.  A head whose name contains ".qcow" is not converted (0).
int bitmap_convert_to_vhd(LIS_NODE* head, LIS_NODE* targetDir);

// Converts the open head, if any, into `targetDir` and closes it; 0 or -1 as
// bitmap_convert_to_vhd.
int bitmap_finalize(LIS_NODE* targetDir);

// The open head's node, or null.
LIS_NODE* bitmap_head();

// Forgets the open head and increment (a new rules file, TerminateVFS).
void bitmap_reset();

#endif
