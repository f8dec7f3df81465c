// Tree mode end to end: the chain as one file tree through tvucon's tree
// commands, every file read back byte-identical to the chain's final state.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "support/test_util.h"

namespace fs = std::filesystem;

namespace {

using tvutest::Contains;
using tvutest::BuiltProgram;
using tvutest::ProcessResult;
using tvutest::ReadFile;
using tvutest::RunProcess;
using tvutest::TempDir;

struct TreeChain {
  std::string dir, con, ini;
};

TreeChain MakeChain(const TempDir& tmp, const std::string& format) {
  TreeChain c;
  c.dir = tmp / "chain";
  ProcessResult r = RunProcess({BuiltProgram("mkchain"), "--out", c.dir, "--format", format, "--files", "180",
                                "--total-bytes", "3000000", "--seed", "5", "--no-expected"});
  EXPECT_EQ(0, r.exitCode) << r.err;
  std::ifstream f(c.dir + "/chain.txt");
  std::string line;
  while (std::getline(f, line)) {
    if (line.rfind("consolidate=", 0) == 0) c.con = line.substr(12);
    if (line.rfind("ini=", 0) == 0) c.ini = line.substr(4);
  }
  return c;
}

ProcessResult Tree(const TreeChain& c, std::vector<std::string> args) {
  std::vector<std::string> argv = {BuiltProgram("tvucon"), args[0], "--saveset", c.con, "--ini", c.ini};
  argv.insert(argv.end(), args.begin() + 1, args.end());
  return RunProcess(argv);
}

class TreeFormat : public ::testing::TestWithParam<std::string> {};

TEST_P(TreeFormat, EveryFileReadsBackAsInTheFinalState) {
  TempDir tmp;
  TreeChain c = MakeChain(tmp, GetParam());

  // export: the whole tree to a folder, compared with the final state.
  ProcessResult r = Tree(c, {"export", "/", tmp / "out"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_EQ(0, tvutest::Shell("diff -r '" + c.dir + "/final' '" + tmp.path() + "/out'"));

  // cat: every file, byte for byte (names with blanks and UTF-8 among them).
  int checked = 0;
  for (const auto& e : fs::recursive_directory_iterator(c.dir + "/final")) {
    if (!e.is_regular_file()) continue;
    std::string rel = e.path().string().substr(c.dir.size() + 6);  // "/final" dropped
    r = Tree(c, {"cat", rel});
    ASSERT_EQ(0, r.exitCode) << rel << ": " << r.err;
    EXPECT_TRUE(r.out == ReadFile(e.path().string())) << rel;
    ++checked;
  }
  EXPECT_GT(checked, 150);
}

INSTANTIATE_TEST_SUITE_P(Formats, TreeFormat, ::testing::Values("newc", "odc", "ext"));

TEST(TreeCommands, ListStatFindAndErrors) {
  TempDir tmp;
  TreeChain c = MakeChain(tmp, "newc");

  ProcessResult r = Tree(c, {"ls", "/"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_TRUE(Contains(r.out, " demo\n")) << r.out;

  // A file whose catalog line carries its data offset, and one that is
  // located in its stream: both report where their newest copy lies.
  r = Tree(c, {"ls", "/demo"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_TRUE(Contains(r.out, ".cpio")) << r.out;

  r = Tree(c, {"stat", "/DEMO"});  // names compare without regard to case
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_TRUE(Contains(r.out, "type: d\n")) << r.out;

  r = Tree(c, {"find"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  size_t lines = 0;
  for (char ch : r.out) lines += ch == '\n';
  size_t expected = 0;
  for (const auto& e : fs::recursive_directory_iterator(c.dir + "/final")) expected += e.exists() ? 1 : 0;
  EXPECT_EQ(expected, lines);

  r = Tree(c, {"cat", "/demo/no such file"});
  EXPECT_EQ(1, r.exitCode);
  EXPECT_TRUE(Contains(r.err, "No such file or directory")) << r.err;
  r = Tree(c, {"cat", "/demo"});
  EXPECT_EQ(1, r.exitCode);
  EXPECT_TRUE(Contains(r.err, "Is a directory")) << r.err;
  r = RunProcess({BuiltProgram("tvucon"), "ls", "--saveset", "SF20991231000000", "--ini", c.ini, "/"});
  EXPECT_EQ(1, r.exitCode);
  EXPECT_TRUE(Contains(r.err, "no consolidation of SF20991231000000 exists: ")) << r.err;
}

// The library prints notes on standard output ("Building cache..."); the
// data a command writes there must come out alone, the notes on standard error.
TEST(TreeCommands, StandardOutputCarriesTheDataAlone) {
  TempDir tmp;
  TreeChain c = MakeChain(tmp, "newc");
  std::string rel, want;
  for (const auto& e : fs::recursive_directory_iterator(c.dir + "/final"))
    if (e.is_regular_file() && e.file_size() > 0) {
      rel = e.path().string().substr(c.dir.size() + 6);
      want = ReadFile(e.path().string());
      break;
    }
  ASSERT_FALSE(rel.empty());

  ProcessResult r = Tree(c, {"cat", "--build-cache", rel});
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_TRUE(r.out == want) << rel << ": " << r.out.substr(0, 200);
  EXPECT_TRUE(Contains(r.err, "Building cache. This might take a while... \n")) << r.err;

  r = Tree(c, {"ls", "--build-cache", "/demo"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_FALSE(Contains(r.out, "Cache built")) << r.out;
  EXPECT_TRUE(Contains(r.err, "Cache built")) << r.err;
}

// A saveset cut after the catalog was written: every file whose size the
// catalog gives reads back whole or fails naming its path; none comes out
// short with success.
TEST(TreeCommands, CutSavesetFailsTheReadsItCannotServe) {
  TempDir tmp;
  TreeChain c = MakeChain(tmp, "newc");
  const std::string catalog = c.dir + "/tqslis/" + c.con + "_mnt/" + c.con + ".lsl";
  const std::set<std::string> files = tvutest::FilesWithDataOffset(catalog);
  ASSERT_GT(files.size(), 20u);
  for (const auto& e : fs::directory_iterator(c.dir + "/savesets"))
    fs::resize_file(e.path(), e.file_size() / 2);

  int failed = 0, whole = 0;
  for (const std::string& rel : files) {
    ProcessResult r = Tree(c, {"cat", rel});
    if (r.exitCode == 0) {
      EXPECT_TRUE(r.out == ReadFile(c.dir + "/final" + rel)) << rel << " read back differently";
      ++whole;
    } else {
      EXPECT_EQ(1, r.exitCode) << rel;
      EXPECT_TRUE(Contains(r.err, "tvucon: " + rel + ": ")) << r.err;
      ++failed;
    }
  }
  EXPECT_GT(failed, 0);
  EXPECT_GT(whole, 0);

  ProcessResult r = Tree(c, {"export", "/", tmp / "out"});
  EXPECT_EQ(1, r.exitCode);
  EXPECT_TRUE(Contains(r.err, "tvucon: /demo/")) << r.err;
}

}  // namespace
