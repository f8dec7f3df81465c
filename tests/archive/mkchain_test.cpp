// Tests of the chain generator: runs mkchain on small chains and checks its
// output with code of its own: catalog numbers against the saveset bytes,
// the consolidated catalog against the final tree, the consumer's run rule
// against expected.cpio, and GNU cpio's extraction against final/.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>

#include "archive/archive_test_util.h"
#include "archive/cpio_format.h"

namespace {

namespace fs = std::filesystem;
using archive_test::Quote;
using archive_test::ReadLines;
using tvutest::ReadFile;
using tvutest::TempDir;

struct Flavour {
  const char* format;
  const char* catalog;
};

bool IsLsl(const std::string& catalog) { return catalog.compare(0, 3, "lsl") == 0; }
bool IsV2(const std::string& catalog) { return catalog.size() == 5; }  // lslv2, lisv2

// One item line and the record it points at, in the terms of its layout.
struct Line {
  std::string path, type, saveset;  // saveset: LSL only
  uint64_t start = 0, span = 0;
  int64_t dataRel = -1, size = -1, ino = -1;  // -1: not in this layout
};

// Splits an item line: quoted path, then fields split by single blanks.
Line ParseLine(const std::string& text, const std::string& catalog, bool consolidated) {
  Line l;
  const size_t close = text.find('"', 1);
  EXPECT_TRUE(text[0] == '"' && close != std::string::npos) << text;
  l.path = text.substr(1, close - 1);
  std::vector<std::string> f;
  std::stringstream rest(text.substr(close + 2));
  for (std::string w; std::getline(rest, w, ' ');) f.push_back(w);
  const size_t count = IsV2(catalog) ? (IsLsl(catalog) ? 6 : 5) : 3;
  EXPECT_EQ(f.size(), 5 + count + (IsLsl(catalog) ? 1 : 0)) << text;
  if (f.size() < 5 + count) return l;
  l.type = f[0];
  std::vector<int64_t> n;
  for (size_t i = 0; i < count; ++i) n.push_back(std::stoll(f[5 + i]));
  if (IsLsl(catalog)) {
    l.saveset = f.size() > 5 + count ? f[5 + count] : "";
    EXPECT_EQ(text.back(), ' ') << "the saveset name ends at a blank: " << text;
  }
  if (IsV2(catalog)) {
    l.start = n[0], l.dataRel = n[1], l.span = n[2], l.size = n[3], l.ino = n[4];
    EXPECT_TRUE(!IsLsl(catalog) || n[5] == 0) << text;
  } else if (consolidated) {
    l.start = n[0], l.span = n[1] - n[0], l.size = n[2];
  } else {
    l.ino = n[0], l.start = n[1], l.span = n[2] - n[1];
  }
  return l;
}

struct Catalog {
  std::string header, footer;
  std::vector<Line> lines;
  int comments = 0;
};

Catalog ReadCatalog(const std::string& file, const std::string& catalog, bool consolidated) {
  Catalog c;
  std::vector<std::string> text = ReadLines(file);
  EXPECT_GE(text.size(), 2u) << file;
  if (text.size() < 2) return c;
  c.header = text.front();
  c.footer = text.back();
  for (size_t i = 1; i + 1 < text.size(); ++i) {
    if (text[i][0] == '#') {
      ++c.comments;
    } else {
      c.lines.push_back(ParseLine(text[i], catalog, consolidated));
    }
  }
  return c;
}

// Decodes the record a line points at and checks it against the line.
void CheckRecord(const std::string& saveset, const Line& l) {
  SCOPED_TRACE(l.path);
  ASSERT_LT(l.start, saveset.size());
  cpio::Header h;
  size_t len = 0;
  std::string why;
  ASSERT_EQ(cpio::DecodeHeader(saveset.data() + l.start, saveset.size() - l.start, &h, &len, &why),
            cpio::DecodeResult::kOk)
      << why;
  EXPECT_EQ(h.name, l.path);
  EXPECT_EQ((h.mode & 0170000) == 040000, l.type == "d");
  EXPECT_EQ(l.span, len + h.filesize + cpio::DataPadding(h.format, h.filesize));
  // 0 marks an item left for the reader to locate in its stream.
  EXPECT_TRUE(l.dataRel <= 0 || static_cast<uint64_t>(l.dataRel) == len) << l.dataRel;
  EXPECT_TRUE(l.size < 0 || static_cast<uint64_t>(l.size) == h.filesize) << l.size;
  EXPECT_TRUE(l.ino < 0 || static_cast<uint64_t>(l.ino) == h.ino) << l.ino;
}

std::map<std::string, std::string> ReadKeyValues(const std::string& file) {
  std::map<std::string, std::string> kv;
  for (const std::string& l : ReadLines(file)) kv[l.substr(0, l.find('='))] = l.substr(l.find('=') + 1);
  return kv;
}

class MkchainTest : public ::testing::TestWithParam<Flavour> {
 protected:
  void Generate(const std::string& out) {
    tvutest::ProcessResult r = tvutest::RunProcess(
        {tvutest::BuiltProgram("mkchain"), "--out", out, "--format", GetParam().format,
         "--catalog", GetParam().catalog, "--files", "80", "--total-bytes", "400000",
         "--incrementals", "3", "--seed", "5"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_NE(r.out.find("savesets"), std::string::npos) << r.out;
  }
};

TEST_P(MkchainTest, ChainIsConsistent) {
  TempDir dir;
  const std::string out = dir / "chain";
  ASSERT_NO_FATAL_FAILURE(Generate(out));
  const std::string catalog = GetParam().catalog;
  const std::string ext = IsLsl(catalog) ? ".lsl" : ".lis";
  const std::string version = IsV2(catalog) ? "2.0" : "1.0";

  // Names: one day apart at 02:00; LIS catalogs allow only the full.
  std::vector<std::string> names = {"SF20261101020000", "SI20261102020000", "SI20261103020000",
                                    "SI20261104020000"};
  std::string con = "SF20261105020000";
  if (!IsLsl(catalog)) {
    names.resize(1);
    con = "SF20261102020000";
  }

  // Control files.
  std::map<std::string, std::string> info = ReadKeyValues(out + "/chain.txt");
  EXPECT_EQ(info["consolidate"], con);
  EXPECT_EQ(info["format"], GetParam().format);
  EXPECT_EQ(info["savesets"], std::to_string(names.size()));
  EXPECT_EQ(info["ini"], out + "/tq.ini");
  const std::string mnt = out + "/tqslis/" + con + "_mnt";
  std::vector<std::string> list;
  for (const std::string& n : names) list.push_back(out + "/savesets/" + n + ".cpio");
  EXPECT_EQ(ReadLines(mnt + "/savesets.txt"), list);
  EXPECT_EQ(ReadFile(mnt + "/consolidate.arg"),
            "-f\n" + mnt + "/savesets.txt\n-l\ngv_rw_tqslis:" + con + "_mnt/" + con + ext +
                "\n-r\n/\n-t\ncpio\n-o\nno_vmdk_search=1\n");
  EXPECT_EQ(ReadFile(out + "/tq.ini"),
            "[pathes]\ngv_rw_tqslis=" + out + "/tqslis/\ngv_rw_ini=" + out + "/ini/\n");
  EXPECT_TRUE(fs::is_directory(out + "/ini/xfpd_conf"));

  // Per-saveset catalogs: every line decodes in its saveset, the records
  // tile the saveset up to its trailer, and an incremental lists every
  // folder on the way to each of its items.
  std::map<std::string, std::string> savesets;
  std::map<std::string, std::string> newest;  // path -> last saveset listing it
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    const std::string& bytes = savesets[name] = ReadFile(out + "/savesets/" + name + ".cpio");
    Catalog c = ReadCatalog(out + "/catalogs/" + name + ext, catalog, false);
    EXPECT_EQ(c.header, "Tape ID: " + name + " Tape Label: " + name + " Format: CPIO LIS: " + version);
    uint64_t pos = 0, dirs = 0;
    std::set<std::string> listed;
    for (const Line& l : c.lines) {
      EXPECT_EQ(l.start, pos) << l.path;
      CheckRecord(bytes, l);
      EXPECT_EQ(l.saveset, IsLsl(catalog) ? name : "");
      EXPECT_TRUE(l.path == "demo" || listed.count(l.path.substr(0, l.path.rfind('/')))) << l.path;
      listed.insert(l.path);
      newest[l.path] = name;
      dirs += l.type == "d";
      pos = l.start + l.span;
    }
    const std::string trailer = bytes.substr(pos);
    cpio::Header h;
    size_t len = 0;
    ASSERT_EQ(cpio::DecodeHeader(trailer.data(), trailer.size(), &h, &len, nullptr),
              cpio::DecodeResult::kOk);
    EXPECT_EQ(h.name, "TRAILER!!!");
    EXPECT_EQ(trailer, cpio::TrailerRecord(h.format));
    EXPECT_NE(c.footer.find(" Number of directories: " + std::to_string(dirs) +
                            " Number of files: " + std::to_string(c.lines.size() - dirs)),
              std::string::npos)
        << c.footer;
  }

  // Consolidated catalog: each item of final/ once, in byte-wise path order,
  // pointing at its newest record.
  Catalog cc = ReadCatalog(mnt + "/" + con + ext, catalog, true);
  EXPECT_EQ(cc.header, "Tape ID: " + con + " Tape Label: " + con + " Format: CPIO LIS: " + version);
  EXPECT_GE(cc.comments, 1);
  std::set<std::string> finalTree;
  for (const auto& e : fs::recursive_directory_iterator(out + "/final"))
    finalTree.insert(e.path().string().substr(out.size() + 7));
  std::set<std::string> consolidated;
  std::string stream, last;
  std::string runSaveset;
  uint64_t runStart = 0, runEnd = 0;
  auto flush = [&] {
    if (!runSaveset.empty()) stream += savesets[runSaveset].substr(runStart, runEnd - runStart);
  };
  for (const Line& l : cc.lines) {
    const std::string ss = IsLsl(catalog) ? l.saveset : names[0];
    EXPECT_LT(last, l.path);
    last = l.path;
    consolidated.insert(l.path);
    EXPECT_EQ(ss, newest[l.path]) << l.path;
    CheckRecord(savesets[ss], l);
    // The consumer's rule: consecutive lines of one saveset form one run.
    if (ss != runSaveset) {
      flush();
      runSaveset = ss;
      runStart = l.start;
    }
    runEnd = l.start + l.span;
  }
  flush();
  EXPECT_EQ(consolidated, finalTree);
  for (const char* name : {"demo/Grüße.txt", "demo/日本語 ファイル.txt", "demo/café/naïve résumé.doc"})
    EXPECT_TRUE(finalTree.count(name)) << name;
  EXPECT_TRUE(fs::is_empty(out + "/final/demo/empty folder"));
  const std::string expected = ReadFile(out + "/expected.cpio");
  EXPECT_EQ(info["stream_bytes"], std::to_string(expected.size()));
  EXPECT_TRUE(stream == expected) << "runs give " << stream.size() << " bytes, expected.cpio "
                                  << expected.size();

  // The stream's records carry exactly the final files' contents.
  for (size_t pos = 0; pos < expected.size();) {
    cpio::Header h;
    size_t len = 0;
    ASSERT_EQ(cpio::DecodeHeader(expected.data() + pos, expected.size() - pos, &h, &len, nullptr),
              cpio::DecodeResult::kOk)
        << pos;
    if ((h.mode & 0170000) == 0100000) {
      EXPECT_TRUE(expected.compare(pos + len, h.filesize, ReadFile(out + "/final/" + h.name)) == 0)
          << h.name;
    }
    pos += len + h.filesize + cpio::DataPadding(h.format, h.filesize);
  }

  // GNU cpio extracts the stream plus a trailer to exactly final/.
  const std::string format = GetParam().format;
  if (format != "ext" && archive_test::HaveTool("cpio")) {
    const cpio::Format f = format == "odc" ? cpio::Format::kOdc : cpio::Format::kNewc;
    tvutest::WriteFile(dir / "x.cpio", expected + cpio::TrailerRecord(f));
    fs::create_directories(dir / "x");
    EXPECT_EQ(tvutest::Shell("cd " + Quote(dir / "x") + " && cpio -idm --quiet <" +
                             Quote(dir / "x.cpio") + " && diff -r . " + Quote(out + "/final")),
              0);
  }
}

INSTANTIATE_TEST_SUITE_P(Flavours, MkchainTest,
                         ::testing::Values(Flavour{"newc", "lslv2"}, Flavour{"odc", "lsl"},
                                           Flavour{"ext", "lslv2"}, Flavour{"ext", "lsl"},
                                           Flavour{"newc", "lisv2"}, Flavour{"odc", "lis"}),
                         [](const ::testing::TestParamInfo<Flavour>& p) {
                           return std::string(p.param.format) + "_" + p.param.catalog;
                         });

// Nothing may depend on addresses or unordered iteration: one seed, one chain.
TEST(Mkchain, SameSeedSameChain) {
  TempDir dir;
  auto run = [&](const std::string& out, const char* seed) {
    return tvutest::RunProcess({tvutest::BuiltProgram("mkchain"), "--out", out, "--format", "ext",
                                "--files", "80", "--total-bytes", "400000", "--seed", seed,
                                "--no-final"})
        .exitCode;
  };
  ASSERT_EQ(run(dir / "a", "5"), 0);
  ASSERT_EQ(run(dir / "b", "5"), 0);
  ASSERT_EQ(run(dir / "c", "6"), 0);
  for (const auto& e : fs::directory_iterator(dir / "a/savesets")) {
    const std::string name = e.path().filename().string();
    EXPECT_TRUE(ReadFile(e.path().string()) == ReadFile(dir / ("b/savesets/" + name))) << name;
  }
  EXPECT_FALSE(ReadFile(dir / "a/expected.cpio") == ReadFile(dir / "c/expected.cpio"));
}

}  // namespace
