// fuzz_cbt_name.cpp - changed-block file names: a name either gives a range
// that fits a 64-bit signed offset, or none.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "runtime/text.h"
#include "vfs/tq_vfs_vmdk.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::wstring name;
  if (!korvo::mbstowcsl(reinterpret_cast<const char*>(data), size, ".UTF-8,,ISO-8859", &name)) return 0;
  uint64_t offset = 0, length = 0;
  if (extractVMDK_CBT_params(name.c_str(), &offset, &length)) {
    if (offset > static_cast<uint64_t>(INT64_MAX) || length > static_cast<uint64_t>(INT64_MAX) - offset) abort();
  }
  return 0;
}
