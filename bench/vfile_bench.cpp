// Sliced virtual files: the read of a rebuilt disk next to plain reads of the
// same bytes, and the time and memory of adding many overlapping slices.
//
// Reads (256 MiB front to back, 1 MiB requests, page cache warm):
// - BM_VfileReadRawImage: the raw image with plain reads of 1 MiB and of
//   128 KiB (what GNU cat uses);
// - BM_VfileReadSlicedDisk: the same bytes as a sliced file, a zero slice
//   under 10,000 overlapping saveset slices that point into the raw image at
//   their own position (so the content is the image; checked once before
//   timing);
// - BM_VfileReadRawImageBySegments: the raw image read with one seek and one
//   read per segment of that sliced file, the floor of any read that goes to
//   the source once per segment.
// The ratios of their bytes_per_second show the cost of the slice machinery.
//
// BM_VfileAddSlices adds 100,000 random overlapping slices to one file and
// reports the map's segments and the memory held per slice, by the heap
// (mallinfo2) and by the resident set (VmRSS).
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "platform/platform.h"
#include "vfs/tq_vfs_saveset.h"
#include "vfs/tq_vfs_vfile.h"

namespace {

constexpr int64_t kDiskSize = 256ll << 20;
constexpr uint64_t kReadSize = 1u << 20;
constexpr int kSlices = 10000;

struct Disk {
  std::string imagePath;
  std::vector<tq_vfs_slice> slices;  // saveset indices to be filled in
};

// A disk per slice alignment, made once per process (and never freed, so
// that the clean-up at exit still finds its path).  Slice lengths are 8 to
// 256 alignment units, capped at 128 KiB (changed-block runs); bytes that no
// saveset slice covers are zero in the image, as the zero slice reads them.
const Disk& TheDisk(int64_t align) {
  static std::vector<std::pair<int64_t, Disk*>> s_disks;
  for (const auto& d : s_disks)
    if (d.first == align) return *d.second;
  auto* d = new Disk;
  char tmpl[] = "/tmp/tvu_vfile_bench_XXXXXX";
  if (!mkdtemp(tmpl)) abort();
  d->imagePath = std::string(tmpl) + "/disk.raw";
  std::mt19937_64 rng(42);
  std::vector<std::pair<int64_t, int64_t>> ranges;
  for (int i = 0; i < kSlices; ++i) {
    int64_t len = std::max(align, std::min<int64_t>(128 << 10, static_cast<int64_t>(8 + rng() % 249) * align));
    int64_t start = static_cast<int64_t>(rng() % static_cast<uint64_t>((kDiskSize - len) / align)) * align;
    tq_vfs_slice s;
    s.iType = stSAVESET;
    s.mTime = static_cast<int64_t>(2 + rng() % 1000);
    s.miIntervalStart = start;
    s.miIntervalEnd = start + len;
    s.miSavesetOffset = static_cast<uint64_t>(start);
    d->slices.push_back(s);
    ranges.emplace_back(start, start + len);
  }
  std::vector<uint64_t> image(static_cast<size_t>(kDiskSize) / 8);
  uint64_t x = 0x9E3779B97F4A7C15ull;
  for (uint64_t& w : image) {
    x ^= x << 13, x ^= x >> 7, x ^= x << 17;
    w = x;
  }
  std::sort(ranges.begin(), ranges.end());
  auto* bytes = reinterpret_cast<unsigned char*>(image.data());
  int64_t covered = 0;
  for (const auto& r : ranges) {
    if (r.first > covered) memset(bytes + covered, 0, static_cast<size_t>(r.first - covered));
    covered = std::max(covered, r.second);
  }
  memset(bytes + covered, 0, static_cast<size_t>(kDiskSize - covered));
  FILE* f = fopen(d->imagePath.c_str(), "wb");
  if (!f || fwrite(bytes, 1, static_cast<size_t>(kDiskSize), f) != static_cast<size_t>(kDiskSize)) abort();
  fclose(f);
  if (s_disks.empty())
    atexit([] {
      for (const auto& dd : s_disks) {
        remove(dd.second->imagePath.c_str());
        remove(dd.second->imagePath.substr(0, dd.second->imagePath.rfind('/')).c_str());
      }
    });
  s_disks.emplace_back(align, d);
  return *d;
}

int32_t AppendSaveset(uint32_t mediaType, const char* name, int64_t size) {
  SAVESET s;
  memset(&s, 0, sizeof s);
  s.uiMediaType = mediaType;
  s.szName = strdup(name);
  s.llSize = size;
  s.iDedupHandle = -1;
  int32_t idx = saveset_append(s);
  if (saveset_init(idx) != 0 || saveset_open(idx) != 0) abort();
  return idx;
}

void CloseAll() {
  vfile_tables_clear();
  for (int32_t i = 0; i < g_iSavesetCount; ++i) saveset_close(i);
  saveset_table_free();
}

// Argument: the read size; 131072 is what GNU cat reads with.
void BM_VfileReadRawImage(benchmark::State& state) {
  const Disk& disk = TheDisk(512);
  const uint64_t n = static_cast<uint64_t>(state.range(0));
  pf::File* f = nullptr;
  if (pf::FileOpenRead(disk.imagePath.c_str(), &f) != 0) {
    state.SkipWithError("cannot open the image");
    return;
  }
  std::vector<unsigned char> buf(n);
  for (auto _ : state) {
    pf::FileSeek(f, 0, 0, nullptr);
    uint64_t got = 0, total = 0;
    do {
      pf::FileRead(f, buf.data(), n, &got);
      total += got;
    } while (got == n);
    if (total != static_cast<uint64_t>(kDiskSize)) state.SkipWithError("short image read");
    benchmark::DoNotOptimize(buf.data());
  }
  pf::FileClose(f);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kDiskSize);
}
BENCHMARK(BM_VfileReadRawImage)->Arg(1 << 20)->Arg(128 << 10)->Unit(benchmark::kMillisecond);

// The floor of any read that goes to the source once per segment: the raw
// image read with one seek and one read per segment (and per 1 MiB request),
// at the borders the slices make.
void BM_VfileReadRawImageBySegments(benchmark::State& state) {
  const Disk& disk = TheDisk(state.range(0));
  std::vector<int64_t> borders = {0, kDiskSize};
  for (const tq_vfs_slice& s : disk.slices) {
    borders.push_back(s.miIntervalStart);
    borders.push_back(s.miIntervalEnd);
  }
  for (int64_t b = kReadSize; b < kDiskSize; b += kReadSize) borders.push_back(b);
  std::sort(borders.begin(), borders.end());
  borders.erase(std::unique(borders.begin(), borders.end()), borders.end());
  pf::File* f = nullptr;
  if (pf::FileOpenRead(disk.imagePath.c_str(), &f) != 0) {
    state.SkipWithError("cannot open the image");
    return;
  }
  std::vector<unsigned char> buf(kReadSize);
  for (auto _ : state) {
    for (size_t i = 0; i + 1 < borders.size(); ++i) {
      uint64_t got = 0;
      const int64_t n = borders[i + 1] - borders[i];
      pf::FileSeek(f, borders[i], 0, nullptr);
      pf::FileRead(f, buf.data() + borders[i] % static_cast<int64_t>(kReadSize), static_cast<uint64_t>(n), &got);
    }
    benchmark::DoNotOptimize(buf.data());
  }
  pf::FileClose(f);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kDiskSize);
  state.counters["reads"] = static_cast<double>(borders.size() - 1);
}
// Argument (here and below): the slice alignment in bytes (512: sector runs;
// 65536: the 64 KiB blocks changed-block tracking usually reports).
BENCHMARK(BM_VfileReadRawImageBySegments)->Arg(512)->Arg(65536)->Unit(benchmark::kMillisecond);

void BM_VfileReadSlicedDisk(benchmark::State& state) {
  const Disk& disk = TheDisk(state.range(0));
  const int32_t zero = AppendSaveset(smZERO, "zero", kDiskSize);
  const int32_t image = AppendSaveset(smFILE, disk.imagePath.c_str(), 0);
  auto file = std::make_unique<tq_vfs_vfile>(L"disk.vmdk", L"vm/disk.vmdk");
  tq_vfs_slice base;
  base.iType = stSAVESET;
  base.mTime = 1;
  base.miIntervalEnd = kDiskSize;
  base.miSavesetIdx = zero;
  file->add_slice(base);
  for (tq_vfs_slice s : disk.slices) {
    s.miSavesetIdx = image;
    file->add_slice(s);
  }
  const size_t segments = file->segmentCount();
  const int32_t h = vfile_table_push(std::move(file));

  std::vector<unsigned char> buf(kReadSize), want(kReadSize);
  // The content must be the image's before any timing counts.
  static std::vector<int64_t> s_checked;
  if (std::find(s_checked.begin(), s_checked.end(), state.range(0)) == s_checked.end()) {
    pf::File* f = nullptr;
    pf::FileOpenRead(disk.imagePath.c_str(), &f);
    vfile_seek(h, 0);
    for (int64_t pos = 0; pos < kDiskSize; pos += kReadSize) {
      uint64_t got = 0;
      pf::FileRead(f, want.data(), kReadSize, &got);
      if (vfile_read(h, buf.data(), kReadSize) != kReadSize || memcmp(buf.data(), want.data(), kReadSize) != 0) {
        state.SkipWithError("sliced disk differs from the image");
        pf::FileClose(f);
        CloseAll();
        return;
      }
    }
    pf::FileClose(f);
    s_checked.push_back(state.range(0));
  }

  for (auto _ : state) {
    vfile_mutex_lock(h);
    vfile_seek(h, 0);
    uint64_t total = 0, got = 0;
    do {
      got = vfile_read(h, buf.data(), kReadSize);
      total += got;
    } while (got == kReadSize);
    vfile_mutex_unlock(h);
    if (total != static_cast<uint64_t>(kDiskSize)) state.SkipWithError("short sliced read");
    benchmark::DoNotOptimize(buf.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kDiskSize);
  state.counters["segments"] = static_cast<double>(segments);
  CloseAll();
}
BENCHMARK(BM_VfileReadSlicedDisk)->Arg(512)->Arg(65536)->Unit(benchmark::kMillisecond);

// Resident set size in bytes, from /proc/self/status.
int64_t VmRssBytes() {
  FILE* f = fopen("/proc/self/status", "r");
  char line[256];
  long long kb = 0;
  while (f && fgets(line, sizeof line, f))
    if (sscanf(line, "VmRSS: %lld kB", &kb) == 1) break;
  if (f) fclose(f);
  return kb * 1024;
}

// 100,000 slices of 4 KiB to 1 MiB at 4 KiB alignment on a 16 GiB disk: each
// byte is covered about three times, as a chain of changed-block files does.
void BM_VfileAddSlices(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  std::vector<tq_vfs_slice> slices;
  std::mt19937_64 rng(7);
  const int64_t disk = 16ll << 30;
  for (int i = 0; i < n; ++i) {
    tq_vfs_slice s;
    s.iType = stSAVESET;
    s.miSavesetIdx = 0;
    int64_t len = static_cast<int64_t>(1 + rng() % 256) * 4096;
    s.miIntervalStart = static_cast<int64_t>(rng() % static_cast<uint64_t>((disk - len) / 4096)) * 4096;
    s.miIntervalEnd = s.miIntervalStart + len;
    s.miSavesetOffset = static_cast<uint64_t>(s.miIntervalStart);
    s.mTime = static_cast<int64_t>(1 + rng() % 100000);
    slices.push_back(s);
  }
  double segments = 0, heapPerSlice = 0, rssPerSlice = 0;
  for (auto _ : state) {
    state.PauseTiming();
    malloc_trim(0);  // so that the resident set grows with what this file takes
    const int64_t rss0 = VmRssBytes();
    const size_t heap0 = mallinfo2().uordblks;
    auto file = std::make_unique<tq_vfs_vfile>(L"disk.vmdk", L"vm/disk.vmdk");
    state.ResumeTiming();
    for (const tq_vfs_slice& s : slices) file->add_slice(s);
    state.PauseTiming();
    segments = static_cast<double>(file->segmentCount());
    heapPerSlice = static_cast<double>(mallinfo2().uordblks - heap0) / n;
    rssPerSlice = std::max(rssPerSlice, static_cast<double>(VmRssBytes() - rss0) / n);
    file.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * n);
  state.counters["segments"] = segments;
  state.counters["heap_B_per_slice"] = heapPerSlice;
  state.counters["rss_B_per_slice"] = rssPerSlice;
}
BENCHMARK(BM_VfileAddSlices)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace
