// DB_ReadBlock in the process: the module's own cost of serving a generated
// chain (catalog parsing, runs, seeks and reads), without a client's writes.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tvu_con.h"

namespace {

// A chain made once per process by the mkchain tool of the build.
const std::string& ChainDir() {
  static std::string dir = [] {
    char tmpl[] = "/tmp/tvu_readblock_bench_XXXXXX";
    std::string d = mkdtemp(tmpl);
    std::string cmd = std::string(TVU_BINARY_DIR) + "/mkchain --out " + d +
                      "/chain --files 2000 --total-bytes 134217728 --no-final --no-expected >/dev/null";
    if (system(cmd.c_str()) != 0) abort();
    return d + "/chain";
  }();
  return dir;
}

std::string ChainValue(const std::string& key) {
  FILE* f = fopen((ChainDir() + "/chain.txt").c_str(), "r");
  char line[4096];
  std::string value;
  while (f && fgets(line, sizeof line, f)) {
    std::string s(line);
    if (s.rfind(key + "=", 0) == 0) value = s.substr(key.size() + 1, s.find('\n') - key.size() - 1);
  }
  if (f) fclose(f);
  return value;
}

void BM_ReadBlockWholeChain(benchmark::State& state) {
  const std::string con = ChainValue("consolidate");
  setenv("TQ_INI", ChainValue("ini").c_str(), 1);
  std::vector<char> buf(static_cast<size_t>(state.range(0)));
  uint64_t bytes = 0;
  for (auto _ : state) {
    std::string var = "DATABASE=CON:" + con;
    char* vars[] = {&var[0], nullptr};
    DB_OPERATION op{con.c_str()};
    if (DB_InitOperation(DB_TYPE_BCK, 0, vars, &op) != DB_NUM_I_OK) {
      state.SkipWithError("DB_InitOperation failed");
      break;
    }
    for (;;) {
      uint32_t len = static_cast<uint32_t>(buf.size());
      uint32_t rc = DB_ReadBlock(buf.data(), &len, nullptr, nullptr);
      if (rc != DB_NUM_I_OK) break;
      bytes += len;
    }
    DB_CloseOperation();
  }
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
}
BENCHMARK(BM_ReadBlockWholeChain)->Arg(65536)->Arg(1 << 20)->Unit(benchmark::kMillisecond);

}  // namespace
