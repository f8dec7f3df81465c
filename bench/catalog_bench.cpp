// Speed of the catalog line parser on consolidated-catalog lines.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "vfs/tq_vfs_catalog.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_saveset.h"

namespace {

const char* const kSavesets[5] = {"SF20261101020000", "SI20261102020000", "SI20261103020000", "SI20261104020000",
                                  "SI20261105020000"};

// A consolidated catalog as the plug-in reads it: LSLv2 lines with their line
// ends, directories among files, items of one saveset in runs of varying
// length, paths of varying depth and length.
std::vector<std::string> ConsolidatedLines(size_t count) {
  std::vector<std::string> lines;
  lines.reserve(count);
  uint64_t offset = 0;
  int saveset = 0;
  char line[512];
  for (size_t i = 0; i < count; ++i) {
    if (i % 37 == 0) saveset = static_cast<int>((i / 37) % 5);
    const bool dir = i % 11 == 0;
    const uint64_t size = dir ? 0 : 512 + (i * 7919) % 200000;
    std::snprintf(line, sizeof line,
                  "\"demo/sub dir %zu/%sfile name %04zu.txt\" %c 2026-11-01 01:59:00 2026-11-01 01:59:%02zu "
                  "%llu %d %llu %llu %zu 0 %s 0\n",
                  i % 13, i % 3 == 0 ? "deeper/level/" : "", i, dir ? 'd' : 'f', i % 60,
                  static_cast<unsigned long long>(offset), dir ? -1 : 120, static_cast<unsigned long long>(size),
                  static_cast<unsigned long long>(size > 120 ? size - 120 : 0), i % 97, kSavesets[saveset]);
    offset += size + 120;
    lines.emplace_back(line);
  }
  return lines;
}

void SetUpChain() {
  CatalogResetForTest();
  saveset_table_free();
  for (const char* name : kSavesets) {
    SAVESET s{};
    s.uiMediaType = smFILE;
    s.szName = strdup(("C:\\chain\\" + std::string(name) + ".cpio").c_str());
    s.iDedupHandle = -1;
    saveset_append(s);
  }
  CatalogSetPath("C:\\tqslis\\consolidate_mnt\\consolidated.lsl");
  CatalogSetSavesetType(sdtCPIO);
  CatalogSetLineByLine(true);
}

// ns per line: the tree's parse (wide names made) with argument 1, the
// consolidation's (no wide names) with 0.
void BM_ParseSavesetEntryLineByLine(benchmark::State& state) {
  SetUpChain();
  const std::vector<std::string> lines = ConsolidatedLines(4096);
  const bool wideNames = state.range(0) != 0;
  LIS_ENTRY entry{};
  size_t i = 0;
  for (auto _ : state) {
    int rc = ParseSavesetEntry(&entry, lines[i].c_str(), "fd", wideNames);
    benchmark::DoNotOptimize(rc);
    benchmark::DoNotOptimize(entry.ullSize);
    if (++i == lines.size()) i = 0;
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
  saveset_table_free();
  CatalogResetForTest();
}
BENCHMARK(BM_ParseSavesetEntryLineByLine)->Arg(1)->Arg(0);

void BM_IsIgnoredLine(benchmark::State& state) {
  std::vector<std::string> lines = ConsolidatedLines(1000);
  // Headers and trailers between the items, as in saveset catalogs.
  for (size_t i = 0; i < lines.size(); i += 50) {
    lines[i] = "Tape ID 42 Tape Label LBL0042 Format cpio LIS: 2.0\n";
    lines[i + 1] = "\"SSET 42\" 2026-11-01\n";
    lines[i + 2] = "# comment\n";
  }
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(IsIgnoredLine(lines[i].c_str()));
    if (++i == lines.size()) i = 0;
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_IsIgnoredLine);

}  // namespace
