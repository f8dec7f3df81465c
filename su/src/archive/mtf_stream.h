// mtf_stream.h - locating an item's data in an MTF saveset (a Microsoft Tape
// Format data set).
//
// A catalog line of an MTF saveset gives the offset of the item's FILE
// descriptor block.  The walk reads the block there, checks it (type, header
// checksum, its name against the item's), and goes from stream to stream
// (stream headers on 4-byte boundaries, their checksums, data lengths inside
// the saveset) until it meets the file's standard data stream (STAN): its
// data is the item's data.  Security, checksum and other streams are passed
// over; a pad stream (SPAD) or the next descriptor block ends the file's
// streams, and a file without a data stream is an empty file.  Sparse,
// compressed, encrypted, variable-length and continued data streams are
// reported as not supported and never read as data.
//
// Thread safety: MtfWalkFileBlock keeps its state on the stack.
// UpdateFSEntryFromMTFSaveset holds the saveset's operation mutex for its walk.
#ifndef TVU_ARCHIVE_MTF_STREAM_H
#define TVU_ARCHIVE_MTF_STREAM_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

// Reads up to n bytes at pos into buf: the bytes read (fewer only at the end
// of the saveset), or -1 when the saveset cannot be read there.
using MtfReadAt = std::function<int64_t(uint64_t pos, uint8_t* buf, size_t n)>;

enum MTF_WALK_RESULT {
  mwFOUND = 0,      // the standard data stream was met
  mwEMPTY = 1,      // the file's streams end without one: an empty file
  mwNOT_FILE = 2,   // no FILE block of the item at the offset (type, checksum or name)
  mwDAMAGED = 3,    // a stream header or length that cannot be right
  mwTRUNCATED = 4,  // the saveset ends inside the block or its streams
  mwUNSUPPORTED = 5,  // sparse, compressed, encrypted or variable-length data
  mwREAD_ERROR = 6,
};

// What the walk found of one FILE block.
struct MTF_ITEM {
  uint64_t ullDataOffset = 0;  // found: the data's offset from the block's start
  uint64_t ullSize = 0;        // found: the data's length
  int64_t llModified = -1;     // the block's modification date (seconds since 1970, UTC), -1 if none
  uint32_t uiAttributes = 0;   // the FILE attributes
  std::wstring wsName;         // the block's file name
  unsigned uiStreams = 0;      // stream headers walked
  unsigned uiReads = 0;        // reads of the saveset
};

// Walks the FILE block at blockOffset of a saveset of savesetSize bytes
// (UINT64_MAX: unknown).  expectedName, when not empty, must be the block's
// file name (colons in either are not compared).  Returns an MTF_WALK_RESULT;
// *why says what was wrong for every result but mwFOUND and mwEMPTY.
int MtfWalkFileBlock(const MtfReadAt& readAt, uint64_t blockOffset, uint64_t savesetSize,
                     const std::wstring& expectedName, MTF_ITEM* item, std::string* why);

// What the entry update needs of a tree node or catalog line, and what it
// fills in.
struct MTF_ENTRY_UPDATE {
  int32_t iSavesetIdx = -1;
  uint64_t ullSavesetOffset = 0;  // in: the item's FILE descriptor block
  std::wstring wsName;            // in: the item's base name (empty: not compared)
  int64_t llRelOffset = 0;        // out: the data's offset from the block (>= 1 once located)
  uint64_t ullSize = 0;           // out: the data's length
  int64_t llStreamTime = -1;      // out: the block's modification date, -1 when not located
  bool bLocated = false;          // out
};

// 0 when the item's data stream was found (an empty file too: size 0);
// non-zero when it was not, after saying why in the trace, the log and the
// notes.  context names the caller's saveset for the messages (may be null).
int UpdateFSEntryFromMTFSaveset(MTF_ENTRY_UPDATE* entry, const char* context);

#endif  // TVU_ARCHIVE_MTF_STREAM_H
