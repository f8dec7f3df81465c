// Tests of catalog type detection, ignored lines and ParseSavesetEntry.
#include "vfs/tq_vfs_catalog.h"
#include "vfs/tq_vfs_catalog_internal.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cmath>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "runtime/runtime_test_util.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_regex.h"
#include "vfs/tq_vfs_saveset.h"

namespace {

const char kTimes[] = "2026-11-01 01:59:00 2026-11-01 01:58:30";

void AddSaveset(const char* name) {
  SAVESET s{};
  s.uiMediaType = smFILE;
  s.szName = strdup(name);
  s.iDedupHandle = -1;
  saveset_append(s);
}

// Every test starts from empty settings and an empty saveset table; Chain()
// fills in three savesets.
class CatalogTest : public ::testing::Test {
 protected:
  void SetUp() override { Reset(); }
  void TearDown() override { Reset(); }
  static void Reset() {
    CatalogResetForTest();
    saveset_table_free();
    gVOPTIONS.iForceLineByLine = 0;
  }
  static void Chain() {
    AddSaveset("C:\\chain\\SF20261101020000.cpio");
    AddSaveset("C:\\chain\\SI20261102020000.cpio");
    AddSaveset("C:\\chain\\SI20261103020000.cpio");
  }
  static void Use(const char* catalogPath, int32_t type, bool lineByLine) {
    CatalogSetPath(catalogPath);
    g_iCatalogType = type;
    CatalogSetLineByLine(lineByLine);
  }
  LIS_ENTRY e{};
};

using CatalogParseTest = CatalogTest;
using CatalogParseDeathTest = CatalogTest;
using CatalogDetectTest = CatalogTest;
using CatalogDetectDeathTest = CatalogTest;

// ---- good lines -------------------------------------------------------------

TEST_F(CatalogParseTest, GoodLinesPerTypeAndMode) {
  struct Case {
    const char* catalog;
    int32_t type;  // catalog type before the line; in line-by-line mode
    bool lbl;      // the line sets it
    std::string line;
    int32_t typeAfter;
    char cType;
    uint64_t offset, size;
    int64_t rel, fourth;
    int32_t idx;
    bool full;
  };
  const std::string t = kTimes;
  const Case cases[] = {
      // Version 1 outside line-by-line mode: first number passed over, size
      // only for files.
      {"x.lis", ctLIS, false, "\"d/a.txt\" f " + t + " 7 100 150", ctLIS, 'f', 100, 50, -1, 0, 0, false},
      {"x.lis", ctLIS, false, "\"d\" d " + t + " 7 100 150", ctLIS, 'd', 100, 0, -1, 0, 0, false},
      {"x.lsl", ctLSL, false, "\"a\" f " + t + " 7 100 150 SI20261102020000 x", ctLSL, 'f', 100, 50, -1, 0, 1, false},
      // Version 2: offset, relative offset (files only), size, fourth number.
      {"x.lis", ctLISv2, false, "\"a\" f " + t + " 100 20 50 9 0", ctLISv2, 'f', 100, 50, 20, 9, 0, false},
      {"x.lis", ctLISv2, false, "\"a\" d " + t + " 100 20 50 -9 0", ctLISv2, 'd', 100, 50, -1, -9, 0, false},
      {"x.lsl", ctLSLv2, false, "\"a\" f " + t + " 100 -1 50 9 0 0 SF20261101020000 0", ctLSLv2, 'f', 100, 50, -1,
       9, 0, true},
      // Line-by-line: the line's shape sets the type; version-1 numbers are
      // offset and end, for every item type.
      {"x.lsl", ctUNKNOWN, true, "\"a\" d " + t + " 100 150 7 SI20261103020000 0", ctLSL, 'd', 100, 50, -1, 0, 2,
       false},
      {"x.LSL", ctLIS, true, "\"a\" f " + t + " 100 20 50 9 0 0 SI20261102020000 0", ctLSLv2, 'f', 100, 50, 20, 9, 1,
       false},
      {"x.lis", ctUNKNOWN, true, "\"a\" f " + t + " 100 150 7", ctLIS, 'f', 100, 50, -1, 0, 0, false},
      {"x.lis", ctLSLv2, true, "\"a\" f " + t + " 100 20 50 9 0\n", ctLISv2, 'f', 100, 50, 20, 9, 0, false},
  };
  Chain();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.catalog + std::string(" ") + c.line);
    Use(c.catalog, c.type, c.lbl);
    ASSERT_EQ(ParseSavesetEntry(&e, c.line.c_str(), "fd"), 0);
    EXPECT_EQ(g_iCatalogType, c.typeAfter);
    EXPECT_EQ(e.cType, c.cType);
    EXPECT_EQ(e.ullOffset, c.offset);
    EXPECT_EQ(e.ullSize, c.size);
    EXPECT_EQ(e.llRelOffset, c.rel);
    EXPECT_EQ(e.llFourth, c.fourth);
    EXPECT_EQ(e.iSavesetIdx, c.idx);
    EXPECT_EQ(e.bFullBackup, c.full);
    EXPECT_FALSE(e.bCtimeEmulated || e.bMtimeEmulated);
    EXPECT_EQ(e.tmCtime.tm_year, 126);
    EXPECT_EQ(e.tmCtime.tm_min, 59);
    EXPECT_EQ(e.tmMtime.tm_sec, 30);
  }
}

TEST_F(CatalogParseTest, PathsWideNamesAndDriveBrackets) {
  struct Case {
    const char* path;
    const wchar_t* wide;
    const wchar_t* base;
  };
  const Case cases[] = {
      {"demo/sub dir/file name.txt", L"demo/sub dir/file name.txt", L"file name.txt"},
      {"dir/sub/", L"dir/sub/", L"sub"},
      // The drive name, a slash, then the rest from the second character
      // after "]"; text before "[" is dropped.
      {"[C:]/Users/x.txt", L"C:/Users/x.txt", L"x.txt"},
      {"pre[D:]\\rest/y", L"D:/rest/y", L"y"},
      {"a[b]", L"b/", L"a[b]"},
      {"caf\xc3\xa9/\xc3\xa9t\xc3\xa9", L"caf\u00e9/\u00e9t\u00e9", L"\u00e9t\u00e9"},  // UTF-8
      {"caf\xe9", L"caf\u00e9", L"caf\u00e9"},                                         // not UTF-8: Latin-1
  };
  Use("x.lis", ctLIS, false);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    std::string line = std::string("\"") + c.path + "\" d " + kTimes + " 1 2 3";
    ASSERT_EQ(ParseSavesetEntry(&e, line.c_str(), "d"), 0);
    EXPECT_EQ(e.sPath, c.path);
    EXPECT_EQ(e.wsPath, c.wide);
    EXPECT_EQ(e.wsBaseName, c.base);
  }
  // MTF savesets: no colons in base names.
  CatalogSetSavesetType(sdtMTF);
  std::string line = std::string("\"C:/a:b:c\" f ") + kTimes + " 1 2 3";
  ASSERT_EQ(ParseSavesetEntry(&e, line.c_str(), "f"), 0);
  EXPECT_EQ(e.wsBaseName, L"abc");
  EXPECT_EQ(e.wsPath, L"C:/a:b:c");
}

TEST_F(CatalogParseTest, SkippedLinesAreNotItems) {
  Use("x.lis", ctLIS, false);
  const std::string item = std::string("\"a\" R ") + kTimes + " 1 2 3";
  EXPECT_EQ(ParseSavesetEntry(&e, item.c_str(), "fd"), 1);  // type not admitted
  EXPECT_EQ(ParseSavesetEntry(&e, item.c_str(), ""), 1);
  EXPECT_EQ(ParseSavesetEntry(&e, item.c_str(), "R"), 0);
  // Ignored lines skip the pattern test and fail on the split.
  EXPECT_EQ(ParseSavesetEntry(&e, "# comment", "fd"), 1);
  EXPECT_EQ(ParseSavesetEntry(&e, "Total 1 Last File Offset 2 Last Dir Offset 3 Number of directories 4 "
                                  "Number of files 5", "fd"), 1);
  EXPECT_EQ(ParseSavesetEntry(&e, "\"TAPE\" x", "fd"), 1);
  EXPECT_EQ(ParseSavesetEntry(&e, "", "fd"), 1);
  // Without two quotes: skipped where no pattern is tested (line-by-line mode,
  // here forced by the option).
  gVOPTIONS.iForceLineByLine = 1;
  EXPECT_EQ(ParseSavesetEntry(&e, "\"unterminated", "fd"), 1);
}

TEST_F(CatalogParseTest, ZeroDatesAreEmulatedAndTakenFromSavesetName) {
  Chain();
  const time_t before = time(nullptr);
  // LIS: only the clock; a zero change date leaves the modification time.
  Use("x.lis", ctLIS, false);
  ASSERT_EQ(ParseSavesetEntry(&e, "\"a\" f 0000-00-00 00:00:00 2026-11-01 01:58:30 1 2 3", "f"), 0);
  EXPECT_TRUE(e.bCtimeEmulated);
  EXPECT_FALSE(e.bMtimeEmulated);
  struct tm ct = e.tmCtime;
  EXPECT_LE(std::abs(difftime(mktime(&ct), before)), 5.0);
  EXPECT_EQ(e.tmMtime.tm_min, 58);
  // The zero date as the very last text of a line (line-by-line mode checks
  // no numbers).
  Use("x.lis", ctUNKNOWN, true);
  ASSERT_EQ(ParseSavesetEntry(&e, "\"a\" f 2026-10-01 01:59:00 0000-00-00", "f"), 0);
  EXPECT_TRUE(e.bCtimeEmulated && e.bMtimeEmulated);
  // LSL: a zero modification date marks both; both come from the name.
  Use("x.lsl", ctLSL, true);
  ASSERT_EQ(ParseSavesetEntry(&e, "\"a\" f 2026-10-01 01:59:00 0000-00-00 00:00:00 1 2 3 SI20261103020000 0", "f"), 0);
  EXPECT_TRUE(e.bCtimeEmulated && e.bMtimeEmulated);
  for (const struct tm* tm : {&e.tmCtime, &e.tmMtime}) {
    EXPECT_EQ(tm->tm_year, 126);
    EXPECT_EQ(tm->tm_mon, 10);
    EXPECT_EQ(tm->tm_mday, 3);
    EXPECT_EQ(tm->tm_hour, 2);
    EXPECT_EQ(tm->tm_min, 0);
  }
}

TEST_F(CatalogParseTest, SavesetLookupFollowsTableChanges) {
  const char line[] = "\"a\" f 2026-11-01 01:59:00 2026-11-01 01:59:00 1 2 3 4 0 0 SI20261102020000 0";
  Use("x.lsl", ctLSLv2, false);
  Chain();
  ASSERT_EQ(ParseSavesetEntry(&e, line, "f"), 0);
  EXPECT_EQ(e.iSavesetIdx, 1);
  ASSERT_EQ(ParseSavesetEntry(&e, line, "f"), 0);  // from the cache
  EXPECT_EQ(e.iSavesetIdx, 1);
  // A rebuilt table with the name in another place.
  saveset_table_free();
  AddSaveset("C:\\chain\\SI20261102020000.cpio");
  ASSERT_EQ(ParseSavesetEntry(&e, line, "f"), 0);
  EXPECT_EQ(e.iSavesetIdx, 0);
}

// ---- fatal lines --------------------------------------------------------------

TEST_F(CatalogParseDeathTest, PathLongerThanLimitEndsProcess) {
  Use("x.lis", ctLIS, false);
  auto lineWithPath = [](size_t n) { return "\"" + std::string(n, 'p') + "\" f " + kTimes + " 1 2 3"; };
  const std::string ok = lineWithPath(MAX_LIS_ENTRY_PATH);
  ASSERT_EQ(ParseSavesetEntry(&e, ok.c_str(), "f"), 0);
  EXPECT_EQ(e.sPath.size(), 4094u);
  const std::string tooLong = lineWithPath(MAX_LIS_ENTRY_PATH + 1);
  EXPECT_EXIT(ParseSavesetEntry(&e, tooLong.c_str(), "f"), ::testing::ExitedWithCode(1),
              "ERROR: LIS entry \\[p+\\] is longer than 4094 \\[MAX_LIS_ENTRY_PATH\\]");
}

TEST_F(CatalogParseDeathTest, LineNotMatchingItsTypeEndsProcess) {
  // An LSL line without its saveset name, outside line-by-line mode.
  Use("x.lsl", ctLSL, false);
  const std::string line = std::string("\"a\" f ") + kTimes + " 1 2 3";
  EXPECT_EXIT(ParseSavesetEntry(&e, line.c_str(), "f"), ::testing::ExitedWithCode(1),
              "Regex mismatch parsing LIS/LSL/LISv2/LSLv2\\[3\\] line \\[\"a\" f 2026");
}

// A saveset name is looked up in the table as it stands: a table freed and
// refilled in another order (the next operation's) gives the new index, even
// where the new table lands at the old one's address.
TEST_F(CatalogParseTest, SavesetLookupFollowsARefilledTable) {
  Chain();
  Use("x.lsl", ctLSLv2, true);
  const std::string line = std::string("\"a\" f ") + kTimes + " 1 2 3 4 0 0 SI20261103020000 0";
  ASSERT_EQ(0, ParseSavesetEntry(&e, line.c_str(), "f"));
  EXPECT_EQ(2, e.iSavesetIdx);
  saveset_table_free();
  AddSaveset("C:\\chain\\SI20261103020000.cpio");
  AddSaveset("C:\\chain\\SI20261102020000.cpio");
  AddSaveset("C:\\chain\\SF20261101020000.cpio");
  ASSERT_EQ(0, ParseSavesetEntry(&e, line.c_str(), "f"));
  EXPECT_EQ(0, e.iSavesetIdx);
}

TEST_F(CatalogParseDeathTest, UnknownSavesetEndsProcessListingKnownOnes) {
  Chain();
  Use("x.lsl", ctLSLv2, true);
  const std::string unknown = std::string("\"a\" f ") + kTimes + " 1 2 3 4 0 0 SI20991231000000 0\n";
  EXPECT_EXIT(ParseSavesetEntry(&e, unknown.c_str(), "f"), ::testing::ExitedWithCode(1),
              "Cannot find matching saveset for LIS/LSL line: .*SI20991231000000 0\nKnown savesets:\n"
              "SF20261101020000.cpio\nSI20261102020000.cpio\nSI20261103020000.cpio\n");
  // A known name with no blank after it is not read.
  const std::string unread = std::string("\"a\" f ") + kTimes + " 1 2 3 4 0 0 SF20261101020000";
  EXPECT_EXIT(ParseSavesetEntry(&e, unread.c_str(), "f"), ::testing::ExitedWithCode(1), "Known savesets:");
}

// ---- ignored lines ------------------------------------------------------------

TEST_F(CatalogTest, IgnoredLines) {
  const struct {
    const char* line;
    int ignored;
  } cases[] = {
      {"\"a\" f 2026", 0}, {"Tape", 0}, {"9 x", 0}, {"", 1}, {" \"a\"", 1}, {"#x", 1}, {"\xc3\xa9", 1},
      {"\"Device=C:\" v", 1}, {"\"Device=C:\" f", 0}, {"\"ESET1\" ", 1}, {"\"IMAP:x\" db", 1},
      {"\"IMAP:x\" d", 0}, {"\"SSET 1\" 2", 1}, {"\"TAPE\" 1", 1}, {"\"TAPE1\" 1", 0},
      {"Tape ID 1 Tape Label L Format F LIS: 2.0", 1}, {"Total 1 Last File Offset 2 Last Dir Offset 3 "
                                                        "Number of directories 4 Number of files 5", 1},
      {"Total 1", 0},
  };
  for (const auto& c : cases) EXPECT_EQ(IsIgnoredLine(c.line), c.ignored) << c.line;
}

// The first-byte dispatch must give what the ten patterns give run in order.
TEST_F(CatalogTest, IgnoredLineDispatchMatchesOrderedPatterns) {
  const char* const patterns[] = {
      "^[A-Za-z0-9\"]", "^#", "^[\"]Device=.*[\"][ ]v", "^[\"]ESET.*[\"][ ]", "^[\"]IMAP:.*[\"][ ](Db|DB|db)",
      "^[\"]SSET.*[\"][ ]", "^[\"]TAPE[\"][ ]", "^Tape ID.*Tape Label.*Format.*",
      "^Tape ID.*Tape Label.*Format.*LIS: 2.0",
      "^Total.*Last File Offset.*Last Dir Offset.*Number of directories.*Number of files.*"};
  std::vector<TqRegex> re(10);
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(re[i].Compile(patterns[i]));
  const char* const tails[] = {"", "Device=x\" v", "ESET\" ", "IMAP:\" DB", "SSET\" ", "TAPE\" ",
                               "ape ID Tape Label Format", "otal Last File Offset Last Dir Offset "
                               "Number of directories Number of files", "a\" f"};
  for (int first = 1; first < 256; ++first) {
    for (const char* tail : tails) {
      std::string line(1, static_cast<char>(first));
      line += tail;
      int expected = re[0].Match(line.c_str()) ? 0 : 1;
      for (int i = 1; i < 10 && expected == 0; ++i) expected = re[i].Match(line.c_str()) ? 1 : 0;
      EXPECT_EQ(IsIgnoredLine(line.c_str()), expected) << line;
    }
  }
}

TEST_F(CatalogTest, RegexCompileFailureGivesOffsetAndMessage) {
  TqRegex re;
  int offset = -1;
  std::string why;
  EXPECT_FALSE(re.Compile("^[\"](abc", 0, &offset, &why));
  EXPECT_FALSE(re.IsCompiled());
  EXPECT_EQ(offset, 8);
  EXPECT_NE(why.find("missing )"), std::string::npos) << why;
  EXPECT_EQ(re.Exec("abc", 3), -1);
}

// ---- detection ----------------------------------------------------------------


TEST_F(CatalogDetectTest, TypeFromExtensionHeaderAndFirstItem) {
  const std::string t = kTimes;
  const std::string v1 = "\"a\" f " + t + " 1 2 3 SF20261101020000 0\n";
  const std::string v2 = "\"a\" f " + t + " 1 2 3 4 5 6 SF20261101020000 0\n";
  const std::string header2 = "Tape ID 7 Tape Label L Format cpio LIS: 2.0\n";
  const struct {
    const char* name;
    std::string text;
    int32_t type;
  } cases[] = {
      {"up.LSL", v1, ctLSL},
      {"hdr.lsl", header2 + v1, ctLSLv2},  // the header decides; the line is not tested
      {"line.lsl", "Tape ID 7 Tape Label L Format cpio LIS: 1.0\n#\n" + v2, ctLSLv2},
      {"only-ignored.lsl", "#1\n#2\n", ctLSL},
      {"empty.lsl", "", ctLSL},
      {"v1.lis", v2, ctLIS},  // LIS catalogs are not line-tested
      {"v2.Lis", header2 + v1, ctLISv2},
      {"long.lsl", std::string(70000, '#') + "\n" + v2, ctLSLv2},  // read in buffer-sized pieces
      {"missing.lis", "", ctLIS},
  };
  runtime_test::TempDir dir;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::string path = dir.Write(c.name, c.text);
    if (std::string(c.name) == "missing.lis") std::filesystem::remove(path);
    CatalogSetPath(path.c_str());
    ASSERT_EQ(DetectCatalogType(), 0);
    EXPECT_EQ(g_iCatalogType, c.type);
  }
  EXPECT_STREQ(CatalogTypeName(ctLSLv2), "ctLSLv2");
}

TEST_F(CatalogDetectTest, TypeByLine) {
  const std::string t = kTimes;
  const std::string v1 = "\"a\" f " + t + " 1 2 3 SF1 0";
  const std::string v2 = "\"a\" f " + t + " 1 2 3 4 5 6 SF1 0";
  const std::string lisV2 = "\"a\" f " + t + " 1 -2 3 4 5";
  CatalogSetPath("c.LSL");
  EXPECT_EQ(DetectCatalogTypeByLine(v1.c_str()), ctLSL);
  EXPECT_EQ(DetectCatalogTypeByLine(v2.c_str()), ctLSLv2);
  CatalogSetPath("c.lis");
  EXPECT_EQ(DetectCatalogTypeByLine("\"a\" f 1"), ctLIS);
  EXPECT_EQ(DetectCatalogTypeByLine(lisV2.c_str()), ctLISv2);
  CatalogSetPath("c.lnd");
  EXPECT_EQ(DetectCatalogTypeByLine(v2.c_str()), ctUNKNOWN);
}

TEST_F(CatalogDetectDeathTest, UnknownExtensionEndsProcess) {
  runtime_test::TempDir dir;
  CatalogSetPath(dir.Write("cat.lnd", "\"a\" f\n").c_str());
  EXPECT_EXIT(DetectCatalogType(), ::testing::ExitedWithCode(1),
              "ERROR: Unknown catalog type \\[\\.lnd\\]\\. Expected extensions \\.lis, \\.lsl\\., \\.lnd Aborting");
}

// The item patterns are first tried at the line's second quote; a path that
// holds quotes, or a line break the pattern's "." cannot cross, must still be
// judged by the whole pattern.
TEST_F(CatalogDetectTest, TypeByLineWithQuotesAndBreaksInPaths) {
  const std::string t = kTimes;
  const std::string v2Tail = " f " + t + " 1 2 3 4 5 6 SF1 0";
  CatalogSetPath("c.lsl");
  // The closing quote is the third one: the tail fails at the second.
  EXPECT_EQ(DetectCatalogTypeByLine(("\"say \"hi\" there\"" + v2Tail).c_str()), ctLSLv2);
  EXPECT_EQ(DetectCatalogTypeByLine(("\"a\" b\"" + v2Tail).c_str()), ctLSLv2);
  // The tail would match at the second quote, but "." stops at the break.
  EXPECT_EQ(DetectCatalogTypeByLine(("\"a\nb\"" + v2Tail).c_str()), ctLSL);
  // A break after the path is the whole pattern's business as well.
  EXPECT_EQ(DetectCatalogTypeByLine(("\"a\"" + v2Tail + "\n").c_str()), ctLSLv2);
  EXPECT_EQ(DetectCatalogTypeByLine(("x\"a\"" + v2Tail).c_str()), ctLSL);  // no quote first
  // Outside line-by-line mode a quote inside the path still matches.
  Use("c.lsl", ctLSLv2, false);
  Chain();
  const std::string line = "\"x\" \"y\" f " + t + " 100 20 50 9 0 0 SI20261102020000 0";
  ASSERT_EQ(ParseSavesetEntry(&e, line.c_str(), "f"), 1);  // the type field is "\"y\"": not admitted
}

// The consolidation parses without wide names; everything else must be what
// the full parse gives, for ASCII, UTF-8 and Latin-1 paths alike.
TEST_F(CatalogParseTest, WithoutWideNamesTheRestIsTheSame) {
  Chain();
  const char* const paths[] = {"demo/sub dir/file name.txt", "caf\xc3\xa9/\xc3\xa9t\xc3\xa9", "caf\xe9/x",
                               "[C:]/Users/x.txt"};
  for (const char* path : paths) {
    for (const char* rest : {" f 2026-11-01 01:59:00 2026-11-01 01:58:30 100 20 50 9 0 0 SI20261102020000 0",
                             " d 0000-00-00 00:00:00 2026-11-01 01:58:30 100 -1 0 9 0 0 SF20261101020000 0"}) {
      const std::string line = std::string("\"") + path + "\"" + rest;
      SCOPED_TRACE(line);
      Use("x.lsl", ctUNKNOWN, true);
      LIS_ENTRY full{}, narrow{};
      ASSERT_EQ(ParseSavesetEntry(&full, line.c_str(), "fd"), 0);
      ASSERT_EQ(ParseSavesetEntry(&narrow, line.c_str(), "fd", false), 0);
      EXPECT_FALSE(full.wsPath.empty());
      EXPECT_TRUE(narrow.wsPath.empty() && narrow.wsBaseName.empty());
      EXPECT_EQ(narrow.sPath, full.sPath);
      EXPECT_EQ(narrow.cType, full.cType);
      EXPECT_EQ(narrow.ullOffset, full.ullOffset);
      EXPECT_EQ(narrow.ullSize, full.ullSize);
      EXPECT_EQ(narrow.llRelOffset, full.llRelOffset);
      EXPECT_EQ(narrow.llFourth, full.llFourth);
      EXPECT_EQ(narrow.iSavesetIdx, full.iSavesetIdx);
      EXPECT_EQ(narrow.bFullBackup, full.bFullBackup);
      EXPECT_EQ(narrow.bCtimeEmulated, full.bCtimeEmulated);
      EXPECT_EQ(narrow.tmMtime.tm_min, full.tmMtime.tm_min);
      EXPECT_EQ(narrow.tmCtime.tm_year, full.tmCtime.tm_year);
    }
  }
}

// The ignored-line patterns run only on lines that begin with the literal
// text their pattern demands.
TEST(CatalogPrefixTest, AnchoredPrefixIsWhatEveryMatchBeginsWith) {
  using catalog_internal::AnchoredPrefix;
  EXPECT_EQ(AnchoredPrefix("^[\"]Device=.*[\"][ ]v"), "\"Device=");
  EXPECT_EQ(AnchoredPrefix("^[\"]TAPE[\"][ ]"), "\"TAPE\" ");
  EXPECT_EQ(AnchoredPrefix("^Tape ID.*Tape Label.*Format.*"), "Tape ID");
  EXPECT_EQ(AnchoredPrefix("^#"), "#");
  EXPECT_EQ(AnchoredPrefix("^ab*c"), "a");       // b may be missing
  EXPECT_EQ(AnchoredPrefix("^ab?c"), "a");
  EXPECT_EQ(AnchoredPrefix("^ab{2}c"), "a");
  EXPECT_EQ(AnchoredPrefix("^ab+c"), "ab");      // b at least once, then who knows
  EXPECT_EQ(AnchoredPrefix("^a[bc]d"), "a");
  EXPECT_EQ(AnchoredPrefix("^a\\.b"), "a");
  EXPECT_EQ(AnchoredPrefix("^ab|cd"), "");       // "cd" needs no "ab"
  EXPECT_EQ(AnchoredPrefix("^a(b|c)|d"), "");
  EXPECT_EQ(AnchoredPrefix("^a(b|c)"), "a");     // a group's alternatives are after the prefix
  EXPECT_EQ(AnchoredPrefix("^a[|]b"), "a|b");
  EXPECT_EQ(AnchoredPrefix("ab"), "");           // not anchored
  // Ignored lines still found through the prefixes.
  EXPECT_EQ(IsIgnoredLine("\"SSET 42\" x"), 1);
  EXPECT_EQ(IsIgnoredLine("\"IMAP:box\" db"), 1);
  EXPECT_EQ(IsIgnoredLine("\"IMAP:box\" f"), 0);
  EXPECT_EQ(IsIgnoredLine("\"TAPE\" "), 1);
  EXPECT_EQ(IsIgnoredLine("\"TAPES\" "), 0);
  EXPECT_EQ(IsIgnoredLine("Tape ID 1 Tape Label 2 Format cpio"), 1);
  EXPECT_EQ(IsIgnoredLine("Tape I"), 0);
}

}  // namespace
