// fuzz_cpio_walk.cpp - the CPIO walker over a saveset made of the input: the
// item looked for is named by the input's first line, its record is looked
// for from offset 0.  Whatever it reports must lie inside the saveset.
#include <cstdlib>
#include <string>

#include "archive/cpio_stream.h"
#include "fuzz_util.h"
#include "report/tvu_report.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const size_t nl = text.find('\n');
  const std::string name = nl == std::string::npos ? std::string("d/item") : text.substr(0, nl);
  const size_t start = nl == std::string::npos ? 0 : nl + 1;
  if (name.find('\0') != std::string::npos) return 0;
  const std::string path = tvufuzz::WriteScratch("walk.cpio", data + start, size - start);
  const int32_t idx = tvufuzz::AddFileSaveset(path);
  CPIO_ENTRY_UPDATE u;
  u.iSavesetIdx = idx;
  u.ullSavesetOffset = 0;
  u.sName = name;
  u.llRelOffset = 0;
  u.ullSize = 0;
  try {
    if (UpdateFSEntryFromCPIOSaveset(&u) == 0 && u.bLocated &&
        (u.llRelOffset < 0 || static_cast<uint64_t>(u.llRelOffset) > size - start)) {
      abort();  // data said to start outside the saveset
    }
  } catch (const TvuFatalError&) {
  }
  tvufuzz::ResetSavesets();
  return 0;
}
