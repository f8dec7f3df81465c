// tvucon as an operator drives it: the chain checked before streaming, the
// new saveset's catalog driving a second consolidation and the tree, resumed
// and verified streams, and the command line's forms.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
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
using tvutest::WriteFile;

size_t Count(const std::string& haystack, const std::string& needle) {
  size_t n = 0;
  for (size_t at = haystack.find(needle); at != std::string::npos; at = haystack.find(needle, at + 1)) ++n;
  return n;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

struct Chain {
  std::string dir, con, ini, meta, catalog;
};

Chain MakeChain(const TempDir& tmp, const std::string& name = "chain") {
  Chain c;
  c.dir = tmp / name;
  ProcessResult r = RunProcess({BuiltProgram("mkchain"), "--out", c.dir, "--files", "120", "--total-bytes", "2000000",
                                "--incrementals", "3", "--seed", "11"});
  EXPECT_EQ(0, r.exitCode) << r.err;
  for (const std::string& line : Lines(ReadFile(c.dir + "/chain.txt"))) {
    if (line.rfind("consolidate=", 0) == 0) c.con = line.substr(12);
    if (line.rfind("ini=", 0) == 0) c.ini = line.substr(4);
  }
  c.meta = c.dir + "/tqslis/" + c.con + "_mnt/";
  c.catalog = c.meta + c.con + ".lsl";
  return c;
}

ProcessResult Tvucon(const Chain& c, const std::string& command, std::vector<std::string> args = {}) {
  std::vector<std::string> argv = {BuiltProgram("tvucon"), command, "--saveset", c.con, "--ini", c.ini, "--quiet"};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunProcess(argv);
}

// The fields of a catalog item line after the path.
std::vector<std::string> Fields(const std::string& line) {
  std::vector<std::string> f;
  std::istringstream in(line.substr(line.find('"', 1) + 2));
  for (std::string w; in >> w;) f.push_back(w);
  return f;
}

bool IsItem(const std::string& line) {
  return !line.empty() && line[0] == '"' && (Fields(line)[0] == "f" || Fields(line)[0] == "d");
}

// ---- the check -----------------------------------------------------------------

TEST(TvuconCheck, EveryKindOfCatalogProblemIsListedAndConsolidationRefused) {
  TempDir tmp;
  Chain c = MakeChain(tmp);
  ProcessResult r = Tvucon(c, "check");
  ASSERT_EQ(0, r.exitCode) << r.out << r.err;
  EXPECT_EQ("", r.out);

  // Item lines by number (1-based), and one pair of neighbours in one run.
  std::vector<std::string> lines = Lines(ReadFile(c.catalog));
  std::vector<size_t> items;
  for (size_t i = 0; i < lines.size(); ++i)
    if (IsItem(lines[i])) items.push_back(i);
  ASSERT_GT(items.size(), 20u);
  size_t pair = 0;
  for (size_t k = 2; k + 1 < items.size() && !pair; ++k)
    if (Fields(lines[items[k]]).back() == Fields(lines[items[k + 1]]).back() && Fields(lines[items[k]])[0] == "f")
      pair = k;
  ASSERT_NE(0u, pair);

  auto setField = [&](size_t index, size_t field, const std::string& value) {
    std::string& line = lines[index];
    size_t at = line.find('"', 1) + 2;
    for (size_t i = 0; i < field; ++i) at = line.find(' ', at) + 1;
    line.replace(at, line.find(' ', at) - at, value);
  };
  std::map<size_t, std::string> expected;  // line number -> part of the message
  // A line naming a saveset that is not in the list.
  setField(items[0], 11, "SI20991231000000");
  expected[items[0] + 1] = "is not in the saveset list";
  // A number that is none.
  setField(items[1], 7, "12x");
  expected[items[1] + 1] = "is not a number";
  // The second of two neighbours in one run goes back to the first's offset:
  // backward and shortening the run.
  setField(items[pair + 1], 5, Fields(lines[items[pair]])[5]);
  setField(items[pair + 1], 7, "1");
  expected[items[pair + 1] + 1] = "lines of one saveset must go forward";
  // A line past its saveset's end.
  setField(items[pair + 4], 5, "999999999");
  expected[items[pair + 4] + 1] = "past the end of saveset";
  // A line whose offset holds another item's record.
  const size_t moved = items[pair + 8];
  std::string movedSaveset = Fields(lines[moved]).back();
  for (size_t k : items)
    if (k != moved && Fields(lines[k]).back() == movedSaveset && Fields(lines[k])[0] == Fields(lines[moved])[0] &&
        k > moved) {
      setField(moved, 5, Fields(lines[k])[5]);
      break;
    }
  expected[moved + 1] = "not this line's item";
  std::string text;
  for (const std::string& l : lines) text += l + "\n";
  WriteFile(c.catalog, text);

  r = Tvucon(c, "check");
  EXPECT_EQ(1, r.exitCode);
  for (const auto& [line, what] : expected) {
    const std::string prefix = c.catalog + ":" + std::to_string(line) + ": ";
    bool found = false;
    for (const std::string& out : Lines(r.out)) found |= out.rfind(prefix, 0) == 0 && Contains(out, what);
    EXPECT_TRUE(found) << "line " << line << " (" << what << ") not reported:\n" << r.out;
  }
  EXPECT_TRUE(Contains(r.out, "shortened")) << r.out;

  // JSON: one object per problem, then the summary.
  r = Tvucon(c, "check", {"--json"});
  EXPECT_EQ(1, r.exitCode);
  std::vector<std::string> json = Lines(r.out);
  ASSERT_GE(json.size(), expected.size() + 1);
  for (size_t i = 0; i + 1 < json.size(); ++i) {
    nlohmann::json j = nlohmann::json::parse(json[i]);
    EXPECT_EQ(c.catalog, j["file"]);
    EXPECT_TRUE(j["line"].is_number());
  }
  nlohmann::json summary = nlohmann::json::parse(json.back())["summary"];
  EXPECT_EQ(json.size() - 1, summary["problems"].get<size_t>());

  // consolidate refuses; --no-check streams anyway (and the module stops at
  // the unknown saveset).
  r = Tvucon(c, "consolidate", {"-o", tmp / "out.cpio"});
  EXPECT_EQ(1, r.exitCode);
  EXPECT_TRUE(Contains(r.err, "not consolidating " + c.con)) << r.err;
  EXPECT_FALSE(fs::exists(tmp / "out.cpio"));
  r = Tvucon(c, "consolidate", {"-o", tmp / "out.cpio", "--no-check"});
  EXPECT_EQ(1, r.exitCode);
  EXPECT_TRUE(Contains(r.err, "Cannot find matching saveset for LIS/LSL line")) << r.err;
}

TEST(TvuconCheck, CatalogWithoutItemsAndMissingFilesAreNamed) {
  TempDir tmp;
  Chain c = MakeChain(tmp);
  std::string header = Lines(ReadFile(c.catalog))[0] + "\n";
  WriteFile(c.catalog, header);
  ProcessResult r = Tvucon(c, "check");
  EXPECT_EQ(1, r.exitCode);
  EXPECT_TRUE(Contains(r.out, c.catalog + ": the catalog lists no items")) << r.out;

  // An unknown saveset: said once, with the folder looked in as a Linux path.
  r = RunProcess({BuiltProgram("tvucon"), "consolidate", "-s", "SF20991231000000", "--ini", c.ini, "-o", tmp / "x"});
  EXPECT_EQ(1, r.exitCode);
  const std::string want = "no consolidation of SF20991231000000 exists: " + c.dir +
                           "/tqslis/SF20991231000000_mnt/consolidate.arg is missing";
  EXPECT_EQ(1u, Count(r.err, want)) << r.err;
  EXPECT_FALSE(Contains(r.err, "\\")) << r.err;
  r = RunProcess({BuiltProgram("tvucon"), "ls", "-s", "SF20991231000000", "--ini", c.ini});
  EXPECT_EQ(1, r.exitCode);
  EXPECT_EQ(1u, Count(r.err, want)) << r.err;

  // Tree mode names the saveset it cannot open.
  Chain d = MakeChain(tmp, "chain2");
  const std::string gone = d.dir + "/savesets/SF20261101020000.cpio";
  ASSERT_EQ(0, remove(gone.c_str()));
  r = Tvucon(d, "ls", {"/"});
  EXPECT_EQ(1, r.exitCode);
  EXPECT_TRUE(Contains(r.err, "saveset " + gone + " cannot be opened")) << r.err;
  r = Tvucon(d, "check");
  EXPECT_EQ(1, r.exitCode);
  EXPECT_TRUE(Contains(r.out, gone + ": the saveset cannot be opened")) << r.out;
}

// ---- the new catalog, resume, verify ------------------------------------------------

// A chain of one saveset: the consolidated stream and its catalog as the
// full backup of a new chain.
Chain ChainFromResult(const TempDir& tmp, const std::string& stream, const std::string& catalog,
                      const std::string& name) {
  Chain n;
  n.dir = tmp / "second";
  n.con = name;
  n.ini = n.dir + "/tq.ini";
  n.meta = n.dir + "/tqslis/" + name + "_mnt/";
  n.catalog = n.meta + name + ".lsl";
  fs::create_directories(n.meta);
  fs::create_directories(n.dir + "/savesets");
  fs::create_directories(n.dir + "/ini/xfpd_conf");
  fs::copy_file(stream, n.dir + "/savesets/" + name + ".cpio");
  fs::copy_file(catalog, n.catalog);
  WriteFile(n.meta + "savesets.txt", n.dir + "/savesets/" + name + ".cpio\n");
  WriteFile(n.meta + "consolidate.arg", "-f\n" + n.meta + "savesets.txt\n-l\n" + n.catalog +
                                            "\n-r\n/\n-t\ncpio\n-o\nno_vmdk_search=1\n");
  WriteFile(n.ini, "[pathes]\ngv_rw_tqslis=" + n.dir + "/tqslis/\ngv_rw_ini=" + n.dir + "/ini/\n");
  return n;
}

TEST(TvuconConsolidate, NewCatalogMakesTheResultTheFullOfANewChain) {
  TempDir tmp;
  Chain c = MakeChain(tmp);
  ProcessResult r = Tvucon(c, "consolidate", {"-o", tmp / "new.cpio", "--catalog", tmp / "new.lsl", "--catalog-name",
                                              "SF20261201020000", "--verify"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_TRUE(Contains(r.err, "records checked against their catalog lines, 0 problems")) << r.err;
  const std::string expected = ReadFile(c.dir + "/expected.cpio");
  const std::string stream = ReadFile(tmp / "new.cpio");
  ASSERT_GT(stream.size(), expected.size());
  EXPECT_TRUE(stream.compare(0, expected.size(), expected) == 0);
  EXPECT_TRUE(Contains(stream.substr(expected.size()), "TRAILER!!!"));

  Chain n = ChainFromResult(tmp, tmp / "new.cpio", tmp / "new.lsl", "SF20261201020000");
  r = Tvucon(n, "check");
  EXPECT_EQ(0, r.exitCode) << r.out << r.err;
  r = Tvucon(n, "consolidate", {"-o", tmp / "again.cpio", "--raw"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_TRUE(ReadFile(tmp / "again.cpio") == expected);
  r = Tvucon(n, "export", {"/", tmp / "tree"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_EQ(0, tvutest::Shell("diff -r '" + c.dir + "/final' '" + tmp.path() + "/tree'"));
}

TEST(TvuconConsolidate, ResumedStreamsEqualTheWholeOne) {
  TempDir tmp;
  Chain c = MakeChain(tmp);
  ProcessResult r = Tvucon(c, "consolidate", {"-o", tmp / "whole.cpio", "--catalog", tmp / "new.lsl"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  const std::string whole = ReadFile(tmp / "whole.cpio");

  // Run borders: where the saveset changes from one item line to the next;
  // the new catalog gives their offsets in the stream.
  std::vector<std::string> oldItems, newItems;
  for (const std::string& l : Lines(ReadFile(c.catalog)))
    if (IsItem(l)) oldItems.push_back(Fields(l).back());
  for (const std::string& l : Lines(ReadFile(tmp / "new.lsl")))
    if (IsItem(l)) newItems.push_back(Fields(l)[5]);
  ASSERT_EQ(oldItems.size(), newItems.size());
  std::vector<uint64_t> offsets = {0, 1, whole.size() - 600};
  for (size_t i = 1; i < oldItems.size() && offsets.size() < 9; ++i) {
    if (oldItems[i] == oldItems[i - 1]) continue;
    const uint64_t border = std::stoull(newItems[i]);
    offsets.push_back(border);
    offsets.push_back(border + 77);  // inside the run
  }
  for (uint64_t at : offsets) {
    SCOPED_TRACE(at);
    // What a cut run left behind, with some garbage after it.
    WriteFile(tmp / "cut.cpio", whole.substr(0, at) + std::string(at % 2 ? 100 : 0, 'x'));
    r = Tvucon(c, "consolidate", {"--output=" + (tmp / "cut.cpio"), "--resume-from", std::to_string(at)});
    ASSERT_EQ(0, r.exitCode) << r.err;
    EXPECT_TRUE(ReadFile(tmp / "cut.cpio") == whole);
  }
  WriteFile(tmp / "short.cpio", whole.substr(0, 10));
  r = Tvucon(c, "consolidate", {"-o", tmp / "short.cpio", "--resume-from", "20"});
  EXPECT_EQ(1, r.exitCode);
  EXPECT_TRUE(Contains(r.err, "holds only 10 bytes")) << r.err;
}

TEST(TvuconConsolidate, VerifyCatchesASavesetChangedAfterTheCheck) {
  TempDir tmp;
  Chain c = MakeChain(tmp);
  ASSERT_EQ(0, Tvucon(c, "check").exitCode);
  // The name of the first item's record in its saveset changes.
  std::string first;
  for (const std::string& l : Lines(ReadFile(c.catalog)))
    if (IsItem(l)) {
      first = l;
      break;
    }
  const std::string saveset = c.dir + "/savesets/" + Fields(first).back() + ".cpio";
  std::string bytes = ReadFile(saveset);
  const size_t nameAt = std::stoull(Fields(first)[5]) + 110;  // newc header
  bytes[nameAt] = bytes[nameAt] == 'q' ? 'r' : 'q';
  WriteFile(saveset, bytes);
  ProcessResult r = Tvucon(c, "consolidate", {"-o", tmp / "out.cpio", "--no-check", "--verify"});
  EXPECT_EQ(1, r.exitCode);
  EXPECT_TRUE(Contains(r.err, "tvucon: verify: stream offset 0 (catalog line ")) << r.err;
  EXPECT_TRUE(Contains(r.err, "records checked against their catalog lines, 1 problem")) << r.err;
}

// ---- the command line ------------------------------------------------------------

TEST(TvuconCommandLine, HelpVersionOptionFormsAndPaths) {
  const std::string tvucon = BuiltProgram("tvucon");
  ProcessResult r = RunProcess({tvucon, "--help"});
  EXPECT_EQ(0, r.exitCode);
  for (const char* cmd : {"consolidate", "check", "ls", "find", "export", "mount"}) EXPECT_TRUE(Contains(r.out, cmd));
  r = RunProcess({tvucon, "consolidate", "-h"});
  EXPECT_EQ(0, r.exitCode);
  EXPECT_TRUE(Contains(r.out, "--resume-from")) << r.out;
  r = RunProcess({tvucon, "--version"});
  EXPECT_EQ(0, r.exitCode);
  EXPECT_TRUE(Contains(r.out, "tvucon 5.2.0.16")) << r.out;
  r = RunProcess({tvucon, "ls", "--saveset", "X", "--no-such-option"});
  EXPECT_EQ(2, r.exitCode);
  r = RunProcess({tvucon});
  EXPECT_EQ(2, r.exitCode);
  r = RunProcess({tvucon, "export", "-s", "X", "/only-one"});
  EXPECT_EQ(2, r.exitCode);

  TempDir tmp;
  Chain c = MakeChain(tmp);
  // Shared options before the command, --opt=value, short forms.
  r = RunProcess({tvucon, "--saveset=" + c.con, "--ini", c.ini, "find", "--paths", "/demo"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  std::vector<std::string> paths = Lines(r.out);
  ASSERT_FALSE(paths.empty());
  EXPECT_EQ("/demo", paths[0]);
  size_t expected = 0;
  for (const auto& e : fs::recursive_directory_iterator(c.dir + "/final/demo")) expected += e.exists() ? 1 : 0;
  EXPECT_EQ(expected + 1, paths.size());
  r = RunProcess({tvucon, "find", "-0", "-s", c.con, "--ini=" + c.ini, "/demo"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_EQ(paths.size(), Count(r.out, std::string(1, '\0')));

  // Every path argument is used; "--" ends the options.
  const std::string file = paths[paths.size() - 1];
  r = Tvucon(c, "stat", {"--json", "--", "/demo", file});
  ASSERT_EQ(0, r.exitCode) << r.err;
  std::vector<std::string> objects = Lines(r.out);
  ASSERT_EQ(2u, objects.size()) << r.out;
  EXPECT_EQ("/demo", nlohmann::json::parse(objects[0])["path"]);
  nlohmann::json j = nlohmann::json::parse(objects[1]);
  EXPECT_EQ(file, j["path"]);
  EXPECT_EQ(fs::file_size(c.dir + "/final" + file), j["size"].get<uint64_t>());
  r = Tvucon(c, "ls", {"/demo", "/nonexistent", "/"});
  EXPECT_EQ(1, r.exitCode);
  EXPECT_TRUE(Contains(r.out, "/demo:\n")) << r.out;
  EXPECT_TRUE(Contains(r.out, "/:\n")) << r.out;
  EXPECT_TRUE(Contains(r.err, "/nonexistent: No such file or directory")) << r.err;
  r = Tvucon(c, "find", {"--json", "/demo"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  for (const std::string& line : Lines(r.out)) EXPECT_TRUE(nlohmann::json::parse(line).contains("size"));
}

TEST(TvuconExport, KeepsModificationTimesAndRefusesToOverwrite) {
  TempDir tmp;
  Chain c = MakeChain(tmp);
  ProcessResult r = Tvucon(c, "export", {"/demo", tmp / "out"});
  ASSERT_EQ(0, r.exitCode) << r.err;
  int checked = 0;
  for (const auto& e : fs::recursive_directory_iterator(tmp / "out")) {
    if (!e.is_regular_file() || checked >= 5) continue;
    const std::string rel = "/demo" + e.path().string().substr((tmp / "out").size());
    ProcessResult s = Tvucon(c, "stat", {"--json", rel});
    ASSERT_EQ(0, s.exitCode) << s.err;
    struct stat st;
    ASSERT_EQ(0, stat(e.path().c_str(), &st));
    EXPECT_EQ(nlohmann::json::parse(s.out)["mtime"].get<int64_t>(), static_cast<int64_t>(st.st_mtime)) << rel;
    ++checked;
  }
  EXPECT_EQ(5, checked);
  r = Tvucon(c, "export", {"/demo", tmp / "out"});
  EXPECT_EQ(1, r.exitCode);
  EXPECT_TRUE(Contains(r.err, "exists; not overwriting it")) << r.err;
  r = Tvucon(c, "export", {"--force", "/demo", tmp / "out"});
  EXPECT_EQ(0, r.exitCode) << r.err;
}

}  // namespace

namespace {

TEST(TvuconRules, UnknownAndIncompleteRulesAreWarnedAboutWithTheirLine) {
  TempDir tmp;
  Chain c = MakeChain(tmp);
  WriteFile(tmp / "rules.map", "# placed files\nMAPTO \"/copies\"\nLOCALFS f \"" + c.ini + "\" \"tq.ini\"\n"
                               "FROBNICATE f \"x\"\nSAVESET f\n");
  ProcessResult r = Tvucon(c, "ls", {"--rules", tmp / "rules.map", "/MAPPER/copies"});
  EXPECT_EQ(0, r.exitCode) << r.err;
  EXPECT_TRUE(Contains(r.out, "tq.ini")) << r.out;
  EXPECT_TRUE(Contains(r.err, tmp / "rules.map" + ":4: warning: unknown rule \"FROBNICATE\" is ignored")) << r.err;
  EXPECT_TRUE(Contains(r.err, tmp / "rules.map" + ":5: warning: SAVESET rule without a source")) << r.err;
  EXPECT_EQ(2u, Count(r.err, "warning"));
  r = Tvucon(c, "ls", {"--rules", tmp / "missing.map", "/"});
  EXPECT_EQ(1, r.exitCode);
  EXPECT_TRUE(Contains(r.err, "cannot read the rules file " + tmp / "missing.map")) << r.err;
}

}  // namespace
