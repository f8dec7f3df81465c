// Tests of cm_strptime and cm_strftime.
#include "runtime/timefmt.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/platform.h"

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

// The shortcut for catalog times must give what the general parser gives for
// every text it accepts, and accept every full-width time: texts made from a
// good one by changing one character, and the edge values of each field.
TEST(CatalogTimeTest, AgreesWithStrptime) {
  std::vector<std::string> texts = {"2024-02-29 23:59:60", "0000-01-01 00:00:00", "9999-12-31 23:59:59",
                                    "2024-12-31 07:08:09 rest", "2024-1-2 03:04:05", "2024-01-02  03:04:05",
                                    "2024-01-02 03:04", "", "2026-11-01 01:59:0"};
  const std::string good = "2024-10-27 02:30:45";
  for (size_t i = 0; i < good.size(); ++i) {
    for (char c : std::string("0123456789- :a/")) {
      std::string t = good;
      t[i] = c;
      texts.push_back(t);
    }
    texts.push_back(good.substr(0, i));  // cut short
  }
  for (const std::string& text : texts) {
    SCOPED_TRACE("[" + text + "]");
    struct tm fast = Sentinel(), general = Sentinel();
    const char* fastEnd = korvo::parse_catalog_time(text.c_str(), &fast);
    const char* generalEnd = korvo::cm_strptime(text.c_str(), kCatalog, &general);
    if (fastEnd == nullptr) {
      struct tm untouched = Sentinel();
      EXPECT_EQ(std::memcmp(&fast, &untouched, sizeof fast), 0);
      // Only texts of another shape are left to the general parser.
      bool fullWidth = text.size() >= 19;
      for (size_t i = 0; fullWidth && i < 19; ++i) {
        const char shape = "dddd-dd-dd dd:dd:dd"[i];
        fullWidth = shape == 'd' ? text[i] >= '0' && text[i] <= '9' : text[i] == shape;
      }
      if (fullWidth) EXPECT_EQ(generalEnd, nullptr);  // then only a field out of range
      continue;
    }
    ASSERT_EQ(fastEnd, generalEnd);
    EXPECT_EQ(std::memcmp(&fast, &general, sizeof fast), 0);
  }
}

// local_mktime keeps hours it has met; across daylight-saving changes (gaps,
// repeated hours, half-hour and two-hour shifts) and a change of zone it must
// still give exactly what mktime gives.
TEST(LocalMktimeTest, MatchesMktimeAcrossClockChanges) {
  const char* saved = std::getenv("TZ");
  const std::string savedZone = saved != nullptr ? saved : "";
  const char* const zones[] = {"CET-1CEST,M3.5.0,M10.5.0/3",                // Central Europe
                               "EST5EDT,M3.2.0,M11.1.0",                    // US Eastern
                               "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0",      // a half-hour shift
                               "<+00>0<+02>-2,M3.5.0/1,M10.5.0/3",          // a two-hour shift
                               "UTC0"};
  for (const char* zone : zones) {
    SCOPED_TRACE(zone);
    pf::SetEnv("TZ", zone);
    tzset();
    int mismatches = 0;
    // Every hour of 2026 at a few minutes and seconds, twice (the second
    // pass answers from the kept hours).
    for (int pass = 0; pass < 2; ++pass) {
      for (int day = 0; day < 365; ++day) {
        for (int hour = 0; hour < 24; ++hour) {
          for (const int minute : {0, 17, 59}) {
            struct tm tm = {};
            tm.tm_year = 126;
            tm.tm_mon = 0;
            tm.tm_mday = 1 + day;  // mktime normalises the day of January into the year
            tm.tm_hour = hour;
            tm.tm_min = minute;
            tm.tm_sec = minute == 59 ? 59 : 7;
            struct tm norm = tm;
            norm.tm_isdst = -1;
            std::mktime(&norm);  // the calendar date, so that the fields are in range
            struct tm in = tm;
            in.tm_mon = norm.tm_mon;
            in.tm_mday = norm.tm_mday;
            struct tm copy = in;
            copy.tm_isdst = -1;
            const time_t want = std::mktime(&copy);
            if (korvo::local_mktime(in) != want && ++mismatches < 5) {
              ADD_FAILURE() << "2026-" << in.tm_mon + 1 << "-" << in.tm_mday << " " << hour << ":" << minute;
            }
          }
        }
      }
    }
    EXPECT_EQ(mismatches, 0);
  }
  // Fields out of their ranges are normalised as mktime does.
  pf::SetEnv("TZ", zones[0]);
  tzset();
  struct tm odd = {};
  odd.tm_year = 126;
  odd.tm_mon = 2;
  odd.tm_mday = 29;
  odd.tm_hour = 1;
  odd.tm_min = 90;  // 02:30, in the gap of that night
  struct tm copy = odd;
  copy.tm_isdst = -1;
  EXPECT_EQ(korvo::local_mktime(odd), std::mktime(&copy));
  if (saved != nullptr) {
    pf::SetEnv("TZ", savedZone.c_str());
  } else {
    pf::UnsetEnv("TZ");
  }
  tzset();
}

}  // namespace
