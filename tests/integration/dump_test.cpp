// Dump chains end to end: chains of the committed dump fixtures, made by
// mkchain dump, read through tvucon's tree commands and compared with what
// Debian's restore extracts from the same dumps.  The fixtures were made with
// a loop device (scripts/make_dump_fixtures.sh), so these tests need none.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/dump_fixture.h"
#include "support/test_util.h"
#include "vfs/tq_vfs_api.h"
#include "platform/platform.h"

namespace fs = std::filesystem;

namespace {

using tvutest::Contains;
using tvutest::BuiltProgram;
using tvutest::DumpFixture;
using tvutest::ProcessResult;
using tvutest::ReadFile;
using tvutest::RunProcess;
using tvutest::Shell;
using tvutest::TempDir;

bool HaveRestore() { return Shell("command -v restore >/dev/null 2>&1") == 0; }

struct DumpChain {
  std::string dir, ini;
  const std::string con = "SFCONSOLIDATED";
};

DumpChain MakeChain(const TempDir& tmp, const std::vector<std::string>& fixtures) {
  DumpChain c;
  c.dir = tmp / "chain";
  c.ini = c.dir + "/tq.ini";
  std::vector<std::string> argv = {BuiltProgram("mkchain"), "dump", "--out", c.dir};
  for (const std::string& f : fixtures) argv.push_back(DumpFixture(f));
  ProcessResult r = RunProcess(argv);
  EXPECT_EQ(0, r.exitCode) << r.err;
  return c;
}

ProcessResult Tvucon(const DumpChain& c, std::vector<std::string> args) {
  std::vector<std::string> argv = {BuiltProgram("tvucon"), args[0], "--saveset", c.con, "--ini", c.ini};
  argv.insert(argv.end(), args.begin() + 1, args.end());
  return RunProcess(argv);
}

// restore -x of one dump (-a: no questions about volumes), or restore -r of a
// chain, into dir.
void Restore(const std::string& dir, const std::vector<std::string>& fixtures, bool chain) {
  fs::create_directories(dir);
  for (const std::string& f : fixtures) {
    ASSERT_EQ(0, Shell("cd '" + dir + "' && restore " + (chain ? "-r" : "-x -a") + " -y -f '" + DumpFixture(f) +
                       "' </dev/null >/dev/null 2>&1"))
        << f;
  }
  fs::remove(dir + "/restoresymtable");
}

class DumpFixtureTree : public ::testing::TestWithParam<std::pair<std::string, std::string>> {};

// A chain of one fixture shows every file restore -x extracts from it, with
// the same bytes, holes and sizes (the swapped copy: those of its original).
TEST_P(DumpFixtureTree, ExportMatchesRestore) {
  if (!HaveRestore()) GTEST_SKIP() << "restore is not installed";
  TempDir tmp;
  const DumpChain c = MakeChain(tmp, {GetParam().first});
  Restore(tmp / "restored", {GetParam().second}, false);
  ProcessResult r = Tvucon(c, {"export", "/", tmp / "out"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_EQ(0, Shell("diff -r '" + tmp.path() + "/restored' '" + tmp.path() + "/out'"));
}

INSTANTIATE_TEST_SUITE_P(Fixtures, DumpFixtureTree,
                         ::testing::Values(std::make_pair("level0.dump", "level0.dump"),
                                           std::make_pair("level1.dump", "level1.dump"),
                                           std::make_pair("level2.dump", "level2.dump")));

// The swapped copy cannot be listed by restore (its directories keep the
// original order), so its chain is the original's with the saveset replaced.
TEST(DumpTree, OtherByteOrderReadsTheSameFiles) {
  if (!HaveRestore()) GTEST_SKIP() << "restore is not installed";
  TempDir tmp;
  const DumpChain c = MakeChain(tmp, {"level0.dump"});
  for (const auto& e : fs::directory_iterator(c.dir + "/savesets")) {
    fs::remove(e.path());
    fs::copy_file(DumpFixture("level0swapped.dump"), e.path());
  }
  Restore(tmp / "restored", {"level0.dump"}, false);
  ProcessResult r = Tvucon(c, {"export", "/", tmp / "out"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_EQ(0, Shell("diff -r '" + tmp.path() + "/restored' '" + tmp.path() + "/out'"));
}

// The three levels as one chain: the tree is the final state restore -r
// builds; cat reads every file; the chain consolidates.
TEST(DumpTree, ChainReadsAsItsFinalState) {
  if (!HaveRestore()) GTEST_SKIP() << "restore is not installed";
  TempDir tmp;
  const std::vector<std::string> levels = {"level0.dump", "level1.dump", "level2.dump"};
  const DumpChain c = MakeChain(tmp, levels);
  Restore(tmp / "final", levels, true);
  ProcessResult r = Tvucon(c, {"export", "/", tmp / "out"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_EQ(0, Shell("diff -r '" + tmp.path() + "/final' '" + tmp.path() + "/out'"));

  int checked = 0;
  for (const auto& e : fs::recursive_directory_iterator(tmp / "final")) {
    if (!e.is_regular_file()) continue;
    const std::string rel = e.path().string().substr(tmp.path().size() + 6);  // "/final" dropped
    r = Tvucon(c, {"cat", rel});
    ASSERT_EQ(0, r.exitCode) << rel << ": " << r.err;
    EXPECT_TRUE(r.out == ReadFile(e.path().string())) << rel;
    ++checked;
  }
  EXPECT_EQ(13, checked);

  r = Tvucon(c, {"stat", "/data/big_sparse.bin"});  // the size is di_size, not the inode number
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_TRUE(Contains(r.out, "1677721")) << r.out;

  r = Tvucon(c, {"consolidate", "--output", tmp / "stream"});
  EXPECT_EQ(0, r.exitCode) << r.err;
}

// The library's tree interface in this process: every file of the chain's
// final state read in pieces of 1000 bytes, which start and end anywhere in
// a block, a hole or before a continuation header.
TEST(DumpTree, TreeInterfaceReadsInPiecesAsRestoreExtracts) {
  if (!HaveRestore()) GTEST_SKIP() << "restore is not installed";
  TempDir tmp;
  const std::vector<std::string> levels = {"level0.dump", "level1.dump", "level2.dump"};
  const DumpChain c = MakeChain(tmp, levels);
  Restore(tmp / "final", levels, true);
  pf::SetEnv("TQ_INI", c.ini.c_str());
  std::string error;
  ASSERT_EQ(0, tvu::Open(tvu::TreeOptions{c.con, false, ""}, &error)) << error;
  int checked = 0;
  for (const auto& e : fs::recursive_directory_iterator(tmp / "final")) {
    if (!e.is_regular_file()) continue;
    const std::string rel = e.path().string().substr(tmp.path().size() + 6);
    const std::string want = ReadFile(e.path().string());
    tvu::NodeInfo info;
    ASSERT_EQ(0, tvu::Stat(rel, &info)) << rel;
    EXPECT_EQ(want.size(), info.size) << rel;
    LIS_NODE* node = nullptr;
    ASSERT_EQ(0, tvu::Lookup(rel, &node)) << rel;
    std::string got;
    char buf[1000];
    for (int64_t n; (n = tvu::Read(node, got.size(), buf, sizeof buf)) > 0;) got.append(buf, static_cast<size_t>(n));
    EXPECT_TRUE(got == want) << rel;
    ++checked;
  }
  tvu::Close();
  pf::UnsetEnv("TQ_INI");
  EXPECT_EQ(13, checked);
}

// A compressed saveset of a dump chain ends the operation at open with the
// reason, in consolidation and in tree mode (a foreign one: dump_operation_test).
TEST(DumpTree, CompressedSavesetEndsTheOperation) {
  TempDir tmp;
  const DumpChain c = MakeChain(tmp, {"level0.dump"});
  std::string saveset;
  for (const auto& e : fs::directory_iterator(c.dir + "/savesets")) saveset = e.path().string();
  ASSERT_FALSE(saveset.empty());
  std::string tableName = saveset;  // the saveset table holds its names with backslashes
  for (char& ch : tableName) ch = ch == '/' ? '\\' : ch;
  const std::string notSupported =
      "ERROR: Saveset is not supported [" + tableName + "]. Not a valid UFS volume as requested with -t dump switch\n";

  fs::remove(saveset);
  fs::copy_file(DumpFixture("level0z.dump"), saveset);
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"consolidate", "--no-check", "--output", "/dev/null"},
        std::vector<std::string>{"ls", "/"}}) {
    ProcessResult r = Tvucon(c, command);
    EXPECT_EQ(1, r.exitCode) << command[0];
    EXPECT_TRUE(Contains(r.err, notSupported + "Compression not supported\n")) << command[0] << ": " << r.err;
  }
}

}  // namespace

namespace {

using tvutest::WriteFile;

// The check reads the inode header at every item's offset; a line moved off
// its header is named, and the stream of a good chain verifies.
TEST(DumpCheck, LinesOffTheirInodeHeaderAreNamedAndTheStreamVerifies) {
  if (!HaveRestore()) GTEST_SKIP() << "restore is not installed";
  TempDir tmp;
  DumpChain c = MakeChain(tmp, {"level0.dump", "level1.dump"});
  ProcessResult r = Tvucon(c, {"consolidate", "-o", tmp / "stream", "--verify", "--catalog", tmp / "new.lsl"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_TRUE(Contains(r.err, "records checked against their catalog lines, 0 problems")) << r.err;
  EXPECT_TRUE(Contains(ReadFile(tmp / "new.lsl"), "Format: DUMP LIS: 2.0\n"));

  const std::string catalog = c.dir + "/tqslis/SFCONSOLIDATED_mnt/SFCONSOLIDATED.lsl";
  std::string text = ReadFile(catalog);
  // The first file line: its offset one record further, into its data.
  size_t line = text.find("\" f ");
  ASSERT_NE(std::string::npos, line);
  size_t lineNo = 1 + std::count(text.begin(), text.begin() + static_cast<long>(line), '\n');
  size_t at = line + 4;
  for (int i = 0; i < 4; ++i) at = text.find(' ', at) + 1;
  size_t end = text.find(' ', at);
  const uint64_t offset = std::stoull(text.substr(at, end - at));
  text.replace(at, end - at, std::to_string(offset + 1024));
  WriteFile(catalog, text);
  r = Tvucon(c, {"check"});
  EXPECT_EQ(1, r.exitCode);
  EXPECT_TRUE(Contains(r.out, catalog + ":" + std::to_string(lineNo) + ": ")) << r.out;
  // Into a data record, or onto the next item's header with too short a span.
  EXPECT_TRUE(Contains(r.out, "no dump header") || Contains(r.out, "no inode header") ||
              Contains(r.out, "and its data need"))
      << r.out;
}

}  // namespace
