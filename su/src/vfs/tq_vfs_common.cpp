// tq_vfs_common.cpp - allocation wrappers and the options of the virtual file system.
#include "vfs/tq_vfs_common.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "report/tvu_report.h"

VFS_OPTIONS gVOPTIONS;

// Out of memory is never returned to a caller: the process cannot go on with
// a stream in an unknown state.
void* safe_malloc_at(size_t bytes, const char* file, unsigned long line) {
  void* p = malloc(bytes ? bytes : 1);
  if (!p) {
    fprintf(stderr, "[%s:%lu]Out of memory safe_malloc(%lu bytes)\n", file, line, static_cast<unsigned long>(bytes));
    tvu_fatal("[%s:%lu]Out of memory safe_malloc(%lu bytes)\n", file, line, static_cast<unsigned long>(bytes));
  }
  return p;
}

char* safe_strdup_at(const char* s, const char* file, unsigned long line) {
  char* p = strdup(s);
  if (!p) {
    unsigned long n = static_cast<unsigned long>(strlen(s));
    fprintf(stderr, "[%s:%lu]Out of memory safe_strdup strlen %lu\n", file, line, n);
    tvu_fatal("[%s:%lu]Out of memory safe_strdup strlen %lu\n", file, line, n);
  }
  return p;
}

wchar_t* safe_wstrdup_at(const wchar_t* s, const char* file, unsigned long line) {
  size_t n = wcslen(s);
  auto* p = static_cast<wchar_t*>(malloc((n + 1) * sizeof(wchar_t)));
  if (!p) {
    fprintf(stderr, "[%s:%lu]Out of memory safe_wstrdup wcslen %lu\n", file, line, static_cast<unsigned long>(n));
    tvu_fatal("[%s:%lu]Out of memory safe_wstrdup wcslen %lu\n", file, line, static_cast<unsigned long>(n));
  }
  wmemcpy(p, s, n + 1);
  return p;
}

void tvu_out_of_memory(size_t bytes, const char* file, unsigned long line) {
  fprintf(stderr, "[%s:%lu]Out of memory safe_malloc(%lu bytes)\n", file, line, static_cast<unsigned long>(bytes));
  tvu_fatal("[%s:%lu]Out of memory safe_malloc(%lu bytes)\n", file, line, static_cast<unsigned long>(bytes));
}
