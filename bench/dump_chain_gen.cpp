// tvu_dumpgen - a synthetic dump chain for the dump benchmarks.
//
//   tvu_dumpgen DIR [FILE_BYTES (1073741824)] [ITEMS (100000)]
//
// Writes DIR/savesets/SF20261101020000.dump, a dump stream as Debian's dump
// lays it out: a volume header, then "big.bin" (inode 3, FILE_BYTES of data
// behind inode and continuation headers of 512 address flags; every 16th
// header's last 8 blocks are holes), then ITEMS files of 700 bytes (one
// header and one data record each) in folders of 1,000, then the end.  Beside
// it the chain's control files and its consolidated catalog (tq.ini,
// tqslis/SFCONSOLIDATED_mnt/).  Only the header fields the module reads are
// filled in; data bytes are a fixed pattern.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "archive/dump_format.h"

namespace {

constexpr uint64_t kRec = dump::kRecordSize;
const char kSaveset[] = "SF20261101020000";

void Put(uint8_t* rec, dump::Field f, uint64_t v) {
  for (size_t i = 0; i < f.len; ++i, v >>= 8) rec[f.off + i] = static_cast<uint8_t>(v);
}

void Header(FILE* out, int32_t type, uint32_t inode, uint64_t size, const std::vector<uint8_t>& flags) {
  uint8_t rec[kRec] = {};
  Put(rec, dump::kType, static_cast<uint32_t>(type));
  Put(rec, dump::kDate, 1793500000);
  Put(rec, dump::kInumber, inode);
  Put(rec, dump::kMagic, dump::kMagicNfs);
  Put(rec, dump::kMode, type == dump::kTsTape ? 0 : 0100644);
  Put(rec, dump::kSize, size);
  Put(rec, dump::kCount, flags.size());
  memcpy(rec + dump::kAddr.off, flags.data(), flags.size());
  dump::SetChecksum(rec);
  fwrite(rec, 1, kRec, out);
}

bool WriteText(const std::string& path, const std::string& text) {
  FILE* f = fopen(path.c_str(), "w");
  if (!f) return false;
  fputs(text.c_str(), f);
  return fclose(f) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: tvu_dumpgen DIR [FILE_BYTES] [ITEMS]\n");
    return 2;
  }
  const std::string dir = std::filesystem::absolute(argv[1]).string();
  const uint64_t bytes = argc > 2 ? strtoull(argv[2], nullptr, 10) : 1073741824ull;
  const uint64_t items = argc > 3 ? strtoull(argv[3], nullptr, 10) : 100000;
  const std::string mnt = dir + "/tqslis/SFCONSOLIDATED_mnt";
  std::filesystem::create_directories(mnt);
  std::filesystem::create_directories(dir + "/savesets");
  const std::string saveset = dir + "/savesets/" + kSaveset + ".dump";
  FILE* out = fopen(saveset.c_str(), "wb");
  FILE* cat = fopen((mnt + "/SFCONSOLIDATED.lsl").c_str(), "w");
  if (!out || !cat) {
    fprintf(stderr, "tvu_dumpgen: cannot write into %s\n", dir.c_str());
    return 1;
  }
  fprintf(cat, "Tape ID: SFCONSOLIDATED Tape Label: SFCONSOLIDATED Format: DUMP LIS: 2.0\n");
  const char* times = "2026-11-01 01:00:00 2026-11-01 01:00:00";
  uint64_t off = 0;
  Header(out, dump::kTsTape, 0, 0, {});
  off += kRec;

  std::vector<char> data(512 * kRec);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>('a' + i % 23);
  const uint64_t start = off;
  const uint64_t blocks = (bytes + kRec - 1) / kRec;
  for (uint64_t b = 0, h = 0; b < blocks; ++h) {
    const uint64_t n = blocks - b < 512 ? blocks - b : 512;
    std::vector<uint8_t> flags(n, 1);
    if (h % 16 == 15 && n == 512)
      for (uint64_t k = n - 8; k < n; ++k) flags[k] = 0;
    Header(out, h == 0 ? dump::kTsInode : dump::kTsAddr, 3, bytes, flags);
    uint64_t set = 0;
    for (uint8_t f : flags) set += f;
    fwrite(data.data(), 1, set * kRec, out);
    off += (set + 1) * kRec;
    b += n;
  }
  fprintf(cat, "\"big.bin\" f %s %llu -1 %llu 3 0 0 %s \n", times, static_cast<unsigned long long>(start),
          static_cast<unsigned long long>(off - start), kSaveset);

  for (uint64_t i = 0; i < items; ++i) {
    const uint32_t inode = static_cast<uint32_t>(100 + i);
    Header(out, dump::kTsInode, inode, 700, {1});
    fwrite(data.data(), 1, kRec, out);
    fprintf(cat, "\"items/d%03llu/f%06llu\" f %s %llu -1 2048 %u 0 0 %s \n",
            static_cast<unsigned long long>(i / 1000), static_cast<unsigned long long>(i), times,
            static_cast<unsigned long long>(off), inode, kSaveset);
    off += 2 * kRec;
  }
  Header(out, dump::kTsEnd, 0, 0, {});
  fprintf(cat, "Total: 0 Last File Offset: 0 Last Dir Offset: 0 Number of directories: 0 Number of files: %llu\n",
          static_cast<unsigned long long>(items + 1));
  if (fclose(out) != 0 || fclose(cat) != 0 || !WriteText(mnt + "/savesets.txt", saveset + "\n") ||
      !WriteText(mnt + "/consolidate.arg", "-f\n" + mnt + "/savesets.txt\n-l\ngv_rw_tqslis:SFCONSOLIDATED_mnt/"
                                           "SFCONSOLIDATED.lsl\n-r\n/\n-t\ndump\n-o\nno_vmdk_search=1\n") ||
      !WriteText(dir + "/tq.ini", "[pathes]\ngv_rw_tqslis=" + dir + "/tqslis/\n")) {
    fprintf(stderr, "tvu_dumpgen: cannot write into %s\n", dir.c_str());
    return 1;
  }
  return 0;
}
