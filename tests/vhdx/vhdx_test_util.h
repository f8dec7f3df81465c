// vhdx_test_util.h - images written by the project's VHDX writer, put behind
// sliced virtual files in the MERGE table the way the module reads them, and
// read back as virtual disks.
#ifndef TVU_TESTS_VHDX_TEST_UTIL_H
#define TVU_TESTS_VHDX_TEST_UTIL_H

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "mkvhdx/vhdx_writer.h"
#include "report/tvu_report.h"
#include "support/test_util.h"
#include "vfs/tq_vfs_cache.h"
#include "vfs/tq_vfs_catalog.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_saveset.h"
#include "vfs/tq_vfs_vfile.h"
#include "vfs/tq_vfs_vhdx.h"

namespace vhdxtest {

// The image as a MERGE file: zeros over the whole size, the written pieces
// over them.
inline VhdxSource Register(const mkvhdx::Image& image, const std::wstring& name) {
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

// One CPIO saveset file holding `stream`, its consolidated catalog, and the
// tree cache over them, as tree mode has them after InitVFS.
inline void OpenOneSavesetTree(const std::string& savesetPath, const std::string& stream,
                               const std::string& catalogPath, const std::string& catalog,
                               const std::string& metaDir) {
  tvutest::WriteFile(savesetPath, stream);
  SAVESET s;
  memset(&s, 0, sizeof s);
  s.uiMediaType = smFILE;
  s.szName = strdup(savesetPath.c_str());
  s.iDedupHandle = -1;
  const int32_t idx = saveset_append(s);
  ASSERT_EQ(0, saveset_init(idx));
  ASSERT_EQ(0, saveset_open(idx));
  tvutest::WriteFile(catalogPath, catalog);
  CatalogSetPath(catalogPath.c_str());
  ASSERT_EQ(0, DetectCatalogType());
  CatalogSetSavesetType(sdtCPIO);
  CatalogSetLineByLine(false);
  ASSERT_EQ(0, LISCacheInit());
  tvu_set_meta_dir(metaDir.c_str());
}

inline std::vector<uint8_t> ReadAll(tq_vfs_vfile* f) {
  std::vector<uint8_t> out(f->size());
  f->m_fpos = 0;
  out.resize(f->read(out.data(), out.size()));
  return out;
}

// The virtual disk of a parsed non-differencing image, read through its BAT
// and its present ranges (a reader independent of the merge).
inline std::vector<uint8_t> VirtualDisk(const VhdxImage& img) {
  std::vector<uint8_t> disk(img.virtual_disk_size, 0);
  const std::vector<uint8_t> file = ReadAll(img.source.pFile);
  const uint64_t bs = img.block_size;
  for (const auto& iv : img.present_ranges) {
    uint64_t p = 0, end = 0;
    vhdx_half_open(iv, &p, &end);
    end = std::min<uint64_t>(end, disk.size());
    while (p < end) {
      const uint64_t idx = p / bs;
      const uint64_t entry = img.bat.at(idx + idx / img.chunk_ratio);
      const uint64_t n = std::min(end - p, bs - p % bs);
      const uint64_t from = (entry & ~0xFFFFFull) + p % bs;
      if (from + n <= file.size()) std::memcpy(disk.data() + p, file.data() + from, n);
      p += n;
    }
  }
  return disk;
}

inline std::vector<uint8_t> Pattern(size_t n, uint32_t seed) {
  std::vector<uint8_t> v(n);
  uint32_t x = seed * 2654435761u + 1;
  for (size_t i = 0; i < n; ++i) {
    x ^= x << 13; x ^= x >> 17; x ^= x << 5;
    v[i] = static_cast<uint8_t>(x);
  }
  return v;
}

}  // namespace vhdxtest

#endif
