// tvu_treebench - time and memory of the complete tree build.
//
//   tvu_treebench ITEMS [CATALOG_DIR]
//
// Writes a generated LSLv2 consolidated catalog of ITEMS items (folders
// several levels deep and one folder of up to 100,000 files; every file
// located already, so no saveset is read) into a temporary file, builds the
// whole tree from it with BuildCompleteTree and prints the items, the seconds,
// the growth of the peak resident set and the bytes per item; then, for
// comparison, the time to index the catalog for directory listings and to
// list the big folder on demand.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "runtime/lis_search.h"
#include "vfs/tq_vfs_cache.h"
#include "vfs/tq_vfs_catalog.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_enum.h"
#include "vfs/tq_vfs_saveset.h"

namespace {

const char kSaveset[] = "SF20261101020000";
constexpr uint64_t kBigFolderFiles = 100000;
constexpr uint64_t kFilesPerFolder = 40;  // files in each folder of the deep part

// A "VmXXX:  1234 kB" field of /proc/self/status, in bytes; 0 when unknown.
uint64_t ProcStatus(const char* field) {
  std::ifstream f("/proc/self/status");
  std::string line;
  const size_t n = std::strlen(field);
  while (std::getline(f, line)) {
    if (line.compare(0, n, field) == 0 && line.size() > n && line[n] == ':') {
      return std::strtoull(line.c_str() + n + 1, nullptr, 10) * 1024;
    }
  }
  return 0;
}

// Resets the peak resident set to the current one (Linux 4.0 and later).
bool ResetPeak() {
  std::ofstream f("/proc/self/clear_refs");
  f << "5";
  f.flush();
  return static_cast<bool>(f);
}

class CatalogWriter {
 public:
  explicit CatalogWriter(FILE* out) : out_(out) {}
  void Dir(const std::string& path) { Line(path, 'd', -1, 0); }
  void File(const std::string& path) {
    const uint64_t size = 100 + (items_ * 7919) % 50000;
    Line(path, 'f', 120, size);
  }
  uint64_t items() const { return items_; }

 private:
  void Line(const std::string& path, char type, int64_t rel, uint64_t size) {
    std::fprintf(out_,
                 "\"%s\" %c 2026-11-01 01:59:00 2026-11-01 01:58:30 %llu %lld %llu %llu %llu 0 %s 0\n",
                 path.c_str(), type, static_cast<unsigned long long>(offset_), static_cast<long long>(rel),
                 static_cast<unsigned long long>(size + 120), static_cast<unsigned long long>(size),
                 static_cast<unsigned long long>(items_), kSaveset);
    offset_ += size + 120;
    ++items_;
  }
  FILE* out_;
  uint64_t offset_ = 0;
  uint64_t items_ = 0;
};

// The catalog: one big folder, then three levels of folders (10 x 10 x ...)
// holding kFilesPerFolder files each, until ITEMS items are written.
void WriteCatalog(FILE* out, uint64_t items) {
  std::fprintf(out, "Tape ID: B Tape Label: B Format: CPIO LIS: 2.0\n");
  CatalogWriter w(out);
  const uint64_t big = std::min<uint64_t>(kBigFolderFiles, items / 2);
  w.Dir("C:");
  w.Dir("C:/data");
  w.Dir("C:/data/big");
  char name[64];
  for (uint64_t i = 0; i < big && w.items() < items; ++i) {
    std::snprintf(name, sizeof name, "C:/data/big/file_%07llu.dat", static_cast<unsigned long long>(i));
    w.File(name);
  }
  w.Dir("C:/tree");
  for (uint64_t a = 0; w.items() < items; ++a) {
    const std::string da = "C:/tree/level1_" + std::to_string(a);
    w.Dir(da);
    for (int b = 0; b < 10 && w.items() < items; ++b) {
      const std::string db = da + "/level2_" + std::to_string(b);
      w.Dir(db);
      for (int c = 0; c < 10 && w.items() < items; ++c) {
        const std::string dc = db + "/level3 folder " + std::to_string(c);
        w.Dir(dc);
        for (uint64_t f = 0; f < kFilesPerFolder && w.items() < items; ++f) {
          std::snprintf(name, sizeof name, "/document %03llu.txt", static_cast<unsigned long long>(f));
          w.File(dc + name);
        }
      }
    }
  }
  std::fprintf(out, "Total: 0 Last File Offset: 0 Last Dir Offset: 0 Number of directories: 0 Number of files: 0\n");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s ITEMS [CATALOG_DIR]\n", argv[0]);
    return 2;
  }
  const uint64_t items = std::strtoull(argv[1], nullptr, 10);
  std::string dir = argc > 2 ? argv[2] : (std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "/tmp");
  const std::string catalog = dir + "/tvu_treebench_" + std::to_string(getpid()) + ".lsl";

  FILE* out = std::fopen(catalog.c_str(), "w");
  if (out == nullptr) {
    std::perror(catalog.c_str());
    return 1;
  }
  WriteCatalog(out, items);
  std::fclose(out);

  SAVESET s{};
  s.uiMediaType = smFILE;
  s.szName = strdup((std::string("/bench/") + kSaveset + ".cpio").c_str());
  s.iDedupHandle = -1;
  saveset_append(s);
  CatalogSetPath(catalog.c_str());
  DetectCatalogType();
  CatalogSetSavesetType(sdtCPIO);
  CatalogSetLineByLine(false);
  LISCacheInit();

  const bool peakReset = ResetPeak();
  const uint64_t rssBefore = ProcStatus("VmRSS");
  const uint64_t hwmBefore = ProcStatus("VmHWM");
  struct rusage ruBefore;
  getrusage(RUSAGE_SELF, &ruBefore);
  const auto t0 = std::chrono::steady_clock::now();
  const uint64_t lines = BuildCompleteTree("\\");
  const auto t1 = std::chrono::steady_clock::now();
  const uint64_t hwmAfter = ProcStatus("VmHWM");
  struct rusage ruAfter;
  getrusage(RUSAGE_SELF, &ruAfter);

  const double seconds = std::chrono::duration<double>(t1 - t0).count();
  // With the peak reset, the growth is measured from the resident set at the
  // start; otherwise from the earlier peak (catalog writing is streamed and
  // keeps the earlier peak low).
  const uint64_t base = peakReset ? rssBefore : hwmBefore;
  const uint64_t growth = hwmAfter > base ? hwmAfter - base : 0;
  const uint64_t nodes = LISCacheDump(LISCacheRoot());
  std::printf("items %llu  lines %llu  nodes %llu  files %llu\n", static_cast<unsigned long long>(items),
              static_cast<unsigned long long>(lines), static_cast<unsigned long long>(nodes),
              static_cast<unsigned long long>(VfsFileTable().size()));
  std::printf("seconds %.3f  (%.2f us/item)\n", seconds, items ? seconds * 1e6 / items : 0.0);
  std::printf("peak RSS growth %.1f MiB  (%s; ru_maxrss %ld -> %ld KiB)\n", growth / 1048576.0,
              peakReset ? "VmHWM after reset" : "VmHWM", ruBefore.ru_maxrss, ruAfter.ru_maxrss);
  std::printf("bytes per item %.0f\n", items ? static_cast<double>(growth) / items : 0.0);

  const uint64_t removed = LISCacheTerminate();
  VfsEnumReset();

  // The on-demand side, for comparison: indexing the catalog for directory
  // listings, then listing the big folder into a fresh tree.
  LISCacheInit();
  const auto t2 = std::chrono::steady_clock::now();
  korvo::INIT_LIS_LIB(catalog.c_str());
  const auto t3 = std::chrono::steady_clock::now();
  std::vector<LIS_NODE*> big;
  GetSavesetEntries("\\C\\data\\big", true, false, &big);
  const auto t4 = std::chrono::steady_clock::now();
  std::printf("catalog index %.3f s;  listing C:/data/big (%zu entries) %.3f s\n",
              std::chrono::duration<double>(t3 - t2).count(), big.size(),
              std::chrono::duration<double>(t4 - t3).count());
  LISCacheTerminate();

  saveset_table_free();
  std::remove(catalog.c_str());
  return removed == nodes && lines == items ? 0 : 1;
}
