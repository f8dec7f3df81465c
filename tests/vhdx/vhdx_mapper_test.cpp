// Tests of the VHDXMERGE rule: the inputs under INTERMEDIATE, the merged
// disk under the head's name in the target directory, read through the tree
// and by qemu-img, and the rules that end the process.
//
// The saveset is a plain file holding the images one after the other; the
// LSLv2 catalog lines give each image's data position directly.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <random>

#include "plugin/db_hooks.h"
#include "runtime/trace.h"
#include "support/test_util.h"
#include "vfs/tq_vfs_cache.h"
#include "vfs/tq_vfs_catalog.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_enum.h"
#include "vfs/tq_vfs_mapper.h"
#include "vfs/tq_vfs_read.h"
#include "vfs/tq_vfs_saveset.h"
#include "vhdx/vhdx_test_util.h"

namespace {

using mkvhdx::Block;
using mkvhdx::ImageDesc;
constexpr uint64_t kMiB = 1ull << 20;
const char* const kSaveset = "SF20261101020000";
const char* const kHeadGuid = "{6A0D61A3-2C44-4F5B-9A6E-0E1D2C3B4A59}";

std::string CatalogLine(const std::string& path, uint64_t dataPos, uint64_t size) {
  // Relative offset 1: the data starts one byte after the record offset.
  return "\"" + path + "\" f 2026-11-01 01:59:00 2026-11-01 01:58:30 " + std::to_string(dataPos - 1) + " 1 " +
         std::to_string(size + 1) + " " + std::to_string(size) + " 7 0 " + kSaveset + " 0";
}

class VhdxMapperTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Reset();
    // A head of 16 MiB (2 MiB blocks), a tail with 1 MiB blocks and one
    // with 32 MiB blocks, in a chain.
    std::mt19937 rng(3);
    head_.virtualSize = 16 * kMiB;
    head_.dataWriteGuid = mkvhdx::GuidFromText(kHeadGuid);
    head_.blocks[0] = Block{6, vhdxtest::Pattern(2 * kMiB, 1), {}};
    head_.blocks[5] = Block{6, vhdxtest::Pattern(2 * kMiB, 2), {}};
    ImageDesc t1 = head_, t2 = head_;
    t1.blocks.clear();
    t1.blockSize = static_cast<uint32_t>(kMiB);
    t1.differencing = true;
    t1.parentLinkage = kHeadGuid;
    t1.parentPath = "C:\\VMs\\web01\\web01.vhdx";
    t1.dataWriteGuid[15] = 1;
    t2 = t1;
    t2.blockSize = static_cast<uint32_t>(32 * kMiB);
    t2.parentPath = "c:\\vms\\web01\\WEB01_1.avhdx";
    t2.dataWriteGuid[15] = 2;
    t1.blocks[1] = Block{6, vhdxtest::Pattern(kMiB, 3), {}};
    t1.blocks[11] = Block{6, vhdxtest::Pattern(kMiB, 4), {}};
    std::vector<bool> sectors(65536, false);
    for (int i = 2000; i < 2100; ++i) sectors[i] = true;
    t2.blocks[0] = Block{7, vhdxtest::Pattern(32 * kMiB, 5), sectors};
    model_ = mkvhdx::RawDisk(head_);
    for (const ImageDesc* t : {&t1, &t2}) {
      const std::vector<uint8_t> raw = mkvhdx::RawDisk(*t);
      for (const auto& [index, block] : t->blocks) {
        for (uint64_t i = 0; i < t->blockSize && index * t->blockSize + i < model_.size(); ++i) {
          if (block.state == 6 || block.sectors[i / 512]) model_[index * t->blockSize + i] = raw[index * t->blockSize + i];
        }
      }
    }

    std::string stream(40, 'x');
    std::string catalog = "Tape ID: T Tape Label: T Format: CPIO LIS: 2.0\n";
    const std::pair<const ImageDesc*, const char*> images[] = {
        {&head_, "C:/VMs/web01/web01.vhdx"}, {&t1, "C:/VMs/web01/web01_1.avhdx"}, {&t2, "C:/VMs/web01/web01_2.avhdx"}};
    for (const auto& [desc, path] : images) {
      const std::vector<uint8_t> bytes = mkvhdx::Write(*desc).Flatten();
      lines_.push_back(CatalogLine(path, stream.size(), bytes.size()));
      catalog += lines_.back() + "\n";
      stream.append(bytes.begin(), bytes.end());
    }
    vhdxtest::OpenOneSavesetTree(tmp_ / (std::string(kSaveset) + ".cpio"), stream, catalog_, catalog,
                                 meta_.path() + "/");
    if (HasFatalFailure()) return;
  }
  void TearDown() override { Reset(); }
  static void Reset() {
    korvo::trace_configure(0, nullptr);
    VfsSetMapperRulesFile("");
    LISCacheTerminate();
    VfsEnumReset();
    CatalogResetForTest();
    for (int32_t i = 0; i < g_iSavesetCount; ++i) saveset_close(i);
    saveset_table_free();
  }
  void Map(const std::string& rules) {
    tvutest::WriteFile(rules_, rules);
    VfsSetMapperRulesFile(rules_.c_str());
    EXPECT_EQ(0, initializeMAPPER_FS(nullptr));
  }
  LIS_NODE* Node(const wchar_t* path) { return LISCacheFind(LISCacheRoot(), path, false); }

  tvutest::TempDir tmp_, meta_;
  const std::string catalog_ = tmp_ / "consolidated.lsl";
  const std::string rules_ = tmp_ / "rules.map";
  ImageDesc head_;
  std::vector<uint8_t> model_;
  std::vector<std::string> lines_;
};

TEST_F(VhdxMapperTest, MergedDiskAppearsUnderTheHeadsName) {
  Map("MAPTO \"/vms\"\nVHDXMERGE f " + lines_[0] + "\nVHDXMERGE f " + lines_[1] + "\nVHDXMERGE f " + lines_[2] + "\n");
  for (const wchar_t* input : {L"/R/MAPPER/INTERMEDIATE/web01.vhdx", L"/R/MAPPER/INTERMEDIATE/web01_1.avhdx",
                               L"/R/MAPPER/INTERMEDIATE/web01_2.avhdx"}) {
    EXPECT_NE(nullptr, Node(input));
  }
  LIS_NODE* merged = Node(L"/R/MAPPER/vms/web01.vhdx");
  ASSERT_NE(nullptr, merged);
  EXPECT_EQ(nsMERGE, merged->llSource);

  // Read through the tree's read path, then as a VHDX.
  std::vector<uint8_t> file(merged->ullSize);
  ASSERT_EQ(file.size(), ReadFromVFS(kSaveset, merged, 0, reinterpret_cast<char*>(file.data()), file.size()));
  tvutest::TempDir dir;
  std::ofstream(dir / "m.vhdx", std::ios::binary).write(reinterpret_cast<const char*>(file.data()),
                                                        static_cast<std::streamsize>(file.size()));
  std::ofstream(dir / "m.raw", std::ios::binary).write(reinterpret_cast<const char*>(model_.data()),
                                                       static_cast<std::streamsize>(model_.size()));
  VhdxSource src;
  src.pFile = vfile_get_MERGE(merged->iHandle);
  src.name = L"web01.vhdx";
  VhdxImagePtr img = parse_vhdx(src);
  ASSERT_TRUE(img);
  EXPECT_TRUE(vhdxtest::VirtualDisk(*img) == model_);
  if (tvutest::Shell("command -v qemu-img >/dev/null 2>&1") == 0) {
    EXPECT_EQ(0, tvutest::Shell("qemu-img check -q -f vhdx " + dir / "m.vhdx"));
    EXPECT_EQ(0, tvutest::Shell("qemu-img compare -q -f vhdx -F raw " + dir / "m.vhdx " + dir / "m.raw"));
  }
}

TEST_F(VhdxMapperTest, WithoutMapToTheDiskGoesToMapper) {
  Map("VHDXMERGE f " + lines_[0] + "\n");
  LIS_NODE* merged = Node(L"/R/MAPPER/web01.vhdx");
  ASSERT_NE(nullptr, merged);
  EXPECT_EQ(nsMERGE, merged->llSource);
  VhdxSource src;
  src.pFile = vfile_get_MERGE(merged->iHandle);
  VhdxImagePtr img = parse_vhdx(src);
  ASSERT_TRUE(img);
  EXPECT_TRUE(vhdxtest::VirtualDisk(*img) == mkvhdx::RawDisk(head_));
}

TEST_F(VhdxMapperTest, BadRulesEndTheProcess) {
  std::string line = lines_[0];
  line.replace(line.find(".vhdx"), 5, ".img");
  tvutest::WriteFile(rules_, "VHDXMERGE f " + line + "\n");
  VfsSetMapperRulesFile(rules_.c_str());
  EXPECT_EXIT(initializeMAPPER_FS(nullptr), ::testing::ExitedWithCode(1),
              "ERROR: Unexpected file type for VHDX in map file line no 1\n");
  tvutest::WriteFile(rules_, "\nVHDXMERGE R " + lines_[0] + "\n");
  EXPECT_EXIT(initializeMAPPER_FS(nullptr), ::testing::ExitedWithCode(1),
              "ERROR: MAPPER type R currently not supported line no 2\n");
}

}  // namespace
