// End-to-end tests: generated chains consolidated by the tvucon client (a
// real process loading the module), the stream compared byte for byte with the
// expected concatenation and extracted by GNU cpio and bsdtar; and the failure
// paths, each in its own process, with their exit status, messages and
// status-file line.
#include <gtest/gtest.h>

#include <fstream>
#include <ostream>
#include <map>
#include <string>
#include <vector>

#include "support/test_util.h"

namespace {

using tvutest::Contains;
using tvutest::BuiltProgram;
using tvutest::ProcessResult;
using tvutest::ReadFile;
using tvutest::RunProcess;
using tvutest::TempDir;
using tvutest::WriteFile;

struct Chain {
  std::string dir;      // the chain folder
  std::string con;      // name of the saveset to consolidate
  std::string meta;     // its meta files folder
  std::string catalog;  // the consolidated catalog
  std::string ini;
};

std::map<std::string, std::string> ReadKeyValues(const std::string& path) {
  std::map<std::string, std::string> kv;
  std::ifstream f(path);
  std::string line;
  while (std::getline(f, line)) {
    size_t eq = line.find('=');
    if (eq != std::string::npos) kv[line.substr(0, eq)] = line.substr(eq + 1);
  }
  return kv;
}

Chain MakeChain(const TempDir& tmp, std::vector<std::string> options) {
  Chain c;
  c.dir = tmp / "chain";
  std::vector<std::string> argv = {BuiltProgram("mkchain"), "--out", c.dir, "--files", "160", "--total-bytes",
                                   "3000000", "--seed", "7"};
  argv.insert(argv.end(), options.begin(), options.end());
  ProcessResult r = RunProcess(argv);
  EXPECT_EQ(0, r.exitCode) << r.err;
  auto kv = ReadKeyValues(c.dir + "/chain.txt");
  c.con = kv["consolidate"];
  c.ini = kv["ini"];
  c.meta = c.dir + "/tqslis/" + c.con + "_mnt/";
  c.catalog = c.meta + c.con + (kv["catalog"].rfind("lis", 0) == 0 ? ".lis" : ".lsl");
  return c;
}

ProcessResult Consolidate(const Chain& c, const std::string& out, std::vector<std::string> extra = {}) {
  std::vector<std::string> argv = {BuiltProgram("tvucon"), "consolidate", "--saveset", c.con, "--ini", c.ini,
                                   "--output", out, "--quiet"};
  argv.insert(argv.end(), extra.begin(), extra.end());
  return RunProcess(argv);
}

// ---- the stream, flavour by flavour ----------------------------------------

struct Flavour {
  const char* name;
  const char* format;
  const char* catalog;
  bool extractable;  // a format GNU cpio and bsdtar read
};

void PrintTo(const Flavour& f, std::ostream* os) { *os << f.name; }

class ConsolidateFlavour : public ::testing::TestWithParam<Flavour> {};

TEST_P(ConsolidateFlavour, StreamIsTheExpectedConcatenationAndExtractsToTheFinalState) {
  const Flavour& f = GetParam();
  TempDir tmp;
  Chain c = MakeChain(tmp, {"--format", f.format, "--catalog", f.catalog});
  const std::string expected = ReadFile(c.dir + "/expected.cpio");
  ASSERT_FALSE(expected.empty());

  ProcessResult r = Consolidate(c, tmp / "out.cpio", {"--raw"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_TRUE(ReadFile(tmp / "out.cpio") == expected) << "stream differs from the expected concatenation";
  EXPECT_FALSE(tvutest::FileExists(c.meta + "tvu_con.status"));

  // Block sizes that cut records anywhere deliver the same bytes.
  for (const char* block : {"1000", "4096"}) {
    r = Consolidate(c, tmp / "small.cpio", {"--raw", "--block-size", block});
    ASSERT_EQ(0, r.exitCode) << r.err;
    EXPECT_TRUE(ReadFile(tmp / "small.cpio") == expected) << "block size " << block;
  }

  if (!f.extractable) return;
  r = Consolidate(c, tmp / "closed.cpio", {"--close-archive"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  const std::string closed = tmp / "closed.cpio";
  EXPECT_EQ(0, tvutest::Shell("mkdir -p '" + tmp.path() + "/gnu' && cd '" + tmp.path() +
                              "/gnu' && cpio -idm --quiet < '" + closed + "' 2>'" + tmp.path() + "/cpio.err'"))
      << ReadFile(tmp / "cpio.err");
  EXPECT_EQ("", ReadFile(tmp / "cpio.err"));
  EXPECT_EQ(0, tvutest::Shell("diff -r '" + c.dir + "/final' '" + tmp.path() + "/gnu'"));
  EXPECT_EQ(0, tvutest::Shell("mkdir -p '" + tmp.path() + "/bsd' && bsdtar -xf '" + closed + "' -C '" + tmp.path() +
                              "/bsd'"));
  EXPECT_EQ(0, tvutest::Shell("diff -r '" + c.dir + "/final' '" + tmp.path() + "/bsd'"));
}

INSTANTIATE_TEST_SUITE_P(Chains, ConsolidateFlavour,
                         ::testing::Values(Flavour{"newc_lslv2", "newc", "lslv2", true},
                                           Flavour{"odc_lslv2", "odc", "lslv2", true},
                                           Flavour{"ext_lslv2", "ext", "lslv2", false},
                                           Flavour{"newc_lsl", "newc", "lsl", true},
                                           Flavour{"odc_lsl", "odc", "lsl", true},
                                           Flavour{"newc_lisv2", "newc", "lisv2", true},
                                           Flavour{"odc_lisv1", "odc", "lisv1", true}),
                         [](const ::testing::TestParamInfo<Flavour>& p) { return std::string(p.param.name); });

// ---- failures ---------------------------------------------------------------

class ConsolidateFailure : public ::testing::Test {
 protected:
  void SetUp() override { chain_ = MakeChain(tmp_, {"--incrementals", "2"}); }
  std::string Status() { return ReadFile(chain_.meta + "tvu_con.status"); }
  void AppendCatalogLine(const std::string& line) {
    std::ofstream f(chain_.catalog, std::ios::app);
    f << line << "\n";
  }
  TempDir tmp_;
  Chain chain_;
};

TEST_F(ConsolidateFailure, UnknownCatalogTypeEndsTheProcess) {
  std::string renamed = chain_.meta + chain_.con + ".txt";
  ASSERT_EQ(0, rename(chain_.catalog.c_str(), renamed.c_str()));
  WriteFile(chain_.meta + "consolidate.arg",
            "-f\n" + chain_.meta + "savesets.txt\n-l\n" + renamed + "\n-t\ncpio\n");
  ProcessResult r = Consolidate(chain_, tmp_ / "out.cpio");
  EXPECT_EQ(1, r.exitCode);
  EXPECT_TRUE(Contains(r.err, "ERROR: Unknown catalog type [.txt]. Expected extensions .lis, .lsl., .lnd Aborting\n"))
      << r.err;
  EXPECT_TRUE(Contains(Status(), " ERROR INFO=")) << Status();
  EXPECT_TRUE(Contains(Status(), "Unknown catalog type [.txt]")) << Status();
}

TEST_F(ConsolidateFailure, CatalogLineNamingAnUnknownSavesetEndsTheProcess) {
  AppendCatalogLine(
      "\"demo/zz\" f 2026-11-01 01:00:00 2026-11-01 01:00:00 0 112 116 4 9 0 SI20991231000000 ");
  // The module's own handling, without the check that would refuse first.
  ProcessResult r = Consolidate(chain_, tmp_ / "out.cpio", {"--no-check"});
  EXPECT_EQ(1, r.exitCode);
  EXPECT_TRUE(Contains(r.err, "Cannot find matching saveset for LIS/LSL line: ")) << r.err;
  EXPECT_TRUE(Contains(r.err, "Known savesets:\nSF20261101020000.cpio\nSI20261102020000.cpio\n")) << r.err;
  EXPECT_TRUE(Contains(Status(), "ERROR INFO=Cannot find matching saveset for LIS/LSL line: ")) << Status();
}

TEST_F(ConsolidateFailure, MissingSavesetFileEndsTheProcess) {
  std::string gone = chain_.dir + "/savesets/SI20261102020000.cpio";
  ASSERT_EQ(0, remove(gone.c_str()));
  ProcessResult r = Consolidate(chain_, tmp_ / "out.cpio", {"--no-check"});
  EXPECT_EQ(1, r.exitCode);
  std::string dosName = gone;
  for (char& ch : dosName)
    if (ch == '/') ch = '\\';
  EXPECT_TRUE(Contains(Status(), "ERROR INFO=Cannot open saveset [" + dosName + "] error = 2\n")) << Status();
  EXPECT_TRUE(Contains(r.err, "Cannot open saveset [" + dosName + "] error = 2")) << r.err;
}

TEST_F(ConsolidateFailure, PathOfMoreThan4094CharactersEndsTheProcess) {
  std::string path = "demo/" + std::string(4090, 'p');  // 4095 characters
  AppendCatalogLine("\"" + path + "\" f 2026-11-01 01:00:00 2026-11-01 01:00:00 0 112 116 4 9 0 SF20261101020000 ");
  ProcessResult r = Consolidate(chain_, tmp_ / "out.cpio", {"--no-check"});
  EXPECT_EQ(1, r.exitCode);
  EXPECT_TRUE(Contains(r.err, "LIS entry [" + path + "] is longer than 4094 [MAX_LIS_ENTRY_PATH]")) << r.err.substr(0, 300);
  EXPECT_TRUE(Contains(Status(), "is longer than 4094 [MAX_LIS_ENTRY_PATH]"));
}

TEST_F(ConsolidateFailure, MissingArgumentFileOrSavesetListIsReported) {
  Chain other = chain_;
  other.con = "SF20991231000000";
  ProcessResult r = Consolidate(other, tmp_ / "out.cpio");
  EXPECT_EQ(1, r.exitCode);
  EXPECT_TRUE(Contains(r.err, "no consolidation of SF20991231000000 exists: " + chain_.dir +
                                  "/tqslis/SF20991231000000_mnt/consolidate.arg is missing"))
      << r.err;

  ASSERT_EQ(0, remove((chain_.meta + "savesets.txt").c_str()));
  r = Consolidate(chain_, tmp_ / "out.cpio");
  EXPECT_EQ(1, r.exitCode);
  EXPECT_TRUE(Contains(r.err, "Cannot read from [" + chain_.meta + "savesets.txt]"))
      << r.err;
}

TEST_F(ConsolidateFailure, TruncatedSavesetFailsTheStreamWithoutATrailer) {
  std::string full = chain_.dir + "/savesets/SF20261101020000.cpio";
  std::string bytes = ReadFile(full);
  WriteFile(full, bytes.substr(0, bytes.size() / 2));
  ProcessResult r = Consolidate(chain_, tmp_ / "out.cpio", {"--no-check", "--close-archive"});
  EXPECT_EQ(1, r.exitCode);
  EXPECT_TRUE(Contains(r.err, "SF20261101020000.cpio] ends before its catalog says")) << r.err;
  std::string out = ReadFile(tmp_ / "out.cpio");
  EXPECT_FALSE(Contains(out, "TRAILER!!!"));
}

TEST(Tvucon, InfoAndUsage) {
  ProcessResult r = RunProcess({BuiltProgram("tvucon"), "info"});
  EXPECT_EQ(0, r.exitCode) << r.err;
  EXPECT_TRUE(Contains(r.out, "description: KORVO Backup Saveset Consolidation using VFS API Client\n"));
  EXPECT_TRUE(Contains(r.out, "version: 5.2.0.16\n"));
  r = RunProcess({BuiltProgram("tvucon"), "consolidate"});
  EXPECT_EQ(2, r.exitCode);
  EXPECT_TRUE(Contains(r.err, "consolidate needs --saveset NAME"));
  r = RunProcess({BuiltProgram("tvucon"), "info", "--module", "/nonexistent/libtvu_con.so"});
  EXPECT_EQ(1, r.exitCode);
  EXPECT_TRUE(Contains(r.err, "cannot load module"));
}

}  // namespace
