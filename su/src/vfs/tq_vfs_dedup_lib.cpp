// tq_vfs_dedup_lib.cpp - loading the next-generation dedup library and the
// mutex around its calls.
#include "vfs/tq_vfs_dedup_lib.h"

#include <cstdio>
#include <mutex>
#include <string>

#include "platform/platform.h"
#include "report/tvu_report.h"
#include "runtime/trace.h"

namespace {

TQ_DEDUP_API g_api;
std::once_flag g_loaded;

[[noreturn]] void LoadFatal(const std::string& message) {
  WRITE_TRACE(1, "%s", message.c_str());
  fprintf(stderr, "ERROR: %s\n", message.c_str());
  tvu_fatal("%s", message.c_str());
}

template <class T>
void Bind(void* lib, const std::string& path, const char* name, T* out) {
  *out = reinterpret_cast<T>(pf::LibrarySymbol(lib, name));
  if (!*out) LoadFatal("Next-generation dedup library [" + path + "] has no function " + name);
}

void Load() {
  std::string path;
  if (!pf::GetEnv("TQ_DEDUP_LIB", &path) || path.empty()) path = pf::LibraryFileName("tq_dedup");
  std::string why;
  void* lib = pf::LibraryOpen(path.c_str(), &why);
  if (!lib) LoadFatal("Cannot load next-generation dedup library [" + path + "]: " + why);
  WRITE_TRACE(1, "Loaded next-generation dedup library [%s]", path.c_str());
  Bind(lib, path, "dedup_init_v2", &g_api.pfnInit);
  Bind(lib, path, "dedup_start_restore", &g_api.pfnStartRestore);
  Bind(lib, path, "dedup_get_object_size", &g_api.pfnGetObjectSize);
  Bind(lib, path, "dedup_read_restore", &g_api.pfnReadRestore);
  Bind(lib, path, "dedup_skip_restore", &g_api.pfnSkipRestore);
  Bind(lib, path, "dedup_rewind_restore", &g_api.pfnRewindRestore);
  Bind(lib, path, "dedup_finish_restore", &g_api.pfnFinishRestore);
  Bind(lib, path, "dedup_get_last_message", &g_api.pfnGetLastMessage);
  // The library stays loaded for the life of the process: it may keep
  // threads and connections of its own.
}

}  // namespace

static pf::Mutex* s_hDedupLibMutex = nullptr;

int DedupLibMutexCreate() { return s_hDedupLibMutex ? 0 : pf::MutexCreate(&s_hDedupLibMutex); }

void DedupLibMutexClose() {
  pf::MutexClose(s_hDedupLibMutex);
  s_hDedupLibMutex = nullptr;
}

pf::Mutex* VfsDedupLibraryMutex() {
  if (!s_hDedupLibMutex) pf::MutexCreate(&s_hDedupLibMutex);
  return s_hDedupLibMutex;
}

const TQ_DEDUP_API* DedupLibrary() {
  std::call_once(g_loaded, Load);
  return &g_api;
}

void DedupLibLock() {
  int err = pf::MutexLock(VfsDedupLibraryMutex());
  if (err != 0) {
    WRITE_TRACE(1, "mutex_lock mutex state invalid = %d GetLastError() = %d", -1, err);
    tvu_fatal("Internal error: mutex state invalid");
  }
}

void DedupLibUnlock() {
  int err = pf::MutexUnlock(VfsDedupLibraryMutex());
  if (err != 0) {
    WRITE_TRACE(1, "mutex_unlock mutex release failed GetLastError() = %d", err);
    tvu_fatal("Internal error: mutex release");
  }
}
