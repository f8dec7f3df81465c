// Tests of a dump chain's consolidation through the exported entry points:
// the volume check at open fails DB_InitOperation with its reason in the
// error record; a good dump chain streams its catalog's runs.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "support/dump_fixture.h"
#include "support/test_util.h"
#include "tvu_con.h"
#include "vfs/tq_vfs_saveset.h"
#include "platform/platform.h"

namespace {

using tvutest::DumpFixture;
using tvutest::ReadFile;
using tvutest::TempDir;
using tvutest::WriteFile;

class DumpOperationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteFile(dir_ / "tq.ini", "[pathes]\ngv_rw_tqslis=" + dir_.path() + "/tqslis/\n");
    pf::SetEnv("TQ_INI", (dir_ / "tq.ini").c_str());
    WriteFile(meta("consolidate.arg"), "-f\n" + meta("list.txt") + "\n-l\ngv_rw_tqslis:SC1_mnt/SC1.lsl\n-t\ndump\n");
    WriteFile(meta("list.txt"), saveset() + "\n");
    // The level 0 fixture's file of inode 23 ("leaf\n"): its header and one
    // data record at 159744.
    WriteFile(meta("SC1.lsl"), "\"deep/a/b/c/leaf.txt\" f 2026-01-10 10:00:00 2026-01-10 10:00:00 159744 -1 2048 23 "
                               "0 0 SF20261101020000 \n");
  }
  void TearDown() override {
    DB_CloseOperation();
    pf::UnsetEnv("TQ_INI");
  }
  std::string meta(const std::string& name) { return dir_.path() + "/tqslis/SC1_mnt/" + name; }
  std::string saveset() { return dir_.path() + "/SF20261101020000.dump"; }
  uint32_t Init() {
    std::string v("DATABASE=CON:SC1");
    std::vector<char*> vars = {&v[0], nullptr};
    DB_OPERATION op{"SC1"};
    return DB_InitOperation(DB_TYPE_BCK, 0, vars.data(), &op);
  }
  std::string Message() {
    DB_ERROR e;
    DB_GetError(&e);
    return e.szMessage;
  }
  std::string TableName() {
    std::string name = saveset();
    for (char& c : name) c = c == '/' ? '\\' : c;
    return name;
  }

  TempDir dir_;
};

TEST_F(DumpOperationTest, CompressedOrForeignSavesetFailsTheInit) {
  WriteFile(saveset(), ReadFile(DumpFixture("level0z.dump")));
  EXPECT_EQ(DB_NUM_E_FAILED, Init());
  EXPECT_EQ("Saveset is not supported [" + TableName() +
                "]. Not a valid UFS volume as requested with -t dump switch: Compression not supported",
            Message());
  EXPECT_EQ(0, g_iSavesetCount);  // the failed operation was closed

  WriteFile(saveset(), "070701");  // shorter than a record, and no dump
  EXPECT_EQ(DB_NUM_E_FAILED, Init());
  EXPECT_EQ("Saveset is not supported [" + TableName() +
                "]. Not a valid UFS volume as requested with -t dump switch: Unknown error",
            Message());
}

TEST_F(DumpOperationTest, GoodDumpStreamsTheSpanOfEachLine) {
  const std::string dump = ReadFile(DumpFixture("level0.dump"));
  WriteFile(saveset(), dump);
  ASSERT_EQ(DB_NUM_I_OK, Init());
  std::string stream;
  std::vector<char> buf(1000);
  for (;;) {
    uint32_t len = static_cast<uint32_t>(buf.size());
    const uint32_t rc = DB_ReadBlock(buf.data(), &len, nullptr, nullptr);
    if (rc == DB_NUM_I_END) break;
    ASSERT_EQ(DB_NUM_I_OK, rc);
    stream.append(buf.data(), len);
  }
  EXPECT_TRUE(stream == dump.substr(159744, 2048));
}

}  // namespace
