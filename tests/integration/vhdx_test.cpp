// A Hyper-V disk in the chain: a full VHDX and three differencing tails,
// merged by VHDXMERGE rules into one VHDX of the newest state.  Read through
// tvucon cat and the FUSE mount, checked by qemu-img against the disk's
// final raw state; the module's progress lines stay off the data.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "support/test_util.h"

namespace fs = std::filesystem;

namespace {

using tvutest::BuiltProgram;
using tvutest::ProcessResult;
using tvutest::RunProcess;
using tvutest::TempDir;

class HvChain : public ::testing::Test {
 protected:
  void SetUp() override {
    chain_ = tmp_ / "chain";
    ProcessResult r = RunProcess({BuiltProgram("mkchain"), "--out", chain_, "--files", "40", "--total-bytes",
                                  "500000", "--incrementals", "3", "--hv-disk", "134217728", "--seed", "5"});
    ASSERT_EQ(0, r.exitCode) << r.err;
    std::ifstream f(chain_ + "/chain.txt");
    std::string line;
    while (std::getline(f, line)) {
      size_t eq = line.find('=');
      if (eq != std::string::npos) kv_[line.substr(0, eq)] = line.substr(eq + 1);
    }
    ASSERT_FALSE(kv_["hv_rules"].empty()) << "mkchain made no Hyper-V disk";
  }
  ProcessResult Tvucon(std::vector<std::string> args) {
    std::vector<std::string> argv = {BuiltProgram("tvucon"), args[0], "--saveset", kv_["consolidate"], "--ini",
                                     kv_["ini"], "--rules", kv_["hv_rules"]};
    argv.insert(argv.end(), args.begin() + 1, args.end());
    return RunProcess(argv);
  }

  TempDir tmp_;
  std::string chain_;
  std::map<std::string, std::string> kv_;
};

TEST_F(HvChain, MergedDiskIsTheFinalDiskForQemuImg) {
  if (tvutest::Shell("command -v qemu-img >/dev/null 2>&1") != 0) GTEST_SKIP() << "qemu-img not installed";
  ProcessResult r = Tvucon({"cat", "/MAPPER/hv/web02.vhdx"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_NE(std::string::npos, r.err.find("[VHDX] Finalizing merge_2.vhdx web02.vhdx")) << r.err;
  const std::string merged = tmp_ / "merged.vhdx";
  tvutest::WriteFile(merged, r.out);
  EXPECT_EQ(0, tvutest::Shell("qemu-img check -q -f vhdx '" + merged + "'"));
  EXPECT_EQ(0, tvutest::Shell("qemu-img compare -q -f vhdx -F raw '" + merged + "' '" + kv_["hv_final"] + "'"));
  EXPECT_EQ(0, tvutest::Shell("qemu-img convert -f vhdx -O raw '" + merged + "' '" + tmp_.path() + "/merged.raw'"));
  EXPECT_EQ(0, tvutest::Shell("cmp -s '" + tmp_.path() + "/merged.raw' '" + kv_["hv_final"] + "'"));

  r = Tvucon({"ls", "/MAPPER/INTERMEDIATE"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  for (const char* input : {"web02.vhdx", "web02_1.avhdx", "web02_2.avhdx", "web02_3.avhdx"}) {
    EXPECT_NE(std::string::npos, r.out.find(input)) << r.out;
  }
}

// With --rct the disk files of the catalog are RCT disks; these have no
// records, so each stands as its full file, and each lacks its serialized
// state, which is reported.
TEST_F(HvChain, RctModeShowsEachDiskAtItsFullState) {
  std::vector<std::string> argv = {BuiltProgram("tvucon"), "ls", "--saveset", kv_["consolidate"], "--ini",
                                   kv_["ini"], "--rct", "/MAPPER/merge_result"};
  ProcessResult r = RunProcess(argv);
  ASSERT_EQ(0, r.exitCode) << r.err;
  for (const char* disk : {"web02.vhdx", "web02_1.avhdx", "web02_3.avhdx"}) {
    EXPECT_NE(std::string::npos, r.out.find(disk)) << r.out;
  }
  EXPECT_NE(std::string::npos, r.err.find("Serialize file not found for hvstore/web02/web02.vhdx")) << r.err;
  argv[1] = "cat";
  argv.back() = "/MAPPER/merge_result/web02_2.avhdx";
  r = RunProcess(argv);
  ASSERT_EQ(0, r.exitCode) << r.err;
  ProcessResult item = RunProcess({BuiltProgram("tvucon"), "cat", "--saveset", kv_["consolidate"], "--ini", kv_["ini"],
                                   "/hvstore/web02/web02_2.avhdx"});
  ASSERT_EQ(0, item.exitCode) << item.err;
  EXPECT_TRUE(r.out == item.out);
}

TEST_F(HvChain, MountedMergedDiskMatchesTheCatOutput) {
  int fd = open("/dev/fuse", O_RDWR);
  if (fd < 0) GTEST_SKIP() << "FUSE unusable: cannot open /dev/fuse";
  close(fd);
  if (tvutest::Shell("command -v fusermount3 >/dev/null") != 0) GTEST_SKIP() << "fusermount3 missing";
  ProcessResult r = Tvucon({"cat", "/MAPPER/hv/web02.vhdx"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  tvutest::WriteFile(tmp_ / "merged.vhdx", r.out);
  const std::string mnt = tmp_ / "mnt";
  fs::create_directories(mnt);
  r = Tvucon({"mount", mnt});
  ASSERT_EQ(0, r.exitCode) << r.err;
  const std::string disk = mnt + "/MAPPER/hv/web02.vhdx";
  for (int i = 0; i < 200 && !fs::exists(disk); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(25));
  EXPECT_EQ(0, tvutest::Shell("cmp '" + disk + "' '" + tmp_.path() + "/merged.vhdx'"));
  if (tvutest::Shell("command -v qemu-img >/dev/null 2>&1") == 0) {
    EXPECT_EQ(0, tvutest::Shell("qemu-img compare -q -f vhdx -F raw '" + disk + "' '" + kv_["hv_final"] + "'"));
  }
  EXPECT_EQ(0, tvutest::Shell("fusermount3 -u '" + mnt + "'"));
}

}  // namespace
