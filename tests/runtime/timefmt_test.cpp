// Tests of cm_strptime and cm_strftime.
#include "runtime/timefmt.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

const char kCatalog[] = "%Y-%m-%d %H:%M:%S";

// Recognisable values in every field, to see which ones a parse touched.
struct tm Sentinel() {
  struct tm tm;
  std::memset(&tm, 0x5A, sizeof tm);
  return tm;
}

TEST(StrptimeTest, ParsesFieldsAndReturnsTheEnd) {
  const int kKeep = 0x5A5A5A5A;  // the field is not in the format
  struct {
    const char* text;
    const char* format;
    int year, mon, mday, hour, min, sec;  // as in struct tm
    size_t consumed;
  } const cases[] = {{"2024-02-29 23:59:60", kCatalog, 124, 1, 29, 23, 59, 60, 19},
                     {"1999-1-2 3:4:5", kCatalog, 99, 0, 2, 3, 4, 5, 14},
                     {"2024-12-31   07:08:09 rest", kCatalog, 124, 11, 31, 7, 8, 9, 21},  // a run of blanks
                     {"2024-12-3107:08:09", kCatalog, 124, 11, 31, 7, 8, 9, 18},          // or none
                     {"0000-01-01 00:00:00", kCatalog, -1900, 0, 1, 0, 0, 0, 19},
                     {"20240131", "%Y%m%d", 124, 0, 31, kKeep, kKeep, kKeep, 8},  // two digits, greedily
                     {"100% 12", "100%% %H", kKeep, kKeep, kKeep, 12, kKeep, kKeep, 7}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.text) + " | " + c.format);
    struct tm tm = Sentinel();
    const char* end = korvo::cm_strptime(c.text, c.format, &tm);
    ASSERT_NE(end, nullptr);
    EXPECT_EQ(static_cast<size_t>(end - c.text), c.consumed);
    EXPECT_EQ(tm.tm_year, c.year);
    EXPECT_EQ(tm.tm_mon, c.mon);
    EXPECT_EQ(tm.tm_mday, c.mday);
    EXPECT_EQ(tm.tm_hour, c.hour);
    EXPECT_EQ(tm.tm_min, c.min);
    EXPECT_EQ(tm.tm_sec, c.sec);
    EXPECT_EQ(tm.tm_wday, kKeep);
    EXPECT_EQ(tm.tm_isdst, -1);
  }
}

TEST(StrptimeTest, RejectsBadTextAndLeavesTmAlone) {
  // clang-format off
  const std::pair<const char*, const char*> cases[] = {
      {"0000-00-00 00:00:00", kCatalog}, {"2024-13-01 00:00:00", kCatalog}, {"2024-00-01 00:00:00", kCatalog},
      {"2024-01-32 00:00:00", kCatalog}, {"2024-01-00 00:00:00", kCatalog}, {"2024-01-01 24:00:00", kCatalog},
      {"2024-01-01 00:60:00", kCatalog}, {"2024-01-01 00:00:61", kCatalog}, {"2024-1-1 -1:0:0", kCatalog},
      {"224-01-01 00:00:00", kCatalog}, {"20245-01-01 00:00:00", kCatalog}, {"2024-001-01 0:0:0", kCatalog},
      {"2024/01/01 00:00:00", kCatalog}, {"2024-01-01 00:00", kCatalog}, {"", kCatalog},
      {"2024", "%y"}, {"2024", "%Y%"}, {"50", "%%"}};  // unsupported directive, lone '%'
  // clang-format on
  for (const auto& [text, format] : cases) {
    struct tm tm = Sentinel();
    EXPECT_EQ(korvo::cm_strptime(text, format, &tm), nullptr) << text << " | " << format;
    struct tm untouched = Sentinel();
    EXPECT_EQ(std::memcmp(&tm, &untouched, sizeof tm), 0) << text;
  }
}

TEST(StrftimeTest, FormatsAndReportsOverflow) {
  struct tm tm = {};
  ASSERT_NE(korvo::cm_strptime("2023-07-04 05:06:07", kCatalog, &tm), nullptr);
  char out[32];
  EXPECT_EQ(korvo::cm_strftime(out, sizeof out, kCatalog, &tm), 19u);
  EXPECT_STREQ(out, "2023-07-04 05:06:07");
  char tiny[8] = "junk";
  EXPECT_EQ(korvo::cm_strftime(tiny, sizeof tiny, kCatalog, &tm), 0u);
  EXPECT_STREQ(tiny, "");
}

}  // namespace
