// Benchmarks of the runtime calls made for every catalog line: two text
// conversions and two time parses.
#include <benchmark/benchmark.h>

#include <ctime>

#include "runtime/text.h"
#include "runtime/timefmt.h"

namespace {

const char kEncodings[] = ".UTF-8,,ISO-8859";
// A typical catalog path, about 60 bytes.
const char kAsciiPath[] = "\\home\\projects\\reports\\2023\\quarterly_summary_final_v2.xlsx";
const char kUtf8Path[] =
    "\\home\\Projekte\\Berichte\\2023\\Quartals\xC3\xBC"
    "bersicht_M\xC3\xA4rz_\xE2\x82\xAC.xlsx";

void BM_MbstowcslAscii(benchmark::State& state) {
  wchar_t out[512];
  for (auto _ : state) {
    size_t n = korvo::mbstowcsl(out, kAsciiPath, 512, kEncodings);
    benchmark::DoNotOptimize(n);
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * (sizeof kAsciiPath - 1));
}
BENCHMARK(BM_MbstowcslAscii);

void BM_MbstowcslUtf8(benchmark::State& state) {
  wchar_t out[512];
  for (auto _ : state) {
    size_t n = korvo::mbstowcsl(out, kUtf8Path, 512, kEncodings);
    benchmark::DoNotOptimize(n);
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * (sizeof kUtf8Path - 1));
}
BENCHMARK(BM_MbstowcslUtf8);

void BM_CmStrptime(benchmark::State& state) {
  struct tm tm = {};
  for (auto _ : state) {
    const char* end = korvo::cm_strptime("2023-11-07 14:32:05", "%Y-%m-%d %H:%M:%S", &tm);
    benchmark::DoNotOptimize(end);
    benchmark::DoNotOptimize(tm);
  }
}
BENCHMARK(BM_CmStrptime);

}  // namespace
