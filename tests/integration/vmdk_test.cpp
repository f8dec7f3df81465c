// A virtual machine disk saved with changed-block tracking, rebuilt from the
// chain: byte-identical to the disk's final state through tvucon cat (under
// "/VMDK" and through the mapper rules), the FUSE mount and qemu-img compare;
// and the consolidation of the same chain still gives the expected stream.
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
using tvutest::ReadFile;
using tvutest::RunProcess;
using tvutest::TempDir;

class VmdkChain : public ::testing::Test {
 protected:
  void SetUp() override {
    chain_ = tmp_ / "chain";
    ProcessResult r = RunProcess({BuiltProgram("mkchain"), "--out", chain_, "--files", "80", "--total-bytes",
                                  "1000000", "--incrementals", "3", "--vm-disk", "16777216", "--seed", "3"});
    ASSERT_EQ(0, r.exitCode) << r.err;
    std::ifstream f(chain_ + "/chain.txt");
    std::string line;
    while (std::getline(f, line)) {
      size_t eq = line.find('=');
      if (eq != std::string::npos) kv_[line.substr(0, eq)] = line.substr(eq + 1);
    }
    ASSERT_FALSE(kv_["vm_disk"].empty()) << "mkchain made no disk";
  }

  ProcessResult Tvucon(std::vector<std::string> args) {
    std::vector<std::string> argv = {BuiltProgram("tvucon"), args[0], "--saveset", kv_["consolidate"], "--ini",
                                     kv_["ini"]};
    argv.insert(argv.end(), args.begin() + 1, args.end());
    return RunProcess(argv);
  }

  TempDir tmp_;
  std::string chain_;
  std::map<std::string, std::string> kv_;
};

TEST_F(VmdkChain, RebuiltDiskReadsBackAsTheFinalDisk) {
  const std::string finalDisk = ReadFile(kv_["vm_final"]);
  ASSERT_EQ(16777216u, finalDisk.size());

  ProcessResult r = Tvucon({"cat", "/VMDK/" + kv_["vm_disk"]});
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_TRUE(r.out == finalDisk) << "rebuilt disk differs (" << r.out.size() << " bytes)";

  // qemu-img reads both as raw images and compares them.
  tvutest::WriteFile(tmp_ / "rebuilt.raw", r.out);
  EXPECT_EQ(0, tvutest::Shell("qemu-img compare -q -f raw -F raw '" + tmp_.path() + "/rebuilt.raw' '" +
                              kv_["vm_final"] + "'"));

  // The mapper rules place the same disk under /MAPPER.
  r = Tvucon({"cat", "--rules", kv_["vm_rules"], "/MAPPER/vm/web01.raw"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_TRUE(r.out == finalDisk);
  r = Tvucon({"ls", "--rules", kv_["vm_rules"], "/MAPPER/vm"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_NE(std::string::npos, r.out.find("web01.raw")) << r.out;
}

TEST_F(VmdkChain, ConsolidationSkipsTheFullDiskLine) {
  ProcessResult r = RunProcess({BuiltProgram("tvucon"), "consolidate", "--saveset", kv_["consolidate"], "--ini",
                                kv_["ini"], "--output", tmp_ / "out.cpio", "--quiet", "--raw"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_TRUE(ReadFile(tmp_ / "out.cpio") == ReadFile(chain_ + "/expected.cpio"));
}

TEST_F(VmdkChain, MountedDiskMatchesTheFinalDisk) {
  int fd = open("/dev/fuse", O_RDWR);
  if (fd < 0) GTEST_SKIP() << "FUSE unusable: cannot open /dev/fuse";
  close(fd);
  if (tvutest::Shell("command -v fusermount3 >/dev/null") != 0) GTEST_SKIP() << "fusermount3 missing";
  const std::string mnt = tmp_ / "mnt";
  fs::create_directories(mnt);
  ProcessResult r = Tvucon({"mount", "--rules", kv_["vm_rules"], mnt});
  ASSERT_EQ(0, r.exitCode) << r.err;
  const std::string disk = mnt + "/VMDK/" + kv_["vm_disk"];
  for (int i = 0; i < 200 && !fs::exists(disk); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(25));
  EXPECT_EQ(0, tvutest::Shell("cmp '" + disk + "' '" + kv_["vm_final"] + "'"));
  EXPECT_EQ(0, tvutest::Shell("cmp '" + mnt + "/MAPPER/vm/web01.raw' '" + kv_["vm_final"] + "'"));
  EXPECT_EQ(0, tvutest::Shell("fusermount3 -u '" + mnt + "'"));
}

}  // namespace
