// tq_dedup_overlong.cpp - a next-generation dedup library that reports more
// bytes than it delivers: every call forwards to the reference library
// (libtq_dedup.so, whose path is built in), and dedup_read_restore, when it
// filled the whole request, claims kSurplus bytes more.  The buffer is only
// ever written up to the requested size, so a module that cuts the count to
// its request still gets the whole stream right.
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

#include "tq_dedup.h"

namespace {

constexpr int64_t kSurplus = 7;

void* Real(const char* name) {
  static void* lib = dlopen(TVU_REAL_DEDUP_LIB, RTLD_NOW | RTLD_LOCAL);
  void* f = lib ? dlsym(lib, name) : nullptr;
  if (!f) {
    fprintf(stderr, "tq_dedup_overlong: cannot use %s from %s: %s\n", name, TVU_REAL_DEDUP_LIB, dlerror());
    abort();
  }
  return f;
}

template <class F>
F Fn(const char* name) {
  return reinterpret_cast<F>(Real(name));
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int32_t dedup_init_v2(const char* host, int32_t port, const char* httpType,
                                                             TQ_DEDUP_LOG_FN log) {
  return Fn<PFN_dedup_init_v2>("dedup_init_v2")(host, port, httpType, log);
}

__attribute__((visibility("default"))) int32_t dedup_start_restore(int32_t handle, const char* name) {
  return Fn<PFN_dedup_start_restore>("dedup_start_restore")(handle, name);
}

__attribute__((visibility("default"))) int64_t dedup_get_object_size(int32_t handle, const char* name) {
  return Fn<PFN_dedup_get_object_size>("dedup_get_object_size")(handle, name);
}

__attribute__((visibility("default"))) int64_t dedup_read_restore(int32_t handle, char* buffer, int64_t size) {
  int64_t got = Fn<PFN_dedup_read_restore>("dedup_read_restore")(handle, buffer, size);
  return got == size ? got + kSurplus : got;
}

__attribute__((visibility("default"))) int32_t dedup_skip_restore(int32_t handle, int64_t bytes) {
  return Fn<PFN_dedup_skip_restore>("dedup_skip_restore")(handle, bytes);
}

__attribute__((visibility("default"))) int32_t dedup_rewind_restore(int32_t handle) {
  return Fn<PFN_dedup_rewind_restore>("dedup_rewind_restore")(handle);
}

__attribute__((visibility("default"))) int32_t dedup_finish_restore(int32_t handle) {
  return Fn<PFN_dedup_finish_restore>("dedup_finish_restore")(handle);
}

__attribute__((visibility("default"))) const char* dedup_get_last_message(void) {
  return Fn<PFN_dedup_get_last_message>("dedup_get_last_message")();
}

}  // extern "C"
