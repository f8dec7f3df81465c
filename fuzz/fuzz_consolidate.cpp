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

namespace {

std::string Record(const std::string& name, const std::string& data) {
  char head[111];
  const std::string n = name + '\0';
  snprintf(head, sizeof head, "070701%08X%08X%08X%08X%08X%08X%08zX%08X%08X%08X%08X%08zX%08X", 1u, 0100644u, 0u, 0u,
           1u, 0u, data.size(), 0u, 0u, 0u, 0u, n.size(), 0u);
  std::string r = std::string(head, 110) + n;
  while (r.size() % 4) r += '\0';
  r += data;
  while (r.size() % 4) r += '\0';
  return r;
}

std::string s_meta;

void SetUpChain() {
  const std::string& dir = tvufuzz::ScratchDir();
  s_meta = dir + "/tqslis/CON_mnt/";
  const std::string mk = "mkdir -p '" + s_meta + "'";
  if (system(mk.c_str()) != 0) abort();
  const std::string full = Record("d", "") + Record("d/a.txt", "hello") + Record("d/b.bin", std::string(3000, 'b'));
  const std::string incr = Record("d/a.txt", "hello again") + Record("vm/x.vmdk@0-512.cbt", std::string(512, 'v'));
  const std::string f = tvufuzz::WriteScratch("SF20261101020000.cpio", reinterpret_cast<const uint8_t*>(full.data()),
                                              full.size());
  const std::string i = tvufuzz::WriteScratch("SI20261102020000.cpio", reinterpret_cast<const uint8_t*>(incr.data()),
                                              incr.size());
  const std::string ini = "[pathes]\ngv_rw_tqslis=" + dir + "/tqslis/\n";
  setenv("TQ_INI", tvufuzz::WriteScratch("tq.ini", reinterpret_cast<const uint8_t*>(ini.data()), ini.size()).c_str(),
         1);
  const std::string list = f + "\n" + i + "\n";
  const std::string args = "-f\n" + s_meta + "list.txt\n-l\n" + s_meta + "CON.lsl\n-t\ncpio\n";
  tvufuzz::WriteScratch("tqslis/CON_mnt/list.txt", reinterpret_cast<const uint8_t*>(list.data()), list.size());
  tvufuzz::WriteScratch("tqslis/CON_mnt/consolidate.arg", reinterpret_cast<const uint8_t*>(args.data()), args.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool once = (SetUpChain(), true);
  (void)once;
  tvufuzz::WriteScratch("tqslis/CON_mnt/CON.lsl", data, size);
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
