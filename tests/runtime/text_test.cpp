// Tests of the text conversion and path-name helpers.
#include "runtime/text.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/platform.h"

namespace {

constexpr size_t kFail = static_cast<size_t>(-1);
const char kUtf8[] = ".UTF-8";
const char kWithFallback[] = ".UTF-8,,ISO-8859";

// Decodes with the buffer overload; false on failure (then out must be "").
bool Decode(const std::string& in, const char* list, std::wstring* out, size_t maxChars = 256) {
  std::vector<wchar_t> buf(maxChars + 1, L'#');
  size_t n = korvo::mbstowcsl(buf.data(), in.c_str(), maxChars, list);
  bool ok = n != kFail;
  if (!ok) n = 0;
  EXPECT_EQ(buf[n], L'\0');
  out->assign(buf.data(), n);
  return ok;
}

// What the ISO-8859-1 fallback must give: each byte as its code point.
std::wstring Latin1(const std::string& bytes) {
  std::wstring w;
  for (unsigned char c : bytes) w += static_cast<wchar_t>(c);
  return w;
}

// One code point as wide strings hold it: UTF-16 where wchar_t has 16 bits.
std::wstring Wide(char32_t cp) {
  if (sizeof(wchar_t) == 2 && cp > 0xFFFF) {
    cp -= 0x10000;
    return {static_cast<wchar_t>(0xD800 + (cp >> 10)), static_cast<wchar_t>(0xDC00 + (cp & 0x3FF))};
  }
  return {static_cast<wchar_t>(cp)};
}

TEST(MbstowcslTest, Utf8Boundaries) {
  // clang-format off
  const std::pair<const char*, std::wstring> cases[] = {
      {"\x7F", {wchar_t(0x7F)}}, {"\xC2\x80", {wchar_t(0x80)}}, {"\xDF\xBF", {wchar_t(0x7FF)}},
      {"\xE0\xA0\x80", {wchar_t(0x800)}}, {"\xED\x9F\xBF", {wchar_t(0xD7FF)}},
      {"\xEE\x80\x80", {wchar_t(0xE000)}}, {"\xEF\xBF\xBF", {wchar_t(0xFFFF)}},
      {"\xF0\x90\x80\x80", Wide(0x10000)}, {"\xF4\x8F\xBF\xBF", Wide(0x10FFFF)},
      {"K\xC3\xB6ln/\xE2\x82\xAC.txt", L"K\u00F6ln/\u20AC.txt"}, {"", L""}};
  // clang-format on
  for (const auto& [bytes, expected] : cases) {
    std::wstring out;
    EXPECT_TRUE(Decode(bytes, kUtf8, &out)) << bytes;
    EXPECT_EQ(out, expected) << bytes;
  }
}

TEST(MbstowcslTest, IllFormedUtf8FailsOrFallsBackToLatin1) {
  // clang-format off
  const char* cases[] = {
      "\xC0\x80", "\xC1\xBF", "\xE0\x9F\xBF", "\xF0\x8F\xBF\xBF",  // overlong
      "\xED\xA0\x80", "\xED\xBF\xBF",                             // surrogates
      "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF",             // beyond U+10FFFF
      "\x80", "abc\xC3", "\xE2\x82", "\xE2\x82x", "M\xFCller"};     // stray, truncated, Latin-1
  // clang-format on
  for (const char* bytes : cases) {
    std::wstring out = L"old";
    EXPECT_FALSE(Decode(bytes, kUtf8, &out)) << bytes;
    EXPECT_EQ(out, L"");
    EXPECT_TRUE(Decode(bytes, kWithFallback, &out)) << bytes;
    EXPECT_EQ(out, Latin1(bytes)) << bytes;
  }
}

TEST(MbstowcslTest, EncodingLists) {
  const std::string e = "\xC3\xA9";  // U+00E9 in UTF-8
  // The first entry that decodes wins; unknown and empty entries are skipped.
  // clang-format off
  const std::pair<const char*, const wchar_t*> cases[] = {
      {"UTF-8", L"\u00E9"}, {"utf8", L"\u00E9"}, {" , ,UTF-8", L"\u00E9"}, {"EBCDIC,UTF-8", L"\u00E9"},
      {"ISO-8859-1,.UTF-8", L"\u00C3\u00A9"}, {".ISO-8859", L"\u00C3\u00A9"}, {"EBCDIC", nullptr},
      {"", nullptr}};
  // clang-format on
  for (const auto& [list, expected] : cases) {
    std::wstring out;
    EXPECT_EQ(Decode(e, list, &out), expected != nullptr) << list;
    EXPECT_EQ(out, expected ? expected : L"") << list;
  }
  wchar_t buf[4];
  EXPECT_EQ(korvo::mbstowcsl(buf, "x", 4, nullptr), kFail);
}

TEST(MbstowcslTest, CutsToMaxCharsButChecksTheWholeText) {
  // ASCII runs are decoded in blocks: every cut must still be a prefix, and
  // a bad byte anywhere must reject UTF-8.
  const std::string mixed =
      "abcdefghij\xC3\xA4klmnopqrstuvwxyz0123456789\xE2\x82\xAC"
      "ABCDEFGHIJKLMNOP";
  std::wstring whole;
  std::wstring out;
  ASSERT_TRUE(Decode(mixed, kUtf8, &whole));
  ASSERT_EQ(whole.size(), 54u);
  for (size_t maxChars = 1; maxChars <= whole.size() + 2; ++maxChars) {
    ASSERT_TRUE(Decode(mixed, kUtf8, &out, maxChars));
    EXPECT_EQ(out, whole.substr(0, maxChars - 1)) << maxChars;
  }
  for (size_t pos = 0; pos < mixed.size(); ++pos) {
    std::string bad = mixed;
    bad[pos] = '\xFF';
    EXPECT_FALSE(Decode(bad, kUtf8, &out)) << pos;
  }
  ASSERT_TRUE(Decode("\xC3\xA4xyz\xFF", kWithFallback, &out, 3));  // bad byte beyond the cut
  EXPECT_EQ(out, Latin1("\xC3\xA4"));
  EXPECT_EQ(korvo::mbstowcsl(nullptr, "abc", 0, kUtf8), 0u);

  // The std::wstring overload takes the length given, not the NUL.
  const char bytes[] = "ab\xC3\xA9zz";
  ASSERT_TRUE(korvo::mbstowcsl(bytes, 4, kUtf8, &out));
  EXPECT_EQ(out, L"ab\u00E9");
  EXPECT_FALSE(korvo::mbstowcsl(bytes, 3, kUtf8, &out));  // cut inside the sequence
  EXPECT_EQ(out, L"");
}

TEST(WcstombsUtf8Test, RoundTripAndInvalidValues) {
  const std::string text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80/z";
  std::wstring wide;
  ASSERT_TRUE(korvo::mbstowcsl(text.data(), text.size(), kUtf8, &wide));
  EXPECT_EQ(korvo::wcstombs_utf8(wide.c_str()), text);
  // Two values that are no character: beyond Unicode (a lone low surrogate
  // where wchar_t has 16 bits), and a high surrogate without its partner.
  const wchar_t beyond = sizeof(wchar_t) == 2 ? static_cast<wchar_t>(0xDC00) : static_cast<wchar_t>(0x110000);
  const wchar_t bad[] = {L'a', beyond, static_cast<wchar_t>(0xD800), L'b', 0};
  EXPECT_EQ(korvo::wcstombs_utf8(bad),
            "a\xEF\xBF\xBD\xEF\xBF\xBD"
            "b");
}

TEST(PathHelpersTest, BasenameSeparatorsAndWildcards) {
  EXPECT_STREQ(korvo::basename("C:\\dir/sub\\file.txt"), "file.txt");
  EXPECT_STREQ(korvo::basename("/a/b/"), "");
  EXPECT_STREQ(korvo::basename(L"dir\\sub/f\u00E9.txt"), L"f\u00E9.txt");
  char path[] = "a/b\\c/d";
  korvo::szPath2Dos(path);
  EXPECT_STREQ(path, "a\\b\\c\\d");
  EXPECT_EQ(korvo::fnmatch("ss_00?.[cm]at", "ss_001.mat"), 0);
  EXPECT_NE(korvo::fnmatch("*.cat", "ss_001.dat"), 0);
}

TEST(ReadLineTest, LineEndsAndLongLines) {
  int error = 0;
  FILE* fp = pf::TempFile(&error);
  ASSERT_NE(fp, nullptr) << error;
  std::string longLine(5000, 'L');
  longLine[1022] = '\r';         // a "\r" inside a line stays
  std::string split(1022, 's');  // its "\r\n" falls across the reader's chunks
  std::string content = "unix\nwindows\r\n\n\r\n" + longLine + "\n" + split + "\r\nlast";
  std::fwrite(content.data(), 1, content.size(), fp);
  std::rewind(fp);
  std::string line;
  for (const std::string& expected :
       std::vector<std::string>{"unix", "windows", "", "", longLine, split, "last"}) {
    ASSERT_TRUE(korvo::read_line(fp, &line));
    EXPECT_EQ(line, expected);
  }
  EXPECT_FALSE(korvo::read_line(fp, &line));
  EXPECT_EQ(line, "");
  std::fclose(fp);
}

}  // namespace
