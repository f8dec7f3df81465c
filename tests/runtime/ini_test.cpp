// Tests of the INI reader and of resolve_path().
#include "runtime/ini.h"

#include <gtest/gtest.h>

#include <string>

#include "runtime_test_util.h"

namespace {

using runtime_test::ScopedEnv;
using runtime_test::TempDir;

const char kSample[] =
    "; product configuration\n"
    "# another comment style\n"
    "\n"
    "[Pathes]\n"
    "  gv_rw_tqslis  =  /var/tq/slis  \n"
    "GV_RW_INI=/etc/tq\n"
    "empty=\n"
    "with_equals = a=b\n"
    "dup = first\n"
    "dup = second\n"
    "[other]\n"
    "dup = other\n"
    "[PATHES]\n"
    "late = reopened section\n"
    "dup = third\n";

struct Lookup {
  const char* section;
  const char* key;
  int result;
  const char* value;
};

TEST(IniTest, LookupsFollowTheSyntaxRules) {
  TempDir dir;
  std::string path = dir.Write("product.ini", kSample);
  const Lookup cases[] = {
      {"pathes", "gv_rw_tqslis", 1, "/var/tq/slis"},  // blanks trimmed around key and value
      {"[pathes]", "GV_RW_TQSLIS", 1, "/var/tq/slis"},  // brackets and case in the request
      {"PaThEs", "gv_rw_ini", 1, "/etc/tq"},            // case in the file
      {"pathes", "empty", 1, ""},
      {"pathes", "with_equals", 1, "a=b"},  // only the first '=' separates
      {"pathes", "dup", 1, "first"},        // first occurrence wins, also across a reopened section
      {"other", "dup", 1, "other"},
      {"pathes", "late", 1, "reopened section"},
      {"pathes", "missing", 0, ""},
      {"nosuch", "dup", 0, ""},
  };
  for (const Lookup& c : cases) {
    SCOPED_TRACE(std::string(c.section) + " / " + c.key);
    char value[64] = "junk";
    char error[256] = "junk";
    int rc = korvo::i_GetPrivateProfileString(c.section, c.key, value, sizeof value, path.c_str(), error,
                                              sizeof error);
    EXPECT_EQ(rc, c.result);
    EXPECT_STREQ(value, c.value);
    if (rc == 1) {
      EXPECT_STREQ(error, "");
    } else {
      EXPECT_NE(std::string(error).find(path), std::string::npos) << error;
    }
  }
}

TEST(IniTest, WindowsLineEndsByteOrderMarkAndLongLines) {
  TempDir dir;
  std::string longValue(20000, 'x');
  std::string path = dir.Write("crlf.ini", "\xEF\xBB\xBF[s]\r\nk = v\r\nlong=" + longValue + "\r\n");
  char value[16];
  char error[256];
  EXPECT_EQ(korvo::i_GetPrivateProfileString("s", "k", value, sizeof value, path.c_str(), error, sizeof error), 1);
  EXPECT_STREQ(value, "v");
  // A value longer than the buffer is cut to size-1 characters.
  EXPECT_EQ(korvo::i_GetPrivateProfileString("s", "long", value, sizeof value, path.c_str(), error, sizeof error),
            1);
  EXPECT_EQ(std::string(value), longValue.substr(0, sizeof value - 1));
}

TEST(IniTest, MalformedLinesNameFileAndLine) {
  struct Bad {
    const char* content;
    int line;
    const char* what;  // part of the reason
  };
  const Bad cases[] = {
      {"[s]\nk=v\njust words\n", 3, "key=value"},
      {"[s\nk=v\n", 1, "']'"},
      {"; c\n[s] trailing\n", 2, "after ']'"},
      {"[ ]\n", 1, "empty section"},
      {"[s]\n = v\n", 2, "empty key"},
      // A bad line after the key asked for still rejects the file.
      {"[s]\nk=v\n\n\nbroken\n", 5, "key=value"},
  };
  TempDir dir;
  for (const Bad& c : cases) {
    SCOPED_TRACE(c.content);
    std::string path = dir.Write("bad.ini", c.content);
    char value[32] = "junk";
    char error[256];
    EXPECT_EQ(korvo::i_GetPrivateProfileString("s", "k", value, sizeof value, path.c_str(), error, sizeof error),
              -1);
    std::string reason = error;
    std::string where = path + ":" + std::to_string(c.line) + ": ";
    EXPECT_EQ(reason.rfind(where, 0), 0u) << reason;
    EXPECT_NE(reason.find(c.what), std::string::npos) << reason;
    EXPECT_STREQ(value, "");
  }
}

TEST(IniTest, MissingFileAndUnsetVariable) {
  TempDir dir;
  std::string missing = dir.File("nope.ini");
  char value[32];
  char error[256];
  EXPECT_EQ(korvo::i_GetPrivateProfileString("s", "k", value, sizeof value, missing.c_str(), error, sizeof error),
            -1);
  EXPECT_EQ(std::string(error).rfind(missing + ": ", 0), 0u) << error;

  ScopedEnv unset("TVU_TEST_INI", std::nullopt);
  EXPECT_EQ(korvo::i_READ_INI("TVU_TEST_INI", "[s]", "k", value, sizeof value, error, sizeof error), -1);
  EXPECT_NE(std::string(error).find("TVU_TEST_INI"), std::string::npos) << error;
}

TEST(IniTest, ReadIniUsesTheFileTheVariableNames) {
  TempDir dir;
  std::string path = dir.Write("p.ini", kSample);
  ScopedEnv env("TVU_TEST_INI", path);
  char value[64];
  char reason[256];
  EXPECT_EQ(korvo::i_READ_INI("TVU_TEST_INI", "[pathes]", "gv_rw_ini", value, sizeof value, reason, sizeof reason),
            1);
  EXPECT_STREQ(value, "/etc/tq");
  EXPECT_EQ(korvo::i_READ_INI("TVU_TEST_INI", "pathes", "none", value, sizeof value, reason, sizeof reason), 0);
  EXPECT_NE(std::string(reason).find("none"), std::string::npos) << reason;
}

TEST(ResolvePathTest, JoinsValueAndRest) {
  TempDir dir;
  std::string ini = dir.Write("tq.ini",
                              "[pathes]\n"
                              "gv_plain=/data\n"
                              "gv_slash=/data/\n"
                              "gv_back=C:\\data\\\n"
                              "gv_Mixed_1=rel\n"
                              "gv_empty=\n");
  ScopedEnv env("TQ_INI", ini);
  struct Case {
    const char* in;
    int result;
    const char* out;
  };
  const Case cases[] = {
      {"gv_plain:file.txt", 0, "/data/file.txt"},
      {"gv_plain:/file.txt", 0, "/data/file.txt"},
      {"gv_plain:\\file.txt", 0, "/data\\file.txt"},
      {"gv_slash:file.txt", 0, "/data/file.txt"},
      {"gv_back:file.txt", 0, "C:\\data\\file.txt"},
      {"gv_plain:", 0, "/data"},
      {"gv_empty:file.txt", 0, "file.txt"},
      {"gv_mixed_1:a/b", 0, "rel/a/b"},  // the key lookup ignores case
      {"gv_unknown:file.txt", -1, "gv_unknown:file.txt"},
      // Not variable prefixes: copied unchanged.
      {"C:\\data\\file.txt", 0, "C:\\data\\file.txt"},
      {"c:file", 0, "c:file"},
      {"gv_:x", 0, "gv_:x"},
      {"gv_a-b:x", 0, "gv_a-b:x"},
      {"/abs/gv_plain:x", 0, "/abs/gv_plain:x"},
      {"", 0, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.in);
    char out[128] = "junk";
    EXPECT_EQ(korvo::resolve_path(c.in, out, sizeof out), c.result);
    EXPECT_STREQ(out, c.out);
    EXPECT_EQ(korvo::resolve_path(std::string(c.in)), c.out);
  }
  char small[8];
  EXPECT_EQ(korvo::resolve_path("gv_plain:file.txt", small, sizeof small), 0);
  EXPECT_STREQ(small, "/data/f");
}

TEST(ResolvePathTest, FailsWithoutTheProductIni) {
  TempDir dir;
  char out[64];
  {
    ScopedEnv env("TQ_INI", std::nullopt);
    EXPECT_EQ(korvo::resolve_path("gv_x:y", out, sizeof out), -1);
    EXPECT_STREQ(out, "gv_x:y");
  }
  {
    ScopedEnv env("TQ_INI", dir.File("absent.ini"));
    EXPECT_EQ(korvo::resolve_path("gv_x:y", out, sizeof out), -1);
    EXPECT_STREQ(out, "gv_x:y");
  }
  {
    ScopedEnv env("TQ_INI", dir.Write("bad.ini", "[pathes]\ngv_x=/ok\nnot a line\n"));
    EXPECT_EQ(korvo::resolve_path("gv_x:y", out, sizeof out), -1);
    EXPECT_STREQ(out, "gv_x:y");
  }
}

}  // namespace
