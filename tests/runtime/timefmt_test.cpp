// Tests of cm_strptime, cm_strftime and time_get.
#include "runtime/timefmt.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <string>

namespace {

const char kCatalogFormat[] = "%Y-%m-%d %H:%M:%S";

struct tm Sentinel() {
  struct tm tm;
  std::memset(&tm, 0x5A, sizeof tm);  // recognisable values in every field
  return tm;
}

TEST(StrptimeTest, ParsesFieldsAndReturnsTheEnd) {
  struct Case {
    const char* text;
    const char* format;
    int year, mon, mday, hour, min, sec;  // as in struct tm
    size_t consumed;
  };
  const Case cases[] = {
      {"2024-02-29 23:59:60", kCatalogFormat, 124, 1, 29, 23, 59, 60, 19},
      {"1999-1-2 3:4:5", kCatalogFormat, 99, 0, 2, 3, 4, 5, 14},           // single digits
      {"2024-12-31   07:08:09 rest", kCatalogFormat, 124, 11, 31, 7, 8, 9, 21},  // run of blanks
      {"2024-12-3107:08:09", kCatalogFormat, 124, 11, 31, 7, 8, 9, 18},   // a blank may match none
      {"0000-01-01 00:00:00", kCatalogFormat, -1900, 0, 1, 0, 0, 0, 19},
      {"20240131", "%Y%m%d", 124, 0, 31, -1, -1, -1, 8},  // two digits taken greedily
      {"100% 12", "100%% %H", -1, -1, -1, 12, -1, -1, 7},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.text) + " | " + c.format);
    struct tm tm = Sentinel();
    const struct tm before = tm;
    const char* end = korvo::cm_strptime(c.text, c.format, &tm);
    ASSERT_NE(end, nullptr);
    EXPECT_EQ(static_cast<size_t>(end - c.text), c.consumed);
    // -1 in the table: the field is not in the format and stays as it was.
    EXPECT_EQ(tm.tm_year, c.year == -1 ? before.tm_year : c.year);
    EXPECT_EQ(tm.tm_mon, c.mon == -1 ? before.tm_mon : c.mon);
    EXPECT_EQ(tm.tm_mday, c.mday == -1 ? before.tm_mday : c.mday);
    EXPECT_EQ(tm.tm_hour, c.hour == -1 ? before.tm_hour : c.hour);
    EXPECT_EQ(tm.tm_min, c.min == -1 ? before.tm_min : c.min);
    EXPECT_EQ(tm.tm_sec, c.sec == -1 ? before.tm_sec : c.sec);
    EXPECT_EQ(tm.tm_wday, before.tm_wday);
    EXPECT_EQ(tm.tm_isdst, -1);
  }
}

TEST(StrptimeTest, RejectsBadTextAndLeavesTmAlone) {
  struct Case {
    const char* text;
    const char* format;
  };
  const Case cases[] = {
      {"0000-00-00 00:00:00", kCatalogFormat},
      {"2024-13-01 00:00:00", kCatalogFormat},
      {"2024-00-01 00:00:00", kCatalogFormat},
      {"2024-01-32 00:00:00", kCatalogFormat},
      {"2024-01-00 00:00:00", kCatalogFormat},
      {"2024-01-01 24:00:00", kCatalogFormat},
      {"2024-01-01 00:60:00", kCatalogFormat},
      {"2024-01-01 00:00:61", kCatalogFormat},
      {"224-01-01 00:00:00", kCatalogFormat},   // three-digit year
      {"20245-01-01 00:00:00", kCatalogFormat},  // five digits: '-' expected after four
      {"2024-001-01 00:00:00", kCatalogFormat},  // at most two digits
      {"2024/01/01 00:00:00", kCatalogFormat},
      {"2024-01-01 00:00", kCatalogFormat},       // text ends early
      {"2024-01-01 -1:00:00", kCatalogFormat},
      {"", kCatalogFormat},
      {"2024", "%y"},   // unsupported directive
      {"2024", "%Y%"},  // lone '%' at the end
      {"50", "%%"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.text) + " | " + c.format);
    struct tm tm = Sentinel();
    EXPECT_EQ(korvo::cm_strptime(c.text, c.format, &tm), nullptr);
    struct tm untouched = Sentinel();
    EXPECT_EQ(std::memcmp(&tm, &untouched, sizeof tm), 0);
  }
}

TEST(StrftimeTest, FormatsAndReportsOverflow) {
  struct tm tm = {};
  ASSERT_NE(korvo::cm_strptime("2023-07-04 05:06:07", kCatalogFormat, &tm), nullptr);
  char out[32];
  EXPECT_EQ(korvo::cm_strftime(out, sizeof out, kCatalogFormat, &tm), 19u);
  EXPECT_STREQ(out, "2023-07-04 05:06:07");
  char tiny[8] = "junk";
  EXPECT_EQ(korvo::cm_strftime(tiny, sizeof tiny, kCatalogFormat, &tm), 0u);
  EXPECT_STREQ(tiny, "");
  EXPECT_EQ(korvo::cm_strftime(out, 0, kCatalogFormat, &tm), 0u);
}

TEST(TimeGetTest, FollowsTheWallClock) {
  time_t before = std::time(nullptr);
  time_t now = korvo::time_get();
  time_t after = std::time(nullptr);
  EXPECT_LE(before, now);
  EXPECT_LE(now, after);
}

}  // namespace
