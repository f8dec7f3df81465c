// tq_vfs_saveset.h - the saveset table: every saveset of the chain, reached
// by its 0-based index through seven operations.
//
// The table hides where a saveset lives (media type): 1 zero source, 2 file,
// 3 Vk4 dedup store, 4 Vk4NG dedup store.  Each media type has its own set of
// operations (tq_vfs_media_*.cpp); the saveset_* functions check the index once
// and dispatch.  A failure that would leave a stream in an unknown state ends
// the process (tvu_fatal).
//
// Thread safety: the table is filled before the operation starts.  Callers
// hold the saveset's operation mutex around every seek-then-read on one
// saveset (saveset_operation_mutex_lock/unlock).
#ifndef TVU_VFS_SAVESET_H
#define TVU_VFS_SAVESET_H

#include <cstdint>

namespace pf {
struct File;
struct Mutex;
}  // namespace pf

enum SAVESET_MEDIA : uint32_t { smZERO = 1, smFILE = 2, smVK4 = 3, smVK4NG = 4 };

struct SAVESET {
  uint32_t uiMediaType;   // SAVESET_MEDIA
  char* szName;           // file: path with "\" separators; dedup: object name (owned)
  pf::File* hFile;        // file media only; null when not open
  uint8_t ucFlags;        // bit 0: end of file seen (file media)
  pf::Mutex* hOpMutex;    // per-saveset operation mutex
  char* szDedupHost;      // dedup media: server host (owned)
  char szHttpType[12];    // dedup media: transfer type text, only logged
  uint32_t uiDedupPort;   // dedup media: server port
  int32_t iDedupHandle;   // dedup media: handle of connect/initialise; -1 after close
  uint32_t uiOpen;        // 1 while open
  int64_t llPosition;     // stream position for media 1, 3, 4
  int64_t llSize;         // saveset size for media 1, 3, 4
  struct SAVESET_READAHEAD* pReadAhead;  // file media: read-ahead buffer (owned), null when none
};

constexpr uint8_t SAVESET_FLAG_EOF = 0x01;

// The table (module-wide).
extern SAVESET* g_psSavesets;
extern int32_t g_iSavesetCount;

// Appends a copy of entry (the table takes ownership of its strings) and
// returns its index.
int32_t saveset_append(const SAVESET& entry);
// Closes nothing; frees every entry's strings and the table itself.
void saveset_table_free();
// Read-ahead of file savesets, in bytes (0: none, the start).  With it, a
// read shorter than the buffer is served from one buffer per saveset, filled
// by one positional read at the position asked for; longer reads go straight
// to the file.  Meant for reads at rising offsets (the consolidation's runs),
// not for the tree's random reads.  Dedup savesets are not affected.
void saveset_set_readahead(uint32_t bytes);
uint32_t saveset_get_readahead();

// Changes whenever an entry is added or the table is freed: what was looked
// up in the table is valid while the generation stays the same.
uint64_t saveset_table_generation();

// Creates the entry's operation mutex (media type 1 entries get it at append).
int saveset_init(int32_t iSavesetIdx);

int saveset_open(int32_t iSavesetIdx);
int saveset_close(int32_t iSavesetIdx);
// Always 0; *piBytesRead is what was read; bit 0 of *pucEof is set at end.
int saveset_read(int32_t iSavesetIdx, void* pBuffer, uint64_t iBufSize, uint64_t* piBytesRead, uint8_t* pucEof);
int saveset_seek(int32_t iSavesetIdx, int64_t iOffset);
int saveset_feof(int32_t iSavesetIdx);
int saveset_size(int32_t iSavesetIdx, uint64_t* pSize);
int saveset_ftello(int32_t iSavesetIdx, uint64_t* pPosition);
// Index of the first entry whose name's base name matches "<name>.*", or -1.
int32_t saveset_find_by_name(const char* name);

int saveset_operation_mutex_create(int32_t iSavesetIdx);
void saveset_operation_mutex_lock(int32_t iSavesetIdx);
void saveset_operation_mutex_unlock(int32_t iSavesetIdx);

#endif
