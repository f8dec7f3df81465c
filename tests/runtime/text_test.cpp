// Tests of the text conversion and path-name helpers.
#include "runtime/text.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace {

constexpr size_t kFail = static_cast<size_t>(-1);
const char kUtf8Only[] = ".UTF-8";
const char kDefaultList[] = ".UTF-8,,ISO-8859";

// Decodes with the buffer overload; nullopt-like: returns false on failure.
bool Decode(const std::string& in, const char* list, std::wstring* out, size_t maxChars = 256) {
  std::vector<wchar_t> buf(maxChars + 1, L'#');
  size_t n = korvo::mbstowcsl(buf.data(), in.c_str(), maxChars, list);
  if (n == kFail) {
    EXPECT_EQ(buf[0], L'\0');
    return false;
  }
  EXPECT_EQ(buf[n], L'\0');
  out->assign(buf.data(), n);
  return true;
}

// Latin-1 reading of the bytes: what the ISO-8859 fallback must give.
std::wstring Latin1(const std::string& bytes) {
  std::wstring w;
  for (unsigned char c : bytes) w.push_back(static_cast<wchar_t>(c));
  return w;
}

TEST(MbstowcslTest, WellFormedUtf8Boundaries) {
  struct Case {
    const char* bytes;
    std::wstring expected;
  };
  const Case cases[] = {
      {"", L""},
      {"plain/ascii path.txt", L"plain/ascii path.txt"},
      {"\x7F", std::wstring(1, wchar_t(0x7F))},
      {"\xC2\x80", std::wstring(1, wchar_t(0x80))},
      {"\xDF\xBF", std::wstring(1, wchar_t(0x7FF))},
      {"\xE0\xA0\x80", std::wstring(1, wchar_t(0x800))},
      {"\xED\x9F\xBF", std::wstring(1, wchar_t(0xD7FF))},
      {"\xEE\x80\x80", std::wstring(1, wchar_t(0xE000))},
      {"\xEF\xBF\xBF", std::wstring(1, wchar_t(0xFFFF))},
      {"\xF0\x90\x80\x80", std::wstring(1, wchar_t(0x10000))},
      {"\xF4\x8F\xBF\xBF", std::wstring(1, wchar_t(0x10FFFF))},
      {"K\xC3\xB6ln/\xE2\x82\xAC.txt", L"K\u00F6ln/\u20AC.txt"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bytes);
    std::wstring out;
    ASSERT_TRUE(Decode(c.bytes, kUtf8Only, &out));
    EXPECT_EQ(out, c.expected);
  }
}

TEST(MbstowcslTest, IllFormedUtf8FailsOrFallsBackToLatin1) {
  const char* cases[] = {
      "\xC0\x80",          // overlong NUL
      "\xC1\xBF",          // overlong 2-byte
      "\xE0\x9F\xBF",      // overlong 3-byte
      "\xF0\x8F\xBF\xBF",  // overlong 4-byte
      "\xED\xA0\x80",      // high surrogate
      "\xED\xBF\xBF",      // low surrogate
      "\xF4\x90\x80\x80",  // above U+10FFFF
      "\xF5\x80\x80\x80",  // lead byte never valid
      "\xFF",
      "\x80",              // lone continuation byte
      "abc\xC3",           // truncated at the end
      "\xE2\x82",          // truncated 3-byte
      "\xE2\x82x",         // bad continuation
      "M\xFCller",         // typical Latin-1 text
  };
  for (const char* bytes : cases) {
    SCOPED_TRACE(bytes);
    std::wstring out;
    EXPECT_FALSE(Decode(bytes, kUtf8Only, &out));
    ASSERT_TRUE(Decode(bytes, kDefaultList, &out));
    EXPECT_EQ(out, Latin1(bytes));
  }
}

TEST(MbstowcslTest, EncodingListParsing) {
  const std::string utf8 = "\xC3\xA9";  // U+00E9
  struct Case {
    const char* list;
    bool ok;
    std::wstring expected;
  };
  const Case cases[] = {
      {"UTF-8", true, L"\u00E9"},
      {"utf8", true, L"\u00E9"},
      {".UTF8,ISO-8859", true, L"\u00E9"},
      {"ISO-8859-1,.UTF-8", true, Latin1(utf8)},  // order matters: Latin-1 accepts everything
      {".ISO-8859", true, Latin1(utf8)},
      {" , ,UTF-8", true, L"\u00E9"},  // empty entries skipped
      {"EBCDIC,UTF-8", true, L"\u00E9"},  // unknown names skipped
      {"EBCDIC", false, L""},
      {"", false, L""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.list);
    std::wstring out;
    EXPECT_EQ(Decode(utf8, c.list, &out), c.ok);
    if (c.ok) {
      EXPECT_EQ(out, c.expected);
    }
  }
  wchar_t buf[4];
  EXPECT_EQ(korvo::mbstowcsl(buf, "x", 4, nullptr), kFail);
}

TEST(MbstowcslTest, CutsToMaxCharsButValidatesEverything) {
  std::wstring out;
  ASSERT_TRUE(Decode("abcdef", kUtf8Only, &out, 4));
  EXPECT_EQ(out, L"abc");
  // Cut counts characters, not bytes.
  ASSERT_TRUE(Decode("\xC3\xA4\xC3\xB6\xC3\xBC\xC3\x9F", kUtf8Only, &out, 3));
  EXPECT_EQ(out, L"\u00E4\u00F6");
  // A bad byte beyond the cut still rejects UTF-8 and selects the fallback.
  ASSERT_TRUE(Decode("\xC3\xA4xyz\xFF", kDefaultList, &out, 3));
  EXPECT_EQ(out, Latin1("\xC3\xA4"));
  // Every cut of a longer mixed text (ASCII runs are decoded in blocks) is a
  // prefix of the whole, and a bad byte anywhere rejects UTF-8.
  const std::string mixed = "abcdefghij\xC3\xA4klmnopqrstuvwxyz0123456789\xE2\x82\xAC" "ABCDEFGHIJKLMNOP";
  std::wstring whole;
  ASSERT_TRUE(Decode(mixed, kUtf8Only, &whole));
  ASSERT_EQ(whole.size(), 10u + 1 + 26 + 1 + 16);
  for (size_t maxChars = 1; maxChars <= whole.size() + 2; ++maxChars) {
    ASSERT_TRUE(Decode(mixed, kUtf8Only, &out, maxChars));
    EXPECT_EQ(out, whole.substr(0, maxChars - 1)) << maxChars;
  }
  for (size_t pos = 0; pos < mixed.size(); ++pos) {
    std::string bad = mixed;
    bad[pos] = '\xFF';
    EXPECT_FALSE(Decode(bad, kUtf8Only, &out)) << pos;
  }
  ASSERT_TRUE(Decode("abc", kUtf8Only, &out, 1));
  EXPECT_EQ(out, L"");
  EXPECT_EQ(korvo::mbstowcsl(nullptr, "abc", 0, kUtf8Only), 0u);
}

TEST(MbstowcslTest, StringOverloadUsesTheGivenLength) {
  std::wstring out = L"old";
  const char bytes[] = "ab\xC3\xA9zz";
  ASSERT_TRUE(korvo::mbstowcsl(bytes, 4, kUtf8Only, &out));
  EXPECT_EQ(out, L"ab\u00E9");
  // The length cuts inside the sequence: UTF-8 fails, Latin-1 takes over.
  EXPECT_FALSE(korvo::mbstowcsl(bytes, 3, kUtf8Only, &out));
  EXPECT_EQ(out, L"");
  ASSERT_TRUE(korvo::mbstowcsl(bytes, 3, kDefaultList, &out));
  EXPECT_EQ(out, Latin1("ab\xC3"));
  ASSERT_TRUE(korvo::mbstowcsl(bytes, 0, kUtf8Only, &out));
  EXPECT_EQ(out, L"");
}

TEST(WcstombsUtf8Test, RoundTripAndInvalidValues) {
  const std::string text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80/z";
  std::wstring wide;
  ASSERT_TRUE(korvo::mbstowcsl(text.data(), text.size(), kUtf8Only, &wide));
  EXPECT_EQ(korvo::wcstombs_utf8(wide.c_str()), text);
  const wchar_t bad[] = {L'a', static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0x110000), L'b', 0};
  EXPECT_EQ(korvo::wcstombs_utf8(bad), "a\xEF\xBF\xBD\xEF\xBF\xBD" "b");
  EXPECT_EQ(korvo::wcstombs_utf8(nullptr), "");
}

TEST(PathHelpersTest, BasenameSeparatorsAndWildcards) {
  EXPECT_STREQ(korvo::basename("C:\\dir/sub\\file.txt"), "file.txt");
  EXPECT_STREQ(korvo::basename("/a/b/"), "");
  EXPECT_STREQ(korvo::basename("plain"), "plain");
  EXPECT_STREQ(korvo::basename(static_cast<const char*>(nullptr)), "");
  EXPECT_STREQ(korvo::basename(L"dir\\sub/f\u00E9.txt"), L"f\u00E9.txt");
  EXPECT_STREQ(korvo::basename(L"\\"), L"");

  char path[] = "a/b\\c/d";
  korvo::szPath2Dos(path);
  EXPECT_STREQ(path, "a\\b\\c\\d");

  EXPECT_EQ(korvo::fnmatch("*.cat", "ss_001.cat"), 0);
  EXPECT_EQ(korvo::fnmatch("ss_00?.[cm]at", "ss_001.mat"), 0);
  EXPECT_NE(korvo::fnmatch("*.cat", "ss_001.dat"), 0);
  EXPECT_NE(korvo::fnmatch(nullptr, "x"), 0);
}

TEST(ReadLineTest, LineEndsAndLongLines) {
  int error = 0;
  FILE* fp = pf::TempFile(&error);
  ASSERT_NE(fp, nullptr) << error;
  std::string longLine(5000, 'L');
  longLine[1022] = '\r';  // a "\r" inside a line stays
  // "\r\n" split over the reader's chunk boundary: the "\r" must still go.
  std::string split(1022, 's');
  std::string content = "unix\nwindows\r\n\n\r\n" + longLine + "\n" + split + "\r\nlast";
  std::fwrite(content.data(), 1, content.size(), fp);
  std::rewind(fp);
  const std::string expected[] = {"unix", "windows", "", "", longLine, split, "last"};
  std::string line;
  for (const std::string& e : expected) {
    ASSERT_TRUE(korvo::read_line(fp, &line));
    EXPECT_EQ(line, e);
  }
  EXPECT_FALSE(korvo::read_line(fp, &line));
  EXPECT_EQ(line, "");
  std::fclose(fp);
}

}  // namespace
