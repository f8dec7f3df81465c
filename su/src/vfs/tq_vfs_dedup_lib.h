// tq_vfs_dedup_lib.h - the next-generation dedup library, loaded on first use.
//
// The library's path comes from the environment variable TQ_DEDUP_LIB
// (default "libtq_dedup.so", on Windows "tq_dedup.dll", on the library
// search path).  A library that cannot be loaded, or lacks one of its
// functions, ends the process with a message naming it.  Callers hold the dedup library mutex around every call
// (DedupLibLock / DedupLibUnlock).
#ifndef TVU_VFS_DEDUP_LIB_H
#define TVU_VFS_DEDUP_LIB_H

#include "tq_dedup.h"

struct TQ_DEDUP_API {
  PFN_dedup_init_v2 pfnInit;
  PFN_dedup_start_restore pfnStartRestore;
  PFN_dedup_get_object_size pfnGetObjectSize;
  PFN_dedup_read_restore pfnReadRestore;
  PFN_dedup_skip_restore pfnSkipRestore;
  PFN_dedup_rewind_restore pfnRewindRestore;
  PFN_dedup_finish_restore pfnFinishRestore;
  PFN_dedup_get_last_message pfnGetLastMessage;
};

// The library's functions; loads it on the first call.
const TQ_DEDUP_API* DedupLibrary();

// Takes and releases the one mutex that serialises calls into the library.
// A failed wait or release ends the process.
void DedupLibLock();
void DedupLibUnlock();

// The mutex itself: made by InitVFS (0, or non-zero when it cannot be made),
// closed by TerminateVFS; made on first use when the table is used without
// InitVFS.
namespace pf {
struct Mutex;
}
int DedupLibMutexCreate();
void DedupLibMutexClose();
pf::Mutex* VfsDedupLibraryMutex();

#endif
