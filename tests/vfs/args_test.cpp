// Tests of the consolidation argument file and the saveset-list lines.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "vfs/tq_vfs_args.h"
#include "plugin/db_hooks.h"
#include "support/test_util.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_saveset.h"
#include "platform/platform.h"

namespace {

using tvutest::TempDir;
using tvutest::WriteFile;

class ConArgsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    args_.reset(new CON_ARGS);
    memset(args_.get(), 0, sizeof(CON_ARGS));
    args_->pszCatalogPath = catalog_;
    args_->uiCatalogPathCap = sizeof catalog_ - 1;
    memset(catalog_, 0, sizeof catalog_);
    gVOPTIONS = VFS_OPTIONS{};
    WriteFile(dir_ / "tq.ini", "[pathes]\ngv_rw_tqslis=" + dir_.path() + "/tqslis/\ngv_rw_ini=" + dir_.path() +
                                   "/ini/\n");
    pf::SetEnv("TQ_INI", (dir_ / "tq.ini").c_str());
    meta_ = dir_.path() + "/tqslis/X_mnt\\";
  }
  void TearDown() override {
    saveset_table_free();
    pf::UnsetEnv("TQ_INI");
  }
  void WriteArgs(const std::string& text) { WriteFile(dir_ / "tqslis/X_mnt/consolidate.arg", text); }

  TempDir dir_;
  std::string meta_;
  std::unique_ptr<CON_ARGS> args_;
  char catalog_[32768];
};

TEST_F(ConArgsTest, ReadsEveryKeyAndResolvesProductVariables) {
  WriteArgs("-f\n/chain/list.txt\n-l\ngv_rw_tqslis:X_mnt/X.lsl\n-r\ngv_rw_ini:root\n-t\ncpio\n-x\nignored\n");
  ASSERT_EQ(0, ReadConsolidateArgs(args_.get(), meta_.c_str()));
  EXPECT_STREQ("/chain/list.txt", args_->szSavesetList);
  EXPECT_EQ(1, args_->bSavesetList);
  EXPECT_EQ(dir_.path() + "/tqslis/X_mnt/X.lsl", std::string(args_->pszCatalogPath));
  EXPECT_EQ(dir_.path() + "/ini/root", std::string(args_->szRootPath));
  EXPECT_EQ(sdtCPIO, args_->iSavesetType);
}

TEST_F(ConArgsTest, OddLineCountUnknownTypeAndCarriageReturns) {
  // A Windows-written file; the last key has no value line and is ignored.
  WriteArgs("-t\r\ndump\r\n-t\r\nzip\r\n-f\r\n");
  ASSERT_EQ(0, ReadConsolidateArgs(args_.get(), meta_.c_str()));
  EXPECT_EQ(sdtDUMP, args_->iSavesetType);  // "zip" leaves it unchanged
  EXPECT_EQ(1, args_->bSavesetType);
  EXPECT_EQ(0, args_->bSavesetList);
}

TEST_F(ConArgsTest, FullCbtOptionWinsOverNoVmdkSearch) {
  gVOPTIONS.iFullCbt = 1;
  WriteArgs("-o\nno_vmdk_search=1,fullcbt=1\n");
  ASSERT_EQ(0, ReadConsolidateArgs(args_.get(), meta_.c_str()));
  EXPECT_EQ(0, gVOPTIONS.iNo_vmdk_search);
  EXPECT_EQ(0, gVOPTIONS.iFullCbt);
  WriteArgs("-o\nno_vmdk_search=1\n");
  ASSERT_EQ(0, ReadConsolidateArgs(args_.get(), meta_.c_str()));
  EXPECT_EQ(1, gVOPTIONS.iNo_vmdk_search);
}

TEST_F(ConArgsTest, MissingArgumentFileReturnsOne) {
  EXPECT_EQ(1, ReadConsolidateArgs(args_.get(), meta_.c_str()));
  DB_ERROR e;
  DB_GetError(&e);
  EXPECT_EQ("Cannot read from [" + meta_ + "consolidate.arg]", std::string(e.szMessage));
}

TEST_F(ConArgsTest, FileLinesAreStoredWithBackslashes) {
  ReadSavesetLine(0, "/chain/savesets/SF20261101020000.cpio\r\n");
  ASSERT_EQ(1, g_iSavesetCount);
  EXPECT_EQ(smFILE, g_psSavesets[0].uiMediaType);
  EXPECT_STREQ("\\chain\\savesets\\SF20261101020000.cpio", g_psSavesets[0].szName);
  EXPECT_EQ(0u, g_psSavesets[0].uiOpen);
}

TEST_F(ConArgsTest, DedupLinesTakeTheirTransferTypeFromTheStoresIni) {
  WriteFile(dir_ / "ini/xfpd_conf/store_0.ini", "[DEDUP]\nhttp_type=plain\n");
  WriteFile(dir_ / "ini/xfpd_conf/store_1.ini", "[DEDUP]\nhttp_type=tls\n");
  ReadSavesetLine(0, "vk4ng:SF20261101020000:dedup.example:11702");
  ReadSavesetLine(1, "vk4:SI20261102020000:dedup.example:11701");
  ReadSavesetLine(2, "vk4:SI20261103020000:dedup.example:11709");
  ASSERT_EQ(3, g_iSavesetCount);
  EXPECT_EQ(smVK4NG, g_psSavesets[0].uiMediaType);
  EXPECT_STREQ("SF20261101020000", g_psSavesets[0].szName);
  EXPECT_STREQ("dedup.example", g_psSavesets[0].szDedupHost);
  EXPECT_EQ(11702u, g_psSavesets[0].uiDedupPort);
  EXPECT_STREQ("tls", g_psSavesets[0].szHttpType);  // port 11702: the file with "_1.ini"
  EXPECT_EQ(smVK4, g_psSavesets[1].uiMediaType);
  EXPECT_STREQ("plain", g_psSavesets[1].szHttpType);
  // No file has "_8.ini": the last name the walk examined is used.
  EXPECT_STREQ("tls", g_psSavesets[2].szHttpType);
}

TEST_F(ConArgsTest, TransferTypeFallsBackToHyper) {
  char type[10];
  ReadTransferType(11701, type);  // no xfpd_conf folder at all
  EXPECT_STREQ("hyper", type);
  WriteFile(dir_ / "ini/xfpd_conf/store_0.ini", "[DEDUP]\nother=1\n");
  ReadTransferType(11701, type);  // no http_type key
  EXPECT_STREQ("hyper", type);
}

TEST_F(ConArgsTest, DedupLineWithAMissingFieldEndsTheProcess) {
  tvu_set_meta_dir((dir_.path() + "/").c_str());
  EXPECT_EXIT(ReadSavesetLine(0, "vk4:N:H"), ::testing::ExitedWithCode(1),
              "ERROR: Missing VK4/VK4NG saveset dedup hostname port \\[vk4:N:H\\]");
  EXPECT_NE(std::string::npos, tvutest::ReadFile(dir_ / "tvu_con.status")
                                   .find("ERROR INFO=Missing VK4/VK4NG saveset dedup hostname port [vk4:N:H]"));
  EXPECT_EXIT(ReadSavesetLine(0, "vk4ng:N"), ::testing::ExitedWithCode(1),
              "Missing VK4/VK4NG saveset dedup hostname \\[vk4ng:N\\]");
  EXPECT_EXIT(ReadSavesetLine(0, "hpe:store:x"), ::testing::ExitedWithCode(1), "");
}

}  // namespace
