// fuzz_consolidate.cpp - a whole consolidation through the entry points over
// a fuzzed consolidated catalog: two CPIO savesets of fixed content, the
// catalog is the input.  Every block delivered must lie inside the caller's
// buffer, and the stream must end within a bounded number of calls.
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz_util.h"
#include "report/tvu_report.h"
#include "tvu_con.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tvufuzz::SetSmallChainCatalog(data, size);
  std::string var = "DATABASE=CON:CON";
  char* vars[] = {&var[0], nullptr};
  DB_OPERATION op{"CON"};
  static std::vector<char> block(4096);
  try {
    if (DB_InitOperation(DB_TYPE_BCK, 0, vars, &op) == DB_NUM_I_OK) {
      for (int calls = 0; calls < 100000; ++calls) {
        uint32_t len = static_cast<uint32_t>(block.size());
        const uint32_t rc = DB_ReadBlock(block.data(), &len, nullptr, nullptr);
        if (len > block.size()) abort();
        if (rc != DB_NUM_I_OK) break;
      }
    }
  } catch (const TvuFatalError&) {
  }
  DB_CloseOperation();
  return 0;
}
