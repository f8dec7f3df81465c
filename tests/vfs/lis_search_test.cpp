// Tests of the catalog search: which lines iEXTRACT_DIR hands out for a
// directory and in which order, re-reading far-apart and overlong lines,
// noticing a changed catalog, and the file-or-directory line test.
#include "runtime/lis_search.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "support/test_util.h"

namespace {

std::string Item(const std::string& path, const char* type) {
  return "\"" + path + "\" " + type + " 2026-11-01 01:59:00 2026-11-01 01:58:30 0 1 2 3 4 0 SF20261101020000 0";
}

struct Extracted {
  int rc = 0;
  long files = 0, dirs = 0;
  std::vector<std::string> lines;
};

Extracted Extract(const std::string& catalog, const char* dir) {
  Extracted x;
  FILE* out = std::tmpfile();
  x.rc = korvo::iEXTRACT_DIR(catalog.c_str(), dir, out, &x.files, &x.dirs);
  std::rewind(out);
  char buf[8192];
  std::string text;
  for (size_t n; (n = std::fread(buf, 1, sizeof buf, out)) > 0;) text.append(buf, n);
  std::fclose(out);
  for (size_t i = 0, nl; i < text.size(); i = nl + 1) {
    nl = text.find('\n', i);
    x.lines.push_back(text.substr(i, nl - i));
  }
  return x;
}

using Lines = std::vector<std::string>;

TEST(LisSearchTest, ExtractsDirectEntriesInCatalogOrder) {
  tvutest::TempDir tmp;
  const std::string catalog = tmp / "cat.lsl";
  tvutest::WriteFile(catalog, "Tape ID: T Tape Label: T Format: CPIO LIS: 2.0\n# \"demo/x\" f\n\"SSET: header\" f 1\n" +
                                  Item("demo", "d") + "\n" + Item("demo/a.txt", "f") + "\n" + Item("demo/sub", "d") +
                                  "\n" + Item("demo/sub/deep.txt", "f") + "\n" + Item("demo/b.db", "db") + "\r\n" +
                                  Item("C:", "d") + "\n" + Item("C:/x/y.txt", "f") + "\n" + Item("/usr/bin/ls", "f") +
                                  "\n" + Item("demo//c.txt", "f") + "\n" + Item("top.txt", "f") +
                                  "\nTotal: 1 Last File Offset: 2 Last Dir Offset: 3 Number of directories: 4\n" +
                                  Item("demo/last", "f"));  // no line end at the end of the file
  char why[256] = "x";
  ASSERT_EQ(0, korvo::INIT_LIS_LIB(catalog.c_str(), why, sizeof why));
  EXPECT_STREQ("", why);

  // Catalog order, the "\r" of a line end dropped, "db" counted as a file;
  // the directory's own spelling does not matter (the tree ignores case).
  const Extracted demo = Extract(catalog, "demo");
  EXPECT_EQ(0, demo.rc);
  EXPECT_EQ((Lines{Item("demo/a.txt", "f"), Item("demo/sub", "d"), Item("demo/b.db", "db"),
                   Item("demo//c.txt", "f"), Item("demo/last", "f")}),
            demo.lines);
  EXPECT_EQ(1, demo.dirs);
  EXPECT_EQ(4, demo.files);
  EXPECT_EQ(demo.lines, Extract(catalog, "DeMo").lines);

  // Header, comment and footer lines are no entries of the top.
  for (const char* top : {"", "/"}) {
    const Extracted t = Extract(catalog, top);
    EXPECT_EQ((Lines{Item("demo", "d"), Item("C:", "d"), Item("top.txt", "f")}), t.lines) << top;
    EXPECT_EQ(2, t.dirs);
  }
  EXPECT_EQ(Lines{Item("C:/x/y.txt", "f")}, Extract(catalog, "C:/x").lines);
  EXPECT_EQ(Lines{Item("/usr/bin/ls", "f")}, Extract(catalog, "/usr/bin/").lines);
  EXPECT_TRUE(Extract(catalog, "nowhere").lines.empty());
}

TEST(LisSearchTest, FarApartAndOverlongLinesAreReadBack) {
  // Lines of one directory far apart (separate reads), and one line of more
  // than 1 MiB whose length does not fit the index.
  tvutest::TempDir tmp;
  const std::string filler = "# " + std::string(100 * 1024, 'x') + "\n";
  const std::string longLine = Item("far/long", "f") + std::string(1100 * 1024, 'y');
  std::string text;
  Lines expected;
  for (int i = 0; i < 5; ++i) {
    expected.push_back(Item("far/f" + std::to_string(i), "f"));
    text += expected.back() + "\n" + filler;
  }
  expected.insert(expected.end(), {longLine, Item("far/after", "f"), Item("far/next", "f")});
  for (size_t i = 5; i < expected.size(); ++i) text += expected[i] + "\n";
  tvutest::WriteFile(tmp / "far.lsl", text);
  const Extracted far = Extract(tmp / "far.lsl", "far");
  EXPECT_EQ(0, far.rc);
  EXPECT_TRUE(far.lines == expected);  // (no dump of a megabyte on failure)
}

TEST(LisSearchTest, ChangedCatalogIsIndexedAgainAndMissingOneFails) {
  tvutest::TempDir tmp;
  const std::string catalog = tmp / "c.lsl";
  tvutest::WriteFile(catalog, Item("d/one", "f") + "\n");
  ASSERT_EQ(0, korvo::INIT_LIS_LIB(catalog.c_str()));
  EXPECT_EQ(Lines{Item("d/one", "f")}, Extract(catalog, "d").lines);
  // Rewritten: the old offsets must not be used.
  tvutest::WriteFile(catalog, Item("e/zero", "f") + "\n" + Item("d/two", "f") + "\n");
  ASSERT_EQ(0, korvo::INIT_LIS_LIB(catalog.c_str()));
  EXPECT_EQ(Lines{Item("d/two", "f")}, Extract(catalog, "d").lines);

  char why[256] = "";
  EXPECT_EQ(-1, korvo::INIT_LIS_LIB((tmp / "missing.lsl").c_str(), why, sizeof why));
  EXPECT_NE(std::string::npos, std::string(why).find("missing.lsl")) << why;
  EXPECT_EQ(-1, Extract(tmp / "missing.lsl", "d").rc);
}

TEST(LisSearchTest, FileOrDirectoryLines) {
  for (const char* yes : {"\"a/b\" f 2026-11-01", "\"a b\" d 2026", "\"a\" f"})
    EXPECT_EQ(1, korvo::iIS_FILESYSTEM_FILE_OR_DIRECTORY(yes)) << yes;
  for (const char* no : {"\"a\" db 2026", "\"a\" R 2026", "\"a\"f 2026", "\"a f 2026", "a f 2026", "# \"a\" f", ""})
    EXPECT_EQ(0, korvo::iIS_FILESYSTEM_FILE_OR_DIRECTORY(no)) << no;
}

}  // namespace
