// MTF chains end to end: chains of MTF savesets made by mkchain mtf, whose
// catalogs leave every item to be located in its data set, consolidated by
// tvucon and read back as one tree (the mount: mount_test's formats), with a
// virtual machine disk rebuilt from changed-block files kept in MTF savesets,
// Hyper-V images merged by mapper rules, and a damaged block that fails its
// own file and no other.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support/test_util.h"

namespace fs = std::filesystem;

namespace {

using tvutest::BuiltProgram;
using tvutest::ProcessResult;
using tvutest::ReadFile;
using tvutest::RunProcess;
using tvutest::Shell;
using tvutest::TempDir;

class MtfChain {
 public:
  MtfChain(const TempDir& tmp, std::vector<std::string> options) : dir_(tmp / "chain") {
    std::vector<std::string> argv = {BuiltProgram("mkchain"), "mtf", "--out", dir_};
    argv.insert(argv.end(), options.begin(), options.end());
    ProcessResult r = RunProcess(argv);
    EXPECT_EQ(0, r.exitCode) << r.err;
    std::ifstream f(dir_ + "/chain.txt");
    for (std::string line; std::getline(f, line);) {
      const size_t eq = line.find('=');
      if (eq != std::string::npos) kv_[line.substr(0, eq)] = line.substr(eq + 1);
    }
  }
  ProcessResult Tvucon(std::vector<std::string> args) const {
    std::vector<std::string> argv = {BuiltProgram("tvucon"), args[0], "--saveset", kv_.at("consolidate"), "--ini",
                                     kv_.at("ini")};
    argv.insert(argv.end(), args.begin() + 1, args.end());
    return RunProcess(argv);
  }
  std::string Catalog() const {
    const std::string con = kv_.at("consolidate");
    return dir_ + "/tqslis/" + con + "_mnt/" + con + ".lsl";
  }
  const std::string& dir() const { return dir_; }
  std::string kv(const std::string& key) const { return kv_.count(key) ? kv_.at(key) : ""; }

 private:
  std::string dir_;
  std::map<std::string, std::string> kv_;
};

// The numbers and saveset of a catalog item line, by path.
struct Line {
  char type;
  uint64_t offset;
  std::vector<std::string> numbers;
  std::string saveset;
};
std::map<std::string, Line> CatalogLines(const std::string& catalog) {
  std::map<std::string, Line> lines;
  std::ifstream f(catalog);
  for (std::string text; std::getline(f, text);) {
    if (text.empty() || text[0] != '"') continue;
    const size_t close = text.find('"', 1);
    std::istringstream rest(text.substr(close + 2));
    Line l;
    std::string date;
    rest >> l.type >> date >> date >> date >> date;
    for (int i = 0; i < 6; ++i) {
      l.numbers.emplace_back();
      rest >> l.numbers.back();
    }
    rest >> l.saveset;
    l.offset = std::stoull(l.numbers[0]);
    lines[text.substr(1, close - 1)] = l;
  }
  return lines;
}

TEST(MtfChainTest, ConsolidatesToTheCatalogsRunsAndReadsBackAsTheFinalState) {
  TempDir tmp;
  const MtfChain c(tmp, {"--files", "150", "--total-bytes", "2500000", "--incrementals", "3", "--seed", "9"});
  ASSERT_EQ("mtf", c.kv("format"));

  // The catalog leaves every item to the entry update: "OFFSET 0 SPAN 0 0 0".
  const auto lines = CatalogLines(c.Catalog());
  ASSERT_GT(lines.size(), 150u);
  for (const auto& kv : lines)
    ASSERT_EQ((std::vector<std::string>{kv.second.numbers[0], "0", kv.second.numbers[2], "0", "0", "0"}),
              kv.second.numbers)
        << kv.first;

  // The pre-flight walks every file's FILE block and streams and finds nothing.
  ProcessResult r = c.Tvucon({"check"});
  ASSERT_EQ(0, r.exitCode) << r.out << r.err;

  // Verified as it goes out, with the new saveset's catalog.
  r = c.Tvucon({"consolidate", "--raw", "--verify", "--catalog", tmp / "new.lsl", "--output", tmp / "out.mtf",
                "--quiet"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_NE(std::string::npos, ReadFile(tmp / "new.lsl").find("Format: MTF LIS: 2.0"));
  const std::string expected = ReadFile(c.dir() + "/expected.mtf");
  ASSERT_FALSE(expected.empty());
  EXPECT_TRUE(ReadFile(tmp / "out.mtf") == expected) << "the stream is not the catalog's runs";

  r = c.Tvucon({"export", "/", tmp / "out"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_EQ(0, Shell("diff -r '" + c.dir() + "/final' '" + tmp.path() + "/out'"));

  int checked = 0, empty = 0;
  for (const auto& e : fs::recursive_directory_iterator(c.dir() + "/final")) {
    if (!e.is_regular_file()) continue;
    const std::string rel = e.path().string().substr(c.dir().size() + 6);  // "/final" dropped
    r = c.Tvucon({"cat", rel});
    ASSERT_EQ(0, r.exitCode) << rel << ": " << r.err;
    EXPECT_TRUE(r.out == ReadFile(e.path().string())) << rel;
    empty += e.file_size() == 0;
    ++checked;
  }
  EXPECT_GT(checked, 140);
  EXPECT_GT(empty, 0) << "the chain should hold empty files (no data stream)";
}

// A FILE block whose header checksum is damaged: reading that file fails and
// says why; the other files of the same saveset still read.
TEST(MtfChainTest, DamagedBlockFailsItsFileOnly) {
  TempDir tmp;
  const MtfChain c(tmp, {"--files", "40", "--total-bytes", "400000", "--incrementals", "0", "--seed", "4"});
  const auto lines = CatalogLines(c.Catalog());
  std::string victim, other;
  for (const auto& kv : lines) {
    if (kv.second.type != 'f' || fs::file_size(c.dir() + "/final/" + kv.first) == 0) continue;
    (victim.empty() ? victim : other) = kv.first;
    if (!other.empty()) break;
  }
  ASSERT_FALSE(other.empty());
  std::string saveset;
  for (const auto& e : fs::directory_iterator(c.dir() + "/savesets")) saveset = e.path().string();
  std::string bytes = ReadFile(saveset);
  bytes[lines.at(victim).offset + 30] ^= 0x10;
  tvutest::WriteFile(saveset, bytes);

  ProcessResult r = c.Tvucon({"cat", "/" + victim});
  EXPECT_NE(0, r.exitCode);
  EXPECT_NE(std::string::npos, r.err.find("header checksum")) << r.err;
  // The pre-flight finds it too, and a consolidation is refused.
  r = c.Tvucon({"check"});
  EXPECT_EQ(1, r.exitCode);
  EXPECT_NE(std::string::npos, (r.out + r.err).find("header checksum")) << r.out << r.err;
  EXPECT_EQ(1, c.Tvucon({"consolidate", "--raw", "--output", tmp / "out.mtf", "--quiet"}).exitCode);
  // Streamed without the check, the verification finds the block.
  r = c.Tvucon({"consolidate", "--no-check", "--raw", "--verify", "--output", tmp / "out.mtf", "--quiet"});
  EXPECT_EQ(1, r.exitCode);
  EXPECT_NE(std::string::npos, (r.out + r.err).find("header checksum")) << r.out << r.err;
  r = c.Tvucon({"cat", "/" + other});
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_TRUE(r.out == ReadFile(c.dir() + "/final/" + other));
}

// Changed-block files kept in MTF savesets rebuild the disk.
TEST(MtfChainTest, VirtualMachineDiskFromMtfSavesets) {
  TempDir tmp;
  const MtfChain c(tmp, {"--files", "30", "--total-bytes", "300000", "--incrementals", "2", "--vm-disk", "4194304",
                         "--seed", "6"});
  ASSERT_FALSE(c.kv("vm_disk").empty());
  ProcessResult r = c.Tvucon({"cat", "/VMDK/" + c.kv("vm_disk")});
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_TRUE(r.out == ReadFile(c.kv("vm_final"))) << "rebuilt disk differs (" << r.out.size() << " bytes)";
}

// VHDXMERGE rules name catalog lines of MTF savesets: the mapper locates each
// image before it merges them, and qemu-img reads the result as the disk's
// final state.
TEST(MtfChainTest, MapperMergesHyperVImagesFromMtfSavesets) {
  if (Shell("command -v qemu-img >/dev/null 2>&1") != 0) GTEST_SKIP() << "qemu-img is not installed";
  TempDir tmp;
  const MtfChain c(tmp, {"--files", "20", "--total-bytes", "200000", "--incrementals", "2", "--hv-disk", "67108864",
                         "--seed", "2", "--no-expected"});
  ASSERT_FALSE(c.kv("hv_rules").empty());
  ProcessResult r = c.Tvucon({"cat", "--rules", c.kv("hv_rules"), "/MAPPER/hv/web02.vhdx"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  tvutest::WriteFile(tmp / "merged.vhdx", r.out);
  EXPECT_EQ(0, Shell("qemu-img compare -q -f vhdx -F raw '" + tmp.path() + "/merged.vhdx' '" + c.kv("hv_final") + "'"));
}

}  // namespace
