// Tests of the INI reader and of resolve_path().
#include "runtime/ini.h"

#include <gtest/gtest.h>

#include "runtime_test_util.h"

namespace {

using runtime_test::ScopedEnv;
using runtime_test::TempDir;

// Windows line ends and a byte order mark on purpose.
const char kSample[] =
    "\xEF\xBB\xBF; comment\r\n# comment\r\n\r\n[Pathes]\r\n  gv_rw_tqslis  =  /var/tq/slis  \r\n"
    "GV_RW_INI=/etc/tq\nempty=\nwith_equals = a=b\ndup = first\ndup = second\n"
    "[other]\ndup = other\n[PATHES]\nlate = reopened\ndup = third\n";

TEST(IniTest, Lookups) {
  TempDir dir;
  std::string path = dir.Write("product.ini", kSample);
  struct {
    const char* section;
    const char* key;
    int result;
    const char* value;
  } const cases[] = {{"pathes", "gv_rw_tqslis", 1, "/var/tq/slis"},
                     {"[pathes]", "GV_RW_TQSLIS", 1, "/var/tq/slis"},
                     {"PaThEs", "gv_rw_ini", 1, "/etc/tq"},
                     {"pathes", "empty", 1, ""},
                     {"pathes", "with_equals", 1, "a=b"},
                     {"pathes", "dup", 1, "first"},
                     {"other", "dup", 1, "other"},
                     {"pathes", "late", 1, "reopened"},
                     {"pathes", "missing", 0, ""},
                     {"nosuch", "dup", 0, ""}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.section) + " / " + c.key);
    char value[64] = "junk";
    char error[256] = "junk";
    EXPECT_EQ(korvo::i_GetPrivateProfileString(c.section, c.key, value, sizeof value, path.c_str(), error,
                                               sizeof error),
              c.result);
    EXPECT_STREQ(value, c.value);
    EXPECT_EQ(std::string(error).rfind(c.result == 1 ? "" : path + ": ", 0), 0u) << error;
  }
  // Through the environment, and a value cut to the buffer.
  ScopedEnv env("TVU_TEST_INI", path);
  char small[5];
  char reason[128];
  EXPECT_EQ(korvo::i_READ_INI("TVU_TEST_INI", "[pathes]", "gv_rw_tqslis", small, sizeof small, reason,
                              sizeof reason),
            1);
  EXPECT_STREQ(small, "/var");
}

TEST(IniTest, MalformedFilesNameFileAndLine) {
  struct {
    std::string content;
    int line;
    const char* what;
  } const cases[] = {
      {"[s]\nk=v\njust words\n", 3, "key=value"},
      {"[s\nk=v\n", 1, "']'"},
      {"; c\n[s] trailing\n", 2, "after ']'"},
      {"[ ]\n", 1, "empty section"},
      {"[s]\n = v\n", 2, "empty key"},
      {"[s]\nk=v\n\n\nbroken\n", 5, "key=value"},                           // after the key asked for
      {"[s]\nk=" + std::string(9000, 'v') + "\nbroken\n", 3, "key=value"},  // a long line counts once
  };
  TempDir dir;
  for (const auto& c : cases) {
    std::string path = dir.Write("bad.ini", c.content);
    char value[32] = "junk";
    char error[256];
    EXPECT_EQ(
        korvo::i_GetPrivateProfileString("s", "k", value, sizeof value, path.c_str(), error, sizeof error),
        -1);
    std::string reason = error;
    EXPECT_EQ(reason.rfind(path + ":" + std::to_string(c.line) + ": ", 0), 0u) << reason;
    EXPECT_NE(reason.find(c.what), std::string::npos) << reason;
    EXPECT_STREQ(value, "");
  }
  char value[8];
  char error[256];
  std::string missing = dir.File("nope.ini");
  EXPECT_EQ(
      korvo::i_GetPrivateProfileString("s", "k", value, sizeof value, missing.c_str(), error, sizeof error),
      -1);
  EXPECT_EQ(std::string(error).rfind(missing + ": ", 0), 0u) << error;
  ScopedEnv unset("TVU_TEST_INI", std::nullopt);
  EXPECT_EQ(korvo::i_READ_INI("TVU_TEST_INI", "s", "k", value, sizeof value, error, sizeof error), -1);
  EXPECT_NE(std::string(error).find("TVU_TEST_INI"), std::string::npos) << error;
}

TEST(ResolvePathTest, JoinRulesAndFailures) {
  TempDir dir;
  ScopedEnv env("TQ_INI", dir.Write("tq.ini",
                                    "[pathes]\ngv_plain=/data\ngv_slash=/data/\ngv_back=C:\\data\\\n"
                                    "gv_Mixed_1=rel\ngv_empty=\n"));
  struct {
    const char* in;
    int result;
    const char* out;
  } const cases[] = {{"gv_plain:f.txt", 0, "/data/f.txt"},
                     {"gv_plain:/f.txt", 0, "/data/f.txt"},
                     {"gv_plain:\\f.txt", 0, "/data\\f.txt"},
                     {"gv_slash:f.txt", 0, "/data/f.txt"},
                     {"gv_back:f.txt", 0, "C:\\data\\f.txt"},
                     {"gv_plain:", 0, "/data"},
                     {"gv_empty:f.txt", 0, "f.txt"},
                     {"gv_mixed_1:a/b", 0, "rel/a/b"},
                     {"gv_unknown:f.txt", -1, "gv_unknown:f.txt"},
                     // Not variable prefixes: copied unchanged.
                     {"C:\\data\\f.txt", 0, "C:\\data\\f.txt"},
                     {"c:f", 0, "c:f"},
                     {"gv_:x", 0, "gv_:x"},
                     {"gv_a-b:x", 0, "gv_a-b:x"},
                     {"/abs/gv_plain:x", 0, "/abs/gv_plain:x"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.in);
    char out[128] = "junk";
    EXPECT_EQ(korvo::resolve_path(c.in, out, sizeof out), c.result);
    EXPECT_STREQ(out, c.out);
    EXPECT_EQ(korvo::resolve_path(std::string(c.in)), c.out);
  }
  char out[8];
  EXPECT_EQ(korvo::resolve_path("gv_plain:f.txt", out, sizeof out), 0);
  EXPECT_STREQ(out, "/data/f");
  // No product INI, or a malformed one: the input comes back unchanged.
  for (std::optional<std::string> ini :
       {std::optional<std::string>(), std::optional<std::string>(dir.File("absent.ini")),
        std::optional<std::string>(dir.Write("bad.ini", "[pathes]\ngv_x=/ok\nnot a line\n"))}) {
    ScopedEnv bad("TQ_INI", ini);
    EXPECT_EQ(korvo::resolve_path("gv_x:y", out, sizeof out), -1);
    EXPECT_STREQ(out, "gv_x:y");
  }
}

}  // namespace
