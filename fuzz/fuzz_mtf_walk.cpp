// fuzz_mtf_walk.cpp - the MTF walk over a FILE block and its streams, through
// the entry update on a saveset made of the input.  The first four bytes give
// the block's offset (little endian, taken modulo the saveset's size + 1).
#include <cstring>
#include <string>

#include "archive/mtf_stream.h"
#include "fuzz_util.h"
#include "report/tvu_report.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4) return 0;
  uint32_t offset = 0;
  memcpy(&offset, data, 4);
  const std::string path = tvufuzz::WriteScratch("walk.mtf", data + 4, size - 4);
  const int32_t idx = tvufuzz::AddFileSaveset(path);
  MTF_ENTRY_UPDATE u;
  u.iSavesetIdx = idx;
  u.ullSavesetOffset = offset % (size - 4 + 1);
  try {
    UpdateFSEntryFromMTFSaveset(&u, "fuzz");
    if (u.bLocated && u.ullSavesetOffset + static_cast<uint64_t>(u.llRelOffset) + u.ullSize > size - 4) __builtin_trap();
  } catch (const TvuFatalError&) {
  }
  tvufuzz::ResetSavesets();
  return 0;
}
