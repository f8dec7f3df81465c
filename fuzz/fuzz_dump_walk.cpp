// fuzz_dump_walk.cpp - the dump item walk and its block map over a saveset
// made of the input, and the volume check of its first record.
#include <cstring>
#include <string>

#include "archive/dump_stream.h"
#include "fuzz_util.h"
#include "report/tvu_report.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 8) return 0;
  int64_t inode = 0;
  memcpy(&inode, data, 4);  // the first four bytes: the inode looked for
  const std::string path = tvufuzz::WriteScratch("walk.dump", data + 4, size - 4);
  const int32_t idx = tvufuzz::AddFileSaveset(path);
  DUMP_ENTRY_UPDATE u;
  u.iSavesetIdx = idx;
  u.ullSavesetOffset = 0;
  u.llInode = inode;
  try {
    UpdateFSEntryFromDUMPSaveset(&u);
    if (size - 4 >= 1024) DumpCheckVolume(data + 4);
  } catch (const TvuFatalError&) {
  }
  DumpItemMapsReset();
  tvufuzz::ResetSavesets();
  return 0;
}
