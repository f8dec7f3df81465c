// bitmap_chain.cpp - the block-bitmap disk chain (bitmap_chain.h).
//
// Layout of DIR:
//   savesets/SF<t0>.raw        the head: the disk at the full backup
//   savesets/SI<ti>.raw        increment i: its set blocks back to back
//   savesets/SB<tn+1>.cpio     newc archive of bitmaps/inc<i>.bmp (one bit per
//                              64 KiB block, bit 7 of byte k = block 8k)
//   tqslis/<CON>_mnt/          savesets.txt, consolidate.arg, <CON>.lsl (the
//                              bitmap items)
//   rules.map                  BITMERGE_* rules making /MAPPER/disk/db01.raw.vhd,
//                              and SAVESET2VHD of the head as /MAPPER/disk/base.vhd
//   final.raw, chain.txt
//
// Increments: the first writes blocks scattered over the whole disk, the
// second rewrites about half of the first's blocks and as many new ones, the
// third writes a few clusters (its bitmap is mostly zero bytes); later ones
// alternate.  With --sparse the head holds data only in its first MiB of
// every 64 MiB and is written with holes.
#include "bitmap_chain.h"

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "archive/cpio_format.h"
#include "catalog_writer.h"

namespace fs = std::filesystem;

namespace mkchain {

namespace {

constexpr uint64_t kBlock = 64 * 1024;
const char kUsage[] =
    "usage: mkchain bitmap --out DIR --size BYTES [--increments N (3)] [--blocks N]\n"
    "                      [--sparse] [--seed N (1)]\n"
    "  --blocks: set blocks per increment (default: a tenth of the disk's blocks)\n";

// splitmix64: fast, and the same bytes for the same seed everywhere.
struct SplitMix {
  uint64_t s;
  uint64_t Next() {
    uint64_t z = (s += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  void Fill(char* p, size_t n) {
    for (size_t i = 0; i < n; i += 8) {
      const uint64_t v = Next();
      std::memcpy(p + i, &v, n - i < 8 ? n - i : 8);
    }
  }
};

std::string Stamp(const char* prefix, int day) {
  struct tm tm = {};
  tm.tm_year = 2026 - 1900;
  tm.tm_mon = 10;
  tm.tm_mday = 1 + day;
  tm.tm_hour = 3;
  tm.tm_isdst = -1;
  const time_t t = std::mktime(&tm);
  char text[32];
  localtime_r(&t, &tm);
  std::strftime(text, sizeof text, "%Y%m%d%H%M%S", &tm);
  return prefix + std::string(text);
}

bool WriteFile(const std::string& path, const std::string& text, std::string* error) {
  std::ofstream out(path, std::ios::binary);
  out << text;
  out.close();
  if (!out) *error = "cannot write " + path;
  return static_cast<bool>(out);
}

// The set blocks of increment i (ascending).
std::set<uint64_t> PickBlocks(int i, uint64_t nBlocks, uint64_t want, const std::set<uint64_t>& previous, SplitMix* rng) {
  std::set<uint64_t> blocks;
  if (want > nBlocks) want = nBlocks;
  if (i % 3 == 2) {
    // A few clusters of 16 blocks: long runs of zero bytes in between.
    while (blocks.size() < want) {
      const uint64_t start = rng->Next() % nBlocks;
      for (uint64_t b = start; b < start + 16 && b < nBlocks && blocks.size() < want; ++b) blocks.insert(b);
    }
    return blocks;
  }
  if (i % 3 == 1) {
    // Half of the previous increment's blocks again.
    for (uint64_t b : previous)
      if (blocks.size() < want / 2 && (rng->Next() & 1)) blocks.insert(b);
  }
  while (blocks.size() < want) blocks.insert(rng->Next() % nBlocks);
  return blocks;
}

}  // namespace

int BitmapChainMain(int argc, char** argv) {
  std::string out;
  uint64_t size = 0, blocksPerInc = 0, seed = 1;
  int increments = 3;
  bool sparse = false;
  for (int i = 2; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--sparse") {
      sparse = true;
      continue;
    }
    if (i + 1 >= argc) {
      std::fprintf(stderr, "mkchain bitmap: option %s needs a value\n%s", arg.c_str(), kUsage);
      return 2;
    }
    const std::string value = argv[++i];
    if (arg == "--out") out = value;
    else if (arg == "--size") size = std::stoull(value);
    else if (arg == "--increments") increments = std::stoi(value);
    else if (arg == "--blocks") blocksPerInc = std::stoull(value);
    else if (arg == "--seed") seed = std::stoull(value);
    else {
      std::fprintf(stderr, "mkchain bitmap: unknown option %s\n%s", arg.c_str(), kUsage);
      return 2;
    }
  }
  if (out.empty() || size == 0 || increments < 0) {
    std::fprintf(stderr, "%s", kUsage);
    return 2;
  }
  out = fs::absolute(out).lexically_normal().string();
  while (out.size() > 1 && out.back() == '/') out.pop_back();
  const uint64_t nBlocks = (size + kBlock - 1) / kBlock;
  if (blocksPerInc == 0) blocksPerInc = nBlocks / 10 + 1;
  std::error_code ec;
  fs::remove_all(out, ec);
  fs::create_directories(out + "/savesets", ec);
  const std::string con = Stamp("SF", increments + 2);
  const std::string mnt = out + "/tqslis/" + con + "_mnt";
  fs::create_directories(mnt, ec);
  fs::create_directories(out + "/ini/xfpd_conf", ec);
  if (ec) {
    std::fprintf(stderr, "mkchain bitmap: cannot create %s: %s\n", out.c_str(), ec.message().c_str());
    return 1;
  }
  SplitMix rng{seed};
  std::string error;

  // The head, kept open as the final image grows from it.
  const std::string headName = Stamp("SF", 0);
  const std::string headFile = out + "/savesets/" + headName + ".raw";
  std::vector<std::string> files{headFile};
  {
    std::ofstream head(headFile, std::ios::binary);
    std::vector<char> buf(1 << 20);
    for (uint64_t at = 0; at < size; at += buf.size()) {
      const size_t n = static_cast<size_t>(std::min<uint64_t>(buf.size(), size - at));
      if (sparse && (at >> 20) % 64 != 0) {
        head.seekp(static_cast<std::streamoff>(at + n));  // a hole
        continue;
      }
      rng.Fill(buf.data(), n);
      head.seekp(static_cast<std::streamoff>(at));
      head.write(buf.data(), static_cast<std::streamsize>(n));
    }
    head.close();
    if (!head || truncate(headFile.c_str(), static_cast<off_t>(size)) != 0) {
      std::fprintf(stderr, "mkchain bitmap: cannot write %s\n", headFile.c_str());
      return 1;
    }
  }
  fs::copy_file(headFile, out + "/final.raw", fs::copy_options::overwrite_existing, ec);
  std::fstream final(out + "/final.raw", std::ios::binary | std::ios::in | std::ios::out);
  if (ec || !final) {
    std::fprintf(stderr, "mkchain bitmap: cannot write %s/final.raw\n", out.c_str());
    return 1;
  }

  std::string rules = "MAPTO \"/disk\"\nBITMERGE_FULL f \"" + headName + "\" \"db01.raw\"\n";
  std::string archive, catalog;
  const std::string archiveName = Stamp("SB", increments + 1);
  std::set<uint64_t> previous;
  std::vector<char> block(kBlock);
  for (int i = 1; i <= increments; ++i) {
    const std::set<uint64_t> blocks = PickBlocks(i, nBlocks, blocksPerInc, previous, &rng);
    const std::string name = Stamp("SI", i);
    const std::string dataFile = out + "/savesets/" + name + ".raw";
    std::ofstream data(dataFile, std::ios::binary);
    std::string bitmap((nBlocks + 7) / 8, '\0');
    for (uint64_t b : blocks) {
      bitmap[b / 8] = static_cast<char>(bitmap[b / 8] | (0x80 >> (b % 8)));
      rng.Fill(block.data(), block.size());
      data.write(block.data(), static_cast<std::streamsize>(block.size()));
      // The disk takes the block up to its end.
      final.seekp(static_cast<std::streamoff>(b * kBlock));
      final.write(block.data(), static_cast<std::streamsize>(std::min<uint64_t>(kBlock, size - b * kBlock)));
    }
    data.close();
    if (!data) {
      std::fprintf(stderr, "mkchain bitmap: cannot write %s\n", dataFile.c_str());
      return 1;
    }
    files.push_back(dataFile);
    previous = blocks;

    cpio::Header h{};
    h.mode = 0100644;
    h.nlink = 1;
    h.mtime = 1793502000u + static_cast<uint32_t>(i) * 86400u;
    h.filesize = bitmap.size();
    h.name = "bitmaps/inc" + std::to_string(i) + ".bmp";
    std::string record;
    if (!cpio::EncodeRecordHeader(cpio::Format::kNewc, h, &record, &error)) {
      std::fprintf(stderr, "mkchain bitmap: %s\n", error.c_str());
      return 1;
    }
    const uint64_t at = archive.size();
    archive += record + bitmap;
    archive.append((4 - archive.size() % 4) % 4, '\0');  // newc pads data to 4 bytes
    const std::string line = "\"" + h.name + "\" f " + CatalogTime(h.mtime) + " " + CatalogTime(h.mtime) + " " +
                             std::to_string(at) + " " + std::to_string(record.size()) + " " +
                             std::to_string(record.size() + bitmap.size()) + " " + std::to_string(bitmap.size()) +
                             " " + std::to_string(i) + " 0 " + archiveName + " 0";
    catalog += line + "\n";
    rules += "BITMERGE_INC f \"" + name + "\"\nBITMERGE_BITMAP f " + line + "\n";
  }
  final.close();
  rules += "SAVESET2VHD f \"" + headName + "\" \"base.vhd\"\n";
  const std::string archiveFile = out + "/savesets/" + archiveName + ".cpio";
  files.push_back(archiveFile);

  std::string list;
  for (const std::string& f : files) list += f + "\n";
  const std::string args = "-f\n" + mnt + "/savesets.txt\n-l\ngv_rw_tqslis:" + con + "_mnt/" + con +
                           ".lsl\n-r\n/\n-t\ncpio\n-o\nno_vmdk_search=1\n";
  const std::string ini = "[pathes]\ngv_rw_tqslis=" + out + "/tqslis/\ngv_rw_ini=" + out + "/ini/\n";
  const std::string info = "consolidate=" + con + "\nini=" + out + "/tq.ini\nrules=" + out + "/rules.map\nfinal=" +
                           out + "/final.raw\nhead=" + headFile + "\nsize=" + std::to_string(size) + "\n";
  if (!final || !WriteFile(archiveFile, archive, &error) ||
      !WriteFile(mnt + "/" + con + ".lsl",
                 "Tape ID: " + con + " Tape Label: " + con + " Format: CPIO LIS: 2.0\n" + catalog, &error) ||
      !WriteFile(mnt + "/savesets.txt", list, &error) || !WriteFile(mnt + "/consolidate.arg", args, &error) ||
      !WriteFile(out + "/tq.ini", ini, &error) || !WriteFile(out + "/rules.map", rules, &error) ||
      !WriteFile(out + "/chain.txt", info, &error)) {
    std::fprintf(stderr, "mkchain bitmap: %s\n", error.empty() ? "cannot write final.raw" : error.c_str());
    return 1;
  }
  std::printf("bitmap disk chain %s: head %s (%llu bytes), %d increments of %llu blocks, rules %s/rules.map\n",
              out.c_str(), headName.c_str(), static_cast<unsigned long long>(size), increments,
              static_cast<unsigned long long>(blocksPerInc), out.c_str());
  return 0;
}

}  // namespace mkchain
