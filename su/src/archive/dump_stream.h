// dump_stream.h - locating an item's data in the UFS dump stream of a saveset,
// and the block map that reads it.
//
// A dump item's catalog line gives the saveset offset of its inode header and
// its inode number.  The walk reads the item's headers from there (its inode
// header, then the address continuation headers of the same inode) and builds
// the item's block map: for each 1 KiB block of the file, the record of the
// stream that holds it, or a hole.  Headers and records of other items are
// never read.  The maps stay until DumpItemMapsReset (TerminateVFS).
//
// Thread safety: the block map store is internally synchronised; a map, once
// stored, is never changed, and a reader keeps it alive through its shared
// pointer.  UpdateFSEntryFromDUMPSaveset holds the saveset's operation mutex
// for its walk.
#ifndef TVU_ARCHIVE_DUMP_STREAM_H
#define TVU_ARCHIVE_DUMP_STREAM_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// A run of file blocks that lie one after the other in the stream (or are
// all holes).
struct DUMP_RUN {
  uint64_t ullFirstBlock;    // first file block (1 KiB units)
  uint64_t ullRecordOffset;  // stream offset of its record, from the item's header; kDumpHole
  uint64_t ullBlocks;        // number of blocks, at least 1
};
constexpr uint64_t kDumpHole = ~0ull;

// The block map of one located item.
struct DUMP_ITEM_MAP {
  uint32_t uiInode = 0;
  uint64_t ullSize = 0;   // di_size
  uint64_t ullSpan = 0;   // header to the end of the item's last record
  uint64_t ullBlocks = 0; // blocks the headers describe
  std::vector<DUMP_RUN> vRuns;  // ordered, without gaps, from block 0

  // The run that holds block, or null when the headers do not reach it.
  const DUMP_RUN* Find(uint64_t block) const;
};

// State of one item's walk over its headers.
struct DUMP_WALK {
  uint32_t uiInode = 0;       // the inode looked for
  bool bStarted = false;      // its inode header was met
  bool bAnalysed = false;     // a header was analysed (ullLastRecord is set)
  uint64_t ullLastRecord = 0; // offset of the last header analysed
  uint64_t ullWanted = 0;     // blocks of the file: ceil(di_size / 1024)
  DUMP_ITEM_MAP map;

  // The headers describe every block of the file.
  bool Complete() const { return bStarted && map.ullBlocks >= ullWanted; }
};

// Classifies the header record found at recordOffset (stream offset from the
// item's inode header) and adds its blocks to the walk's map.  Returns the
// records the header occupies in the stream, itself included (1 + its data
// records); 0 for a record at or before one already analysed (a repeat: the
// walk must not go round); -1 for a record that is no valid header, a header
// of another type or of another inode (the item's headers end there).
int analyzeUFSblock(DUMP_WALK* walk, uint64_t recordOffset, const uint8_t* record);

// What the walk needs of a tree entry, and what it fills in.
struct DUMP_ENTRY_UPDATE {
  int32_t iSavesetIdx = -1;
  uint64_t ullSavesetOffset = 0;  // in: the item's inode header
  int64_t llInode = 0;            // in: the item's inode number
  std::wstring wsName;            // in: for traces
  int64_t llRelOffset = -1;       // out: 0 when located, else -1
  uint64_t ullSize = 0;           // out: di_size
};

// 0 when the item was located (its map is stored); 1 when its inode header is
// not at its offset or the saveset cannot be positioned.  An item located
// before is answered from its stored map.
int UpdateFSEntryFromDUMPSaveset(DUMP_ENTRY_UPDATE* entry);

// The stored map of the item whose inode header is at headerOffset in the
// saveset, or null.
std::shared_ptr<const DUMP_ITEM_MAP> DumpItemMapGet(int32_t iSavesetIdx, uint64_t headerOffset);
// Drops every stored map.
void DumpItemMapsReset();

// Checks the first record of a saveset: 0 a dump volume the module reads,
// -1 no dump header, 1 a compressed volume (dump -z).
int DumpCheckVolume(const uint8_t* firstRecord);

#endif  // TVU_ARCHIVE_DUMP_STREAM_H
