// Tests of the chain generator: runs mkchain on small chains and checks its
// output with code of its own: catalog numbers against the saveset bytes,
// the consolidated catalog against the final tree, the consumer's run rule
// against expected.cpio, GNU cpio's extraction against final/, and a virtual
// machine disk rebuilt from the catalogs against its final image.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <tuple>

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
  bool vm;  // with a virtual machine disk
};

void PrintTo(const Flavour& f, std::ostream* os) {
  *os << f.format << "_" << f.catalog << (f.vm ? "_vm" : "");
}

constexpr uint64_t kDiskSize = 8 << 20;
const char kDisk[] = "vmstore/web01/web01-flat.vmdk";

bool IsLsl(const std::string& catalog) { return catalog.compare(0, 3, "lsl") == 0; }
bool IsV2(const std::string& catalog) { return catalog.size() == 5; }  // lslv2, lisv2

// One item line and the record it points at, in the terms of its layout.
struct Line {
  std::string path, type, saveset;  // saveset: LSL only
  std::string ctime;                // "YYYY-MM-DD hh:mm:ss": sorts as it dates
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
  l.ctime = f[1] + " " + f[2];
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

// A slice of the disk: a changed-block file's range with its data, or the
// zeros under all of them (no data).
struct Range {
  uint64_t offset = 0, length = 0;
  std::string ctime;  // of its catalog line
  size_t line = 0;    // index of the line in its catalog
  const char* data = nullptr;
};

// The range of a changed-block file, from its name
// "<disk>@<offset>-<length>.cbt"; false for other paths.
bool ParseRange(const std::string& path, Range* r) {
  const std::string base = path.substr(path.rfind('/') + 1);
  const size_t at = base.find('@');
  if (at == std::string::npos) return false;
  EXPECT_EQ(base.substr(0, at), "web01-flat.vmdk") << "names its disk: " << path;
  unsigned long long offset = 0, length = 0;
  int end = 0;
  EXPECT_EQ(std::sscanf(base.c_str() + at + 1, "%llu-%llu.cbt%n", &offset, &length, &end), 2) << path;
  EXPECT_EQ(at + 1 + end, base.size()) << path;
  r->offset = offset;
  r->length = length;
  return true;
}

// The changed-block files of a catalog, with their data in their savesets.
std::vector<Range> DiskRanges(const Catalog& c, const std::map<std::string, std::string>& savesets,
                              const std::string& lisSaveset) {
  std::vector<Range> ranges;
  for (size_t i = 0; i < c.lines.size(); ++i) {
    const Line& l = c.lines[i];
    Range r;
    if (l.type != "f" || !ParseRange(l.path, &r)) continue;
    SCOPED_TRACE(l.path);
    EXPECT_EQ(r.offset % 65536, 0u);
    EXPECT_EQ(r.length % 65536, 0u);
    EXPECT_GT(r.length, 0u);
    EXPECT_LE(r.offset + r.length, kDiskSize);
    EXPECT_NE(l.ctime.substr(0, 10), "0000-00-00") << "a slice needs its time";
    const std::string& bytes = savesets.at(l.saveset.empty() ? lisSaveset : l.saveset);
    cpio::Header h;
    size_t len = 0;
    if (l.start >= bytes.size() ||
        cpio::DecodeHeader(bytes.data() + l.start, bytes.size() - l.start, &h, &len, nullptr) !=
            cpio::DecodeResult::kOk ||
        l.start + len + h.filesize > bytes.size()) {
      ADD_FAILURE() << "no record at " << l.start;
      continue;
    }
    EXPECT_EQ(h.filesize, r.length) << "the file holds exactly its range";
    if (h.filesize != r.length) continue;
    r.ctime = l.ctime;
    r.line = i;
    r.data = bytes.data() + l.start + len;
    ranges.push_back(r);
  }
  return ranges;
}

bool Overlap(const Range& a, const Range& b) {
  return a.offset < b.offset + b.length && b.offset < a.offset + a.length;
}

// Lays ranges over a disk as a reader does: the newest time wins a byte,
// among equal times the earlier line; a range without data is zeros.
void Apply(std::vector<Range> ranges, std::string* disk) {
  std::sort(ranges.begin(), ranges.end(), [](const Range& a, const Range& b) {
    return std::tie(a.ctime, b.line) < std::tie(b.ctime, a.line);  // the winner last
  });
  for (const Range& r : ranges) {
    if (r.data)
      disk->replace(r.offset, r.length, r.data, r.length);
    else
      std::fill_n(disk->begin() + r.offset, r.length, '\0');
  }
}

// The disk rebuilt from the catalogs equals its final image, whether from
// the consolidated catalog (newest copy of each name) or saveset by saveset;
// the chain holds the cases a reader must get right.
void CheckDisk(const std::string& out, const std::vector<std::string>& names,
               const std::map<std::string, Catalog>& catalogs, const Catalog& cc,
               const std::map<std::string, std::string>& savesets) {
  const std::string image = ReadFile(out + "/vm/web01-flat.vmdk.final");
  ASSERT_EQ(image.size(), kDiskSize);

  // From the consolidated catalog: zeros dated by the full-disk line, then
  // the changed-block files.
  std::vector<Range> slices = DiskRanges(cc, savesets, names[0]);
  int fullDiskLines = 0;
  for (size_t i = 0; i < cc.lines.size(); ++i) {
    if (cc.lines[i].type != "R") continue;
    ++fullDiskLines;
    Range zero;
    zero.length = cc.lines[i].span;
    zero.ctime = cc.lines[i].ctime;
    zero.line = i;
    EXPECT_NE(zero.ctime.substr(0, 10), "0000-00-00");
    slices.push_back(zero);
  }
  EXPECT_EQ(fullDiskLines, 1);
  std::string disk(kDiskSize, '\0');
  Apply(slices, &disk);
  EXPECT_TRUE(disk == image) << "the disk rebuilt from the consolidated catalog differs";

  // The full backup alone is a whole disk: disjoint ranges from the first
  // block to the last, with holes between them, dated after the full-disk line.
  const Catalog& full = catalogs.at(names[0]);
  std::vector<Range> ranges = DiskRanges(full, savesets, names[0]);
  std::sort(ranges.begin(), ranges.end(),
            [](const Range& a, const Range& b) { return a.offset < b.offset; });
  ASSERT_GE(ranges.size(), 5u);
  EXPECT_EQ(ranges.front().offset, 0u);
  EXPECT_EQ(ranges.back().offset + ranges.back().length, kDiskSize);
  uint64_t used = 0;
  for (size_t i = 0; i < ranges.size(); ++i) {
    EXPECT_TRUE(i == 0 || ranges[i - 1].offset + ranges[i - 1].length <= ranges[i].offset)
        << ranges[i].offset;
    used += ranges[i].length;
  }
  EXPECT_LT(used, kDiskSize * 3 / 4) << "the full leaves holes";
  for (const Line& l : full.lines) {
    if (l.type != "R") continue;
    for (const Range& r : ranges) EXPECT_LT(l.ctime, r.ctime);
  }

  // Saveset by saveset, every copy of every name: the same disk.  Each
  // incremental's files are newer than all before, distinct in time, and
  // overlap earlier ranges and each other.
  std::string replayed(kDiskSize, '\0');
  std::vector<char> written(kDiskSize / 65536, 0);
  std::set<std::string> earlierNames;
  std::string newestBefore;
  int reordered = 0;  // overlaps inside a saveset whose newer range has the earlier line
  for (size_t s = 0; s < names.size(); ++s) {
    SCOPED_TRACE(names[s]);
    const Catalog& c = catalogs.at(names[s]);
    ranges = DiskRanges(c, savesets, names[0]);
    Apply(ranges, &replayed);
    std::set<std::string> times;
    int overlapsEarlier = 0, overlapsInside = 0, renamed = 0;
    for (const Range& r : ranges) {
      EXPECT_LT(newestBefore, r.ctime);
      EXPECT_TRUE(times.insert(r.ctime).second) << "two files of one saveset share " << r.ctime;
      renamed += earlierNames.count(c.lines[r.line].path) > 0;
      bool rewrites = false;  // `written` holds the earlier savesets' blocks here
      for (uint64_t b = r.offset / 65536; b < (r.offset + r.length) / 65536; ++b)
        rewrites = rewrites || written[b];
      overlapsEarlier += rewrites;
      for (const Range& o : ranges) {
        if (&o == &r || !Overlap(o, r)) continue;
        ++overlapsInside;
        reordered += r.ctime > o.ctime && r.line < o.line;
      }
    }
    for (const Range& r : ranges) {
      for (uint64_t b = r.offset / 65536; b < (r.offset + r.length) / 65536; ++b) written[b] = 1;
      earlierNames.insert(c.lines[r.line].path);
      newestBefore = std::max(newestBefore, r.ctime);
    }
    if (s > 0) {
      EXPECT_GT(overlapsEarlier, 0) << "an incremental rewrites used data";
      EXPECT_GT(overlapsInside, 0) << "an incremental's ranges overlap each other";
      EXPECT_GT(renamed, 0) << "an incremental has a newer copy of an earlier file";
    }
  }
  EXPECT_TRUE(replayed == image) << "the disk replayed saveset by saveset differs";
  if (names.size() > 1) {
    EXPECT_GT(reordered, 0) << "line order alone would resolve every overlap";
  }

  // What no range wrote reads as zeros, and every written block holds data.
  const std::string zeros(65536, '\0');
  int holes = 0;
  for (size_t b = 0; b < written.size(); ++b) {
    const bool zero = image.compare(b * 65536, 65536, zeros) == 0;
    EXPECT_EQ(zero, !written[b]) << "block " << b;
    holes += zero;
  }
  EXPECT_GT(holes, 0);
}

class MkchainTest : public ::testing::TestWithParam<Flavour> {
 protected:
  void Generate(const std::string& out) {
    std::vector<std::string> argv = {tvutest::BuiltProgram("mkchain"), "--out", out, "--format",
                                     GetParam().format, "--catalog", GetParam().catalog, "--files",
                                     "80", "--total-bytes", "400000", "--incrementals", "3", "--seed",
                                     "5"};
    if (GetParam().vm) argv.insert(argv.end(), {"--vm-disk", std::to_string(kDiskSize)});
    tvutest::ProcessResult r = tvutest::RunProcess(argv);
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
  // A disk needs the reader's disk search, which the option would turn off.
  EXPECT_EQ(ReadFile(mnt + "/consolidate.arg"),
            "-f\n" + mnt + "/savesets.txt\n-l\ngv_rw_tqslis:" + con + "_mnt/" + con + ext +
                "\n-r\n/\n-t\ncpio\n" + (GetParam().vm ? "" : "-o\nno_vmdk_search=1\n"));
  EXPECT_EQ(ReadFile(out + "/tq.ini"),
            "[pathes]\ngv_rw_tqslis=" + out + "/tqslis/\ngv_rw_ini=" + out + "/ini/\n");
  EXPECT_TRUE(fs::is_directory(out + "/ini/xfpd_conf"));

  // Per-saveset catalogs: every line decodes in its saveset, the records
  // tile the saveset up to its trailer, and an incremental lists every
  // folder on the way to each of its items.
  // A full-disk line ("R") has no record: the lines of the records alone
  // tile the saveset.
  std::map<std::string, std::string> savesets;
  std::map<std::string, Catalog> catalogs;
  std::map<std::string, std::string> newest;  // path -> last saveset listing it
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    const std::string& bytes = savesets[name] = ReadFile(out + "/savesets/" + name + ".cpio");
    const Catalog& c = catalogs[name] = ReadCatalog(out + "/catalogs/" + name + ext, catalog, false);
    EXPECT_EQ(c.header, "Tape ID: " + name + " Tape Label: " + name + " Format: CPIO LIS: " + version);
    uint64_t pos = 0, dirs = 0, files = 0;
    std::set<std::string> listed;
    for (const Line& l : c.lines) {
      EXPECT_EQ(l.saveset, IsLsl(catalog) ? name : "");
      EXPECT_TRUE(l.path.find('/') == std::string::npos ||
                  listed.count(l.path.substr(0, l.path.rfind('/'))))
          << l.path;
      listed.insert(l.path);
      newest[l.path] = name;
      if (l.type == "R") {
        EXPECT_EQ(l.path, kDisk);
        EXPECT_EQ(name, names[0]) << "only the full backup holds the full-disk line";
        EXPECT_EQ(l.start, 0u);
        EXPECT_EQ(l.span, kDiskSize);
        EXPECT_TRUE(l.size < 0 || l.size == static_cast<int64_t>(kDiskSize));
        EXPECT_TRUE(l.dataRel <= 0);
        continue;
      }
      EXPECT_EQ(l.start, pos) << l.path;
      CheckRecord(bytes, l);
      dirs += l.type == "d";
      files += l.type == "f";
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
                            " Number of files: " + std::to_string(files)),
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
    EXPECT_EQ(ss, newest[l.path]) << l.path;
    if (l.type == "R") continue;  // the consumer admits only files and folders
    consolidated.insert(l.path);
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

  if (GetParam().vm) {
    EXPECT_EQ(info["vm_disk"], kDisk);
    EXPECT_EQ(info["vm_disk_size"], std::to_string(kDiskSize));
    EXPECT_EQ(info["vm_final"], out + "/vm/web01-flat.vmdk.final");
    EXPECT_EQ(info["vm_rules"], out + "/vm/rules.map");
    EXPECT_EQ(ReadFile(out + "/vm/rules.map"),
              "MAPTO \"/vm\"\n"
              "LIS R \"vmstore/web01/web01-flat.vmdk\" \"web01.raw\"\n"
              "SAVESET f \"" + names[0] + "\" \"full.cpio\"\n");
    CheckDisk(out, names, catalogs, cc, savesets);
  } else {
    EXPECT_FALSE(fs::exists(out + "/vm"));
    EXPECT_EQ(info.count("vm_disk"), 0u);
  }
}

INSTANTIATE_TEST_SUITE_P(Flavours, MkchainTest,
                         ::testing::Values(Flavour{"newc", "lslv2", true}, Flavour{"odc", "lsl", false},
                                           Flavour{"ext", "lslv2", false}, Flavour{"ext", "lsl", true},
                                           Flavour{"newc", "lisv2", true}, Flavour{"odc", "lis", false}),
                         [](const ::testing::TestParamInfo<Flavour>& p) {
                           return std::string(p.param.format) + "_" + p.param.catalog +
                                  (p.param.vm ? "_vm" : "");
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
