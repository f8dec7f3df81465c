// A disk saved as a raw image and block-bitmap increments (mkchain bitmap):
// through tvucon and the rules the generator writes, the merged disk's VHD
// and the head's SAVESET2VHD read as the raw final state and the raw head for
// qemu-img and libvhdi, and the merged disk itself reads as the final state.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <string>

#include "support/test_util.h"
#include "support/vdisk_check.h"

namespace {

using tvutest::BuiltProgram;
using tvutest::ProcessResult;
using tvutest::RunProcess;

TEST(BitmapChain, MergedDiskAndItsVhdReadAsTheFinalState) {
  tvutest::TempDir tmp;
  const std::string dir = tmp / "bitmap";
  // 8 MiB + 1000 bytes: a partial last block of the bitmap and of the VHD.
  ProcessResult r = RunProcess({BuiltProgram("mkchain"), "bitmap", "--out", dir, "--size", "8389608", "--increments",
                                "4", "--blocks", "30", "--seed", "5"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  std::map<std::string, std::string> kv;
  std::ifstream f(dir + "/chain.txt");
  for (std::string line; std::getline(f, line);) {
    const size_t eq = line.find('=');
    if (eq != std::string::npos) kv[line.substr(0, eq)] = line.substr(eq + 1);
  }
  auto cat = [&](const std::string& path, const std::string& to) {
    ProcessResult c = RunProcess({BuiltProgram("tvucon"), "cat", "--saveset", kv["consolidate"], "--ini", kv["ini"],
                                  "--rules", kv["rules"], path});
    EXPECT_EQ(0, c.exitCode) << c.err;
    tvutest::WriteFile(to, c.out);
    return c.out;
  };
  EXPECT_TRUE(cat("/MAPPER/INTERMEDIATE/db01.raw", tmp / "merged.raw") == tvutest::ReadFile(kv["final"]));
  cat("/MAPPER/disk/db01.raw.vhd", tmp / "db01.vhd");
  EXPECT_EQ("", tvutest::QemuChecksVhd(tmp / "db01.vhd", kv["final"]));
  EXPECT_EQ("", tvutest::LibvhdiChecksVhd(tmp / "db01.vhd", kv["final"]));
  cat("/MAPPER/disk/base.vhd", tmp / "base.vhd");
  EXPECT_EQ("", tvutest::LibvhdiChecksVhd(tmp / "base.vhd", kv["head"]));
}

}  // namespace
