// The MTF walk that locates an item before its first read, over media held
// in memory: one FILE block per item with a security stream, the data
// stream, its checksum and the pad, so that the cost is the walk and its
// 64 KiB window read, not a disk.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <vector>

#include "archive/mtf_format.h"
#include "archive/mtf_stream.h"

namespace {

void Stream(std::string* m, uint32_t id, const std::string& data) {
  mtf::StreamHeader s;
  s.id = id;
  s.length = data.size();
  uint8_t h[mtf::kStreamHeaderSize];
  mtf::EncodeStreamHeader(s, h);
  m->append(reinterpret_cast<const char*>(h), sizeof h);
  m->append(data);
  m->resize(mtf::AlignUp(m->size(), 4), '\0');
}

// items FILE blocks with dataSize bytes each; their offsets in *blocks.
std::string Media(size_t items, size_t dataSize, std::vector<uint64_t>* blocks) {
  std::string m;
  const std::string name = std::string("f\0i\0l\0e\0", 8);
  for (size_t i = 0; i < items; ++i) {
    blocks->push_back(m.size());
    std::string b(mtf::kFileSize, '\0');
    b += name;
    uint8_t* p = reinterpret_cast<uint8_t*>(&b[0]);
    mtf::Store16(p + 84, static_cast<uint16_t>(name.size()));
    mtf::Store16(p + 86, static_cast<uint16_t>(mtf::kFileSize));
    mtf::DblkHeader h;
    h.type = mtf::kFile;
    h.firstEvent = static_cast<uint16_t>(b.size());
    h.stringType = mtf::kStringUnicode;
    mtf::EncodeDblkHeader(h, p);
    m += b;
    Stream(&m, mtf::kNacl, std::string(120, 's'));
    Stream(&m, mtf::kStan, std::string(dataSize, 'd'));
    Stream(&m, mtf::kCsum, "sum!");
    const size_t next = static_cast<size_t>(mtf::AlignUp(m.size() + mtf::kStreamHeaderSize, 1024));
    Stream(&m, mtf::kSpad, std::string(next - m.size() - mtf::kStreamHeaderSize, '\0'));
  }
  return m;
}

void BM_MtfWalk(benchmark::State& state) {
  std::vector<uint64_t> blocks;
  const std::string media =
      Media(static_cast<size_t>(state.range(1)), static_cast<size_t>(state.range(0)), &blocks);
  const MtfReadAt readAt = [&media](uint64_t pos, uint8_t* buf, size_t n) -> int64_t {
    if (pos >= media.size()) return 0;
    const size_t got = std::min<size_t>(n, media.size() - static_cast<size_t>(pos));
    memcpy(buf, media.data() + pos, got);
    return static_cast<int64_t>(got);
  };
  MTF_ITEM item;
  std::string why;
  for (auto _ : state) {
    for (uint64_t b : blocks) {
      if (MtfWalkFileBlock(readAt, b, media.size(), L"file", &item, &why) != mwFOUND) state.SkipWithError("not found");
      benchmark::DoNotOptimize(item.ullDataOffset);
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * blocks.size()));
}
// Arguments: data bytes per item, items.  Small items (everything inside
// the first window) and large ones (the walk stops at the data header).
BENCHMARK(BM_MtfWalk)->Args({100, 2000})->Args({1 << 20, 64});

}  // namespace
