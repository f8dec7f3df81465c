// mkchain.cpp - generates a saveset chain (one full, K incrementals) with its
// catalogs, consolidated catalog and control files, as a backup client would
// have left it on disk, for demonstrations and tests of the consolidation.
//
//   mkchain --out DIR [--format newc|odc|ext|mtf] [--catalog lslv2|lsl|lisv2|lis]
//           [--files N] [--incrementals K] [--seed S] [--total-bytes B]
//           [--vm-disk BYTES] [--hv-disk BYTES] [--no-expected] [--no-final]
//
// --vm-disk adds a virtual machine disk saved with changed-block tracking
// (vm_disk.h) and writes vm/web01-flat.vmdk.final (its final state as a raw
// image) and vm/rules.map (mapper rules that show it).  --hv-disk adds a
// Hyper-V disk of that virtual size, a full VHDX and one differencing tail
// per incremental (hv_disk.h), and writes hv/web02.raw (its final state)
// and hv/rules.map (VHDXMERGE rules that merge it into /hv/web02.vhdx).
//
// --format mtf (or "mkchain mtf ...") writes the savesets as MTF data sets
// with version-2 LSL catalogs whose lines leave every item to be located in
// its stream (mtf_writer.h), and expected.mtf in place of expected.cpio.
//
// The same options and seed always give the same chain (times are local, so
// the epoch values in the headers depend on the time zone).  Output already
// in DIR from an earlier run is replaced.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iterator>
#include <optional>
#include <string>

#include "catalog_writer.h"
#include "chain_model.h"
#include "relist.h"
#include "chain_outputs.h"
#include "dump_chain.h"
#include "saveset_writer.h"
#include "bitmap_chain.h"
#include "hv_disk.h"
#include "mtf_writer.h"
#include "vm_disk.h"

namespace mkchain {
namespace {
namespace fs = std::filesystem;

struct Options {
  std::string out;
  ChainFormat format = ChainFormat::kNewc;
  CatalogKind catalog = CatalogKind::kLslV2;
  ModelOptions model;
  int incrementals = 4;
  uint64_t vmDisk = 0;  // bytes; 0: no disk
  uint64_t hvDisk = 0;  // virtual bytes; 0: no Hyper-V disk
  bool expected = true;
  bool final = true;
};

const char kUsage[] =
    "usage: mkchain --out DIR [--format newc|odc|ext|mtf] [--catalog lslv2|lsl|lisv2|lis]\n"
    "               [--files N (1200)] [--incrementals K (4)] [--seed S (1)]\n"
    "               [--total-bytes B (25165824)] [--vm-disk BYTES (0)] [--hv-disk BYTES (0)]\n"
    "               [--no-expected] [--no-final]\n"
    "  lsl and lis are the version-1 catalogs; LIS catalogs allow no incrementals.\n"
    "  mtf writes MTF data sets (version-2 LSL catalogs only); \"mkchain mtf ...\" is the same.\n"
    "  --vm-disk adds a virtual machine disk of that size (a multiple of 64 KiB, at least\n"
    "  1 MiB) saved with changed-block tracking; 0 makes none.\n"
    "  --hv-disk adds a Hyper-V disk of that virtual size (a multiple of 32 MiB, at least\n"
    "  64 MiB): a full VHDX and a differencing AVHDX per incremental; 0 makes none.\n"
    "       mkchain relist --out DIR --media file|vk4|vk4ng [--dedup-host H] [--dedup-port P]\n"
    "               [--http-type T (hyper)]\n"
    "  rewrites the saveset list of the chain in DIR for savesets read from that medium.\n"
    "       mkchain dump --out DIR [--restore PROGRAM] DUMP...\n"
    "  a chain of UFS dump savesets (oldest first) with catalogs from the dumps and restore -t.\n"
    "       mkchain swapdump IN OUT\n"
    "  copies a dump with its header records in the other byte order.\n"
    "       mkchain bitmap --out DIR --size BYTES [--increments N (3)] [--blocks N] [--sparse]\n"
    "               [--seed N]\n"
    "  a disk saved as a raw full image and block-bitmap increments, its own chain, with\n"
    "  rules that show it as a VHD.\n";

bool ParseNumber(const std::string& text, uint64_t* value) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return false;
  errno = 0;
  *value = std::strtoull(text.c_str(), nullptr, 10);
  return errno == 0;
}

// Returns an error text, empty when the options are valid.
std::string ParseOptions(int argc, char** argv, Options* o) {
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i], value;
    const bool flag = arg == "--no-expected" || arg == "--no-final" || arg == "--help";
    if (!flag) {
      std::string::size_type eq = arg.find('=');
      if (eq != std::string::npos) {
        value = arg.substr(eq + 1);
        arg.resize(eq);
      } else if (i + 1 < argc) {
        value = argv[++i];
      } else {
        return "option " + arg + " needs a value";
      }
    }
    uint64_t n = 0;
    if (arg == "--help") return "help";
    if (arg == "--no-expected") {
      o->expected = false;
    } else if (arg == "--no-final") {
      o->final = false;
    } else if (arg == "--out") {
      o->out = value;
    } else if (arg == "--format") {
      if (value == "newc") o->format = ChainFormat::kNewc;
      else if (value == "odc") o->format = ChainFormat::kOdc;
      else if (value == "ext") o->format = ChainFormat::kExt;
      else if (value == "mtf") o->format = ChainFormat::kMtf;
      else return "unknown format " + value;
    } else if (arg == "--catalog") {
      if (value == "lslv2") o->catalog = CatalogKind::kLslV2;
      else if (value == "lsl" || value == "lslv1") o->catalog = CatalogKind::kLslV1;
      else if (value == "lisv2") o->catalog = CatalogKind::kLisV2;
      else if (value == "lis" || value == "lisv1") o->catalog = CatalogKind::kLisV1;
      else return "unknown catalog flavour " + value;
    } else if (!ParseNumber(value, &n)) {
      return "option " + arg + " needs a number, not \"" + value + "\"";
    } else if (arg == "--files") {
      o->model.files = n;
    } else if (arg == "--incrementals") {
      if (n > 365) return "at most 365 incrementals";
      o->incrementals = static_cast<int>(n);
    } else if (arg == "--seed") {
      o->model.seed = n;
    } else if (arg == "--total-bytes") {
      o->model.totalBytes = n;
    } else if (arg == "--hv-disk") {
      if (n != 0 && !HvDisk::CheckSize(n).empty()) return HvDisk::CheckSize(n);
      o->hvDisk = n;
    } else if (arg == "--vm-disk") {
      if (n != 0 && !VmDisk::CheckSize(n).empty()) return VmDisk::CheckSize(n);
      o->vmDisk = n;
    } else {
      return "unknown option " + arg;
    }
  }
  if (o->out.empty()) return "--out DIR is required";
  if (o->format == ChainFormat::kMtf && o->catalog != CatalogKind::kLslV2)
    return "MTF chains have version-2 LSL catalogs (--catalog lslv2)";
  // LIS catalogs name no saveset, so they can only describe a lone full.
  if (!IsLsl(o->catalog)) o->incrementals = 0;
  return "";
}

// Backups run at 02:00:00 local time, one day apart from 2026-11-01 on.
time_t BackupTime(int day) {
  struct tm tm = {};
  tm.tm_year = 2026 - 1900;
  tm.tm_mon = 10;
  tm.tm_mday = 1 + day;
  tm.tm_hour = 2;
  tm.tm_isdst = -1;
  return std::mktime(&tm);
}

std::string SavesetName(const char* prefix, time_t t) {
  struct tm tm;
  char text[32];
  localtime_r(&t, &tm);
  std::strftime(text, sizeof text, "%Y%m%d%H%M%S", &tm);
  return prefix + std::string(text);
}

// Removes what an earlier run left in the output folder, nothing else.
void RemoveOldOutput(const std::string& dir) {
  std::error_code ec;
  for (const char* sub : {"savesets", "catalogs", "tqslis", "final", "ini", "vm"})
    fs::remove_all(dir + "/" + sub, ec);
  for (const char* file : {"expected.cpio", "expected.mtf", "chain.txt", "tq.ini"}) fs::remove(dir + "/" + file, ec);
}

int Run(const Options& o) {
  Chain chain;
  std::error_code ec;
  chain.dir = fs::absolute(o.out, ec).lexically_normal().string();
  while (chain.dir.size() > 1 && chain.dir.back() == '/') chain.dir.pop_back();
  chain.format = o.format;
  chain.catalog = o.catalog;
  chain.vmDiskSize = o.vmDisk;
  chain.hvDiskSize = o.hvDisk;
  RemoveOldOutput(chain.dir);
  for (const char* sub : {"savesets", "catalogs"}) fs::create_directories(chain.dir + "/" + sub, ec);
  if (ec) {
    std::fprintf(stderr, "mkchain: cannot create %s: %s\n", chain.dir.c_str(), ec.message().c_str());
    return 1;
  }

  ChainModel model(o.model);
  std::optional<VmDisk> disk;
  if (o.vmDisk) disk.emplace(o.vmDisk, o.model.seed);
  std::optional<HvDisk> hv;
  if (o.hvDisk) {
    hv.emplace(o.hvDisk, o.model.seed);
    SetContentHook([&hv](const std::string& path, uint64_t size, OutFile* out, bool* handled) {
      return hv->Content(path, size, out, handled);
    });
  }
  std::string error;
  uint64_t records = 0;
  for (int s = 0; s <= o.incrementals; ++s) {
    const time_t t = BackupTime(s);
    const std::string name = SavesetName(s == 0 ? "SF" : "SI", t);
    std::vector<std::string> paths = s == 0 ? model.BuildFull(t) : model.Evolve(t);
    if (disk) {
      // Both lists are in path order; they share no path.
      const std::vector<std::string> more =
          s == 0 ? disk->Full(&model, t) : disk->Incremental(&model, t);
      std::vector<std::string> merged;
      std::set_union(paths.begin(), paths.end(), more.begin(), more.end(),
                     std::back_inserter(merged));
      paths.swap(merged);
    }
    if (hv) {
      std::vector<std::string> more = s == 0 ? hv->Full(&model, t) : hv->Incremental(&model, t);
      std::sort(more.begin(), more.end());
      std::vector<std::string> merged;
      std::set_union(paths.begin(), paths.end(), more.begin(), more.end(), std::back_inserter(merged));
      paths.swap(merged);
    }
    chain.names.push_back(name);
    const bool mtf = o.format == ChainFormat::kMtf;
    chain.files.push_back(chain.dir + "/savesets/" + name + (mtf ? ".mtf" : ".cpio"));

    CatalogWriter catalog;
    catalog.SetMtf(mtf);
    const std::string catalogFile = chain.dir + "/catalogs/" + name + CatalogExtension(o.catalog);
    if (!catalog.Open(catalogFile, o.catalog, false, name, &error)) break;
    uint64_t bytes = 0;
    auto onRecord = [&](const std::string& path, const Node& node) {
      catalog.Add(path, node, name, node.newest.start);
    };
    const bool written = mtf ? WriteMtfSaveset(&model, s, paths, t, name, chain.files.back(), onRecord, &bytes, &error)
                             : WriteSaveset(&model, s, paths, o.format, chain.files.back(), onRecord, &bytes, &error);
    if (!written || !catalog.Close(&error))
      break;
    chain.bytes.push_back(bytes);
    for (const std::string& path : paths) records += !model.node(path).raw;
  }
  chain.con = SavesetName("SF", BackupTime(o.incrementals + 1));

  auto writeVm = [&] {
    if (!disk) return true;
    fs::create_directories(chain.dir + "/vm", ec);
    return disk->WriteImage(chain.VmFinal(), &error) &&
           VmDisk::WriteRules(chain.VmRules(), chain.names.front(), &error);
  };
  uint64_t streamBytes = 0, items = 0;
  if (error.empty() && WriteConsolidatedCatalog(chain, model, &streamBytes, &items, &error) &&
      WriteControlFiles(chain, streamBytes, items, &error) &&
      (!o.final || WriteFinalTree(chain, model, &error)) &&
      (!o.expected || WriteExpectedStream(chain, model, &error)) && writeVm() &&
      (!hv || (fs::create_directories(chain.dir + "/hv", ec), hv->WriteImage(chain.HvFinal(), &error) &&
                                                                HvDisk::WriteRules(chain.HvRules(), chain.ConCatalog(), &error)))) {
    uint64_t total = 0, dirs = 0;
    for (uint64_t b : chain.bytes) total += b;
    for (const auto& kv : model.nodes()) dirs += kv.second.dir;
    std::printf("chain %s: %zu savesets (%s .. %s), %s headers, %s catalogs\n",
                chain.dir.c_str(), chain.names.size(), chain.names.front().c_str(),
                chain.names.back().c_str(), ChainFormatName(o.format), CatalogKindName(o.catalog));
    std::printf("items: %llu in the final state (%llu folders, %llu files), %llu records written\n",
                static_cast<unsigned long long>(items), static_cast<unsigned long long>(dirs),
                static_cast<unsigned long long>(items - dirs),
                static_cast<unsigned long long>(records));
    std::printf("bytes: %llu in savesets (full %llu), consolidated stream %llu for %s\n",
                static_cast<unsigned long long>(total),
                static_cast<unsigned long long>(chain.bytes.front()),
                static_cast<unsigned long long>(streamBytes), chain.con.c_str());
    if (hv)
      std::printf("hyper-v disk: %s, %llu bytes virtual, final image %s, rules %s\n", HvDisk::kHeadPath,
                  static_cast<unsigned long long>(o.hvDisk), chain.HvFinal().c_str(), chain.HvRules().c_str());
    if (disk)
      std::printf("vm disk: %s, %llu bytes, final image %s, rules %s\n", VmDisk::kPath,
                  static_cast<unsigned long long>(disk->size()), chain.VmFinal().c_str(),
                  chain.VmRules().c_str());
    return 0;
  }
  std::fprintf(stderr, "mkchain: %s\n", error.c_str());
  return 1;
}

}  // namespace
}  // namespace mkchain

// "mkchain relist ...": the saveset list of an existing chain for another medium.
static int Relist(int argc, char** argv) {
  std::string dir, media, host = "127.0.0.1", httpType = "hyper";
  int port = 0;
  for (int i = 2; i < argc; ++i) {
    std::string arg = argv[i];
    if (i + 1 >= argc) {
      std::fprintf(stderr, "mkchain relist: option %s needs a value\n%s", arg.c_str(), mkchain::kUsage);
      return 2;
    }
    std::string value = argv[++i];
    if (arg == "--out") dir = value;
    else if (arg == "--media") media = value;
    else if (arg == "--dedup-host") host = value;
    else if (arg == "--dedup-port") port = std::atoi(value.c_str());
    else if (arg == "--http-type") httpType = value;
    else {
      std::fprintf(stderr, "mkchain relist: unknown option %s\n%s", arg.c_str(), mkchain::kUsage);
      return 2;
    }
  }
  std::string error;
  if (dir.empty() || !RelistChain(dir, media, host, port, httpType, &error)) {
    std::fprintf(stderr, "mkchain relist: %s\n", dir.empty() ? "--out DIR is required" : error.c_str());
    return dir.empty() ? 2 : 1;
  }
  return 0;
}

int main(int argc, char** argv) {
  if (argc > 1 && std::string(argv[1]) == "relist") return Relist(argc, argv);
  if (argc > 1 && std::string(argv[1]) == "dump") return mkchain::DumpChainMain(argc, argv);
  if (argc > 1 && std::string(argv[1]) == "bitmap") return mkchain::BitmapChainMain(argc, argv);
  if (argc > 1 && std::string(argv[1]) == "swapdump") return mkchain::SwapDumpMain(argc, argv);
  mkchain::Options options;
  // "mkchain mtf ...": the chain options with the MTF format.
  const bool mtfMode = argc > 1 && std::string(argv[1]) == "mtf";
  if (mtfMode) options.format = mkchain::ChainFormat::kMtf;
  std::string error = mkchain::ParseOptions(argc - mtfMode, argv + mtfMode, &options);
  if (error == "help") {
    std::fputs(mkchain::kUsage, stdout);
    return 0;
  }
  if (!error.empty()) {
    std::fprintf(stderr, "mkchain: %s\n%s", error.c_str(), mkchain::kUsage);
    return 2;
  }
  return mkchain::Run(options);
}
