// cpio_stream.h - locating an item's data in the CPIO-derived item stream of
// a saveset.
//
// A tree entry knows only where its item's record begins in its saveset; the
// walker reads the stream from there, finds the record of the item and
// reports where its data starts (relative to the record) and how long it is.
// Only the first 64 KiB after the entry's offset are examined.
#ifndef TVU_ARCHIVE_CPIO_STREAM_H
#define TVU_ARCHIVE_CPIO_STREAM_H

#include <cstdint>
#include <string>

// What the walker needs of a tree entry, and what it fills in.
struct CPIO_ENTRY_UPDATE {
  int32_t iSavesetIdx;         // in: saveset index
  uint64_t ullSavesetOffset;   // in: where the item's record starts in the saveset
  std::string sName;           // in: the item's name as its record holds it
  std::wstring wsName;         // in: the same, wide (for traces)
  int64_t llRelOffset;         // out: where the data starts, relative to the record
  uint64_t ullSize;            // out: size of the data
  int64_t llStreamTime = -1;   // out: the record's time stamp; -1 when not located
  bool bLocated = false;       // out: the item's record was met (an empty file's too)
};

// 0 when the item was located (or is an empty file, or is not in the first
// 64 KiB, which gives size 0); 1 when the saveset could not be read or
// positioned.  Compressed or encrypted savesets end the process.
int UpdateFSEntryFromCPIOSaveset(CPIO_ENTRY_UPDATE* entry);

// The archive module's callback: operation 1 compares name with the name
// looked for (10: it matches); 48 seeks forward and 49 backward by bytes from
// the current position (0 on success, 1 on failure); anything else returns 2.
int PDS_CallingtModule(int operation, const char* name, int64_t bytes, int32_t iSavesetIdx);

#endif
