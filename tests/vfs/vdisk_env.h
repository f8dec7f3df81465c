// vdisk_env.h - the setting of the disk-image tests: raw savesets (files
// that are no CPIO archive), a CPIO saveset of small items for bitmap files,
// an LSLv2 catalog for the rules' catalog lines, and a fresh tree in which
// mapper rules are read.
#ifndef TVU_TESTS_VFS_VDISK_ENV_H
#define TVU_TESTS_VFS_VDISK_ENV_H

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "archive/cpio_format.h"
#include "plugin/db_hooks.h"
#include "vfs/tq_vfs_common.h"
#include "runtime/trace.h"
#include "support/test_util.h"
#include "vfs/tq_vfs_cache.h"
#include "vfs/tq_vfs_catalog.h"
#include "vfs/tq_vfs_enum.h"
#include "vfs/tq_vfs_mapper.h"
#include "vfs/tq_vfs_read.h"
#include "vfs/tq_vfs_saveset.h"
#include "vfs/tq_vfs_vfile.h"

namespace tvutest {

class VdiskEnv : public ::testing::Test {
 protected:
  static constexpr const char* kItems = "SB20261101020000";  // the CPIO saveset of bitmap files

  void SetUp() override {
    Reset();
    ASSERT_EQ(0, LISCacheInit());
    root_ = LISCacheRoot();
    tvu_set_meta_dir((meta_.path() + "/").c_str());
    WriteFile(catalog_, "Tape ID: T Tape Label: T Format: CPIO LIS: 2.0\n");
    CatalogSetPath(catalog_.c_str());
    ASSERT_EQ(0, DetectCatalogType());
    CatalogSetSavesetType(sdtCPIO);
    CatalogSetLineByLine(false);
  }
  void TearDown() override { Reset(); }
  static void Reset() {
    korvo::trace_configure(0, nullptr);
    VfsSetMapperRulesFile("");
    LISCacheTerminate();
    VfsEnumReset();
    CatalogResetForTest();
    vfile_tables_clear();
    for (int32_t i = 0; i < g_iSavesetCount; ++i) saveset_close(i);
    saveset_table_free();
  }

  // A saveset file "<name>.<ext>" holding bytes, opened in the table.
  int32_t AddSaveset(const std::string& name, const std::string& bytes, const std::string& ext = "raw") {
    const std::string path = tmp_ / (name + "." + ext);
    WriteFile(path, bytes);
    SAVESET s;
    memset(&s, 0, sizeof s);
    s.uiMediaType = smFILE;
    s.szName = strdup(path.c_str());
    s.iDedupHandle = -1;
    const int32_t idx = saveset_append(s);
    EXPECT_EQ(0, saveset_init(idx));
    EXPECT_EQ(0, saveset_open(idx));
    return idx;
  }

  // Adds an item to the CPIO saveset of items (written by WriteItems) and
  // returns its catalog line for a rule.
  std::string AddItem(const std::string& path, const std::string& data) {
    cpio::Header h{};
    h.mode = 0100644;
    h.nlink = 1;
    h.filesize = data.size();
    h.name = path;
    std::string record, why;
    EXPECT_TRUE(cpio::EncodeRecordHeader(cpio::Format::kNewc, h, &record, &why)) << why;
    const uint64_t at = items_.size();
    items_ += record + data;
    items_.append((4 - items_.size() % 4) % 4, '\0');  // newc pads data to 4 bytes
    return "\"" + path + "\" f 2026-11-01 01:59:00 2026-11-01 01:58:30 " + std::to_string(at) + " " +
           std::to_string(record.size()) + " " + std::to_string(record.size() + data.size()) + " " +
           std::to_string(data.size()) + " 7 0 " + kItems + " 0";
  }
  void WriteItems() { AddSaveset(kItems, items_, "cpio"); }

  // Reads the rules; returns the level-1 trace.
  std::string Map(const std::string& rules) {
    WriteFile(rules_, rules);
    VfsSetMapperRulesFile(rules_.c_str());
    const std::string trace = tmp_ / ("t" + std::to_string(++traces_) + ".trc");
    korvo::trace_configure(1, trace.c_str());
    EXPECT_EQ(0, initializeMAPPER_FS(nullptr));
    korvo::trace_configure(0, nullptr);
    return FileExists(trace) ? ReadFile(trace) : std::string();
  }

  LIS_NODE* Node(const wchar_t* path) { return LISCacheFind(root_, path, false); }
  // The node's whole content, read in pieces of an odd size.
  std::string ReadAll(LIS_NODE* node) {
    std::string out;
    std::string buf(777777, '\0');
    for (;;) {
      const uint64_t got = ReadFromVFS("test", node, out.size(), &buf[0], buf.size());
      if (got == 0) break;
      out.append(buf, 0, got);
    }
    return out;
  }

  static std::string Random(size_t size, unsigned seed) {
    std::mt19937 rng(seed);
    std::string s(size, '\0');
    for (char& c : s) c = static_cast<char>(rng());
    return s;
  }

  TempDir tmp_, meta_;
  const std::string catalog_ = tmp_ / "consolidated.lsl";
  const std::string rules_ = tmp_ / "rules.map";
  std::string items_;
  LIS_NODE* root_ = nullptr;
  int traces_ = 0;
};

}  // namespace tvutest

#endif
