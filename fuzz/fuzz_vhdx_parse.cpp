// fuzz_vhdx_parse.cpp - the VHDX parser over an image made of the input.
// VHDX structures lie at MiB offsets, so the input is a list of pieces:
// [offset in 512-byte units, 4 bytes][length, 2 bytes][bytes], laid over
// zeros of 64 MiB.  Whatever the parser accepts must describe a disk whose
// blocks it can account for.
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "report/tvu_report.h"
#include "vfs/tq_vfs_vfile.h"
#include "vfs/tq_vfs_vhdx.h"

namespace {

constexpr uint64_t kImageSize = 64ull << 20;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  auto file = std::make_unique<tq_vfs_vfile>(L"fuzz.vhdx", L"fuzz.vhdx");
  tq_vfs_slice zero;
  zero.mTime = 1;
  zero.iType = stFILL;
  zero.miIntervalEnd = static_cast<int64_t>(kImageSize);
  file->add_slice(zero);
  size_t p = 0;
  while (p + 6 <= size) {
    uint32_t sector = 0;
    uint16_t length = 0;
    memcpy(&sector, data + p, 4);
    memcpy(&length, data + p + 4, 2);
    p += 6;
    if (length > size - p) length = static_cast<uint16_t>(size - p);
    const uint64_t at = (static_cast<uint64_t>(sector) * 512) % kImageSize;
    const uint64_t end = at + length > kImageSize ? kImageSize : at + length;
    if (end > at) {
      tq_vfs_slice s;
      s.mTime = 2;
      s.iType = stMEMORY;
      s.miIntervalStart = static_cast<int64_t>(at);
      s.miIntervalEnd = static_cast<int64_t>(end);
      s.pBuffer = std::make_shared<std::vector<unsigned char>>(data + p, data + p + (end - at));
      file->add_slice(s);
    }
    p += length;
  }
  VhdxSource source;
  source.pFile = file.get();
  source.name = L"C:/VMs/fuzz.vhdx";
  try {
    VhdxImagePtr image = parse_vhdx(source);
    (void)image;
  } catch (const TvuFatalError&) {
  }
  return 0;
}
