// Time and memory of the VHDX merge: a head of 64 GiB (and, for contrast,
// 8 GiB) virtual size with 32 MiB blocks and three differencing tails of
// 2 MiB blocks with 2,000 changed blocks each.  The images are held as
// sliced files whose data blocks are zero fill, so only the merge's own
// work and memory are measured.
//
// Usage: tvu_vhdxbench [HEAD_GIB ...]   (default: 8 64)
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <vector>

#include "mkvhdx/vhdx_writer.h"
#include "vfs/tq_vfs_vfile.h"
#include "vfs/tq_vfs_vhdx.h"

namespace {

constexpr uint64_t kMiB = 1ull << 20;

VhdxSource Register(const mkvhdx::Image& image, const std::wstring& name) {
  auto f = std::make_unique<tq_vfs_vfile>(name, name);
  tq_vfs_slice zero;
  zero.mTime = 1;
  zero.iType = stFILL;
  zero.miIntervalEnd = static_cast<int64_t>(image.size);
  f->add_slice(zero);
  for (const auto& [off, bytes] : image.pieces) {
    tq_vfs_slice s;
    s.mTime = 2;
    s.iType = stMEMORY;
    s.miIntervalStart = static_cast<int64_t>(off);
    s.miIntervalEnd = static_cast<int64_t>(off + bytes.size());
    s.pBuffer = std::make_shared<std::vector<unsigned char>>(bytes.begin(), bytes.end());
    f->add_slice(s);
  }
  VhdxSource src;
  src.pFile = f.get();
  src.name = name;
  src.iMergeHandle = vfile_table_MERGE_push(std::move(f));
  return src;
}

long MaxRssKiB() {
  struct rusage u {};
  getrusage(RUSAGE_SELF, &u);
  return u.ru_maxrss;
}

void Run(uint64_t headGiB) {
  mkvhdx::ImageDesc head;
  head.virtualSize = headGiB << 30;
  head.blockSize = 32 * kMiB;
  head.dataWriteGuid = mkvhdx::GuidFromText("{6A0D61A3-2C44-4F5B-9A6E-0E1D2C3B4A59}");
  for (uint64_t b = 0; b < head.virtualSize / head.blockSize; b += 64) head.blocks[b] = mkvhdx::Block{6, {}, {}};
  std::vector<mkvhdx::ImageDesc> tails(3, head);
  std::mt19937_64 rng(headGiB);
  std::string parent = "C:/VMs/big.vhdx";
  for (size_t t = 0; t < tails.size(); ++t) {
    mkvhdx::ImageDesc& s = tails[t];
    s.blocks.clear();
    s.blockSize = 2 * kMiB;
    s.differencing = true;
    s.parentLinkage = mkvhdx::GuidText(head.dataWriteGuid);
    s.parentPath = parent;
    s.dataWriteGuid[15] = static_cast<uint8_t>(t + 1);
    while (s.blocks.size() < 2000) s.blocks[rng() % (s.virtualSize / s.blockSize)] = mkvhdx::Block{6, {}, {}};
    parent = "C:/VMs/big_" + std::to_string(t + 1) + ".avhdx";
  }
  const long rssBefore = MaxRssKiB();
  const auto start = std::chrono::steady_clock::now();
  VhdxMerge merge(parse_vhdx(Register(mkvhdx::Write(head), L"C:/VMs/big.vhdx")));
  for (size_t t = 0; t < tails.size(); ++t) {
    const std::string name = "C:/VMs/big_" + std::to_string(t + 1) + ".avhdx";
    merge.add_tail(Register(mkvhdx::Write(tails[t]), std::wstring(name.begin(), name.end())));
  }
  const VhdxImagePtr result = merge.merge_all_tails();
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::fprintf(stderr, "head %3llu GiB, 3 tails x 2000 blocks of 2 MiB: merge %.2f s, result %zu slices, "
               "%llu bytes; max RSS %ld -> %ld KiB\n",
               static_cast<unsigned long long>(headGiB), seconds, result->source.pFile->sliceCount(),
               static_cast<unsigned long long>(result->source.pFile->size()), rssBefore, MaxRssKiB());
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<uint64_t> sizes;
  for (int i = 1; i < argc; ++i) sizes.push_back(std::strtoull(argv[i], nullptr, 10));
  if (sizes.empty()) sizes = {8, 64};
  for (uint64_t gib : sizes) Run(gib);
  return 0;
}
