// timefmt.cpp - time parsing and formatting of the common runtime.
//
// cm_strptime() runs twice for every catalog line, so it is a small
// hand-written parser: no locale, no allocation, no stream.
#include "runtime/timefmt.h"

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <string>
#include <unordered_map>

#include "platform/platform.h"

#include "runtime/strutil.h"

namespace korvo {
namespace {

using detail::IsBlank;
using detail::IsDigit;

// Reads a number of minDigits to maxDigits digits (as many as there are, up
// to maxDigits) and checks it against [lo, hi].
bool ReadNumber(const char** text, int minDigits, int maxDigits, int lo, int hi, int* value) {
  const char* s = *text;
  int v = 0;
  int digits = 0;
  while (digits < maxDigits && IsDigit(*s)) {
    v = v * 10 + (*s - '0');
    ++s;
    ++digits;
  }
  if (digits < minDigits || v < lo || v > hi) return false;
  *text = s;
  *value = v;
  return true;
}

}  // namespace

const char* cm_strptime(const char* text, const char* format, struct tm* tm) {
  if (!text || !format || !tm) return nullptr;
  // Parsed values are kept aside and stored only when the whole format
  // matched, so that a failed parse leaves tm as it was.  -1: not parsed.
  int year = -1, month = -1, day = -1, hour = -1, minute = -1, second = -1;
  const char* s = text;
  for (const char* f = format; *f; ++f) {
    if (IsBlank(*f)) {
      while (IsBlank(*s)) ++s;  // any run of blanks, including none
      continue;
    }
    if (*f != '%') {
      if (*s != *f) return nullptr;
      ++s;
      continue;
    }
    ++f;
    bool ok;
    switch (*f) {
      case 'Y': ok = ReadNumber(&s, 4, 4, 0, 9999, &year); break;
      case 'm': ok = ReadNumber(&s, 1, 2, 1, 12, &month); break;
      case 'd': ok = ReadNumber(&s, 1, 2, 1, 31, &day); break;
      case 'H': ok = ReadNumber(&s, 1, 2, 0, 23, &hour); break;
      case 'M': ok = ReadNumber(&s, 1, 2, 0, 59, &minute); break;
      case 'S': ok = ReadNumber(&s, 1, 2, 0, 60, &second); break;  // 60: a leap second
      case '%':
        ok = *s == '%';
        if (ok) ++s;
        break;
      default: return nullptr;  // an unsupported directive, or "%" at the end of the format
    }
    if (!ok) return nullptr;
  }
  if (year >= 0) tm->tm_year = year - 1900;
  if (month >= 0) tm->tm_mon = month - 1;
  if (day >= 0) tm->tm_mday = day;
  if (hour >= 0) tm->tm_hour = hour;
  if (minute >= 0) tm->tm_min = minute;
  if (second >= 0) tm->tm_sec = second;
  tm->tm_isdst = -1;  // unknown: mktime() decides
  return s;
}

const char* parse_catalog_time(const char* text, struct tm* tm) {
  if (!text || !tm) return nullptr;
  // Fixed positions: digits everywhere but at 4, 7 (dash), 10 (blank), 13
  // and 16 (colon).  The text may end early; the first mismatch, a NUL
  // included, stops the scan before anything past it is read.
  // Each pair of digits is checked before the next pair is read.
  auto digits = [text](int at) { return IsDigit(text[at]) && IsDigit(text[at + 1]); };
  if (!digits(0) || !digits(2) || text[4] != '-' || !digits(5) || text[7] != '-' || !digits(8) ||
      text[10] != ' ' || !digits(11) || text[13] != ':' || !digits(14) || text[16] != ':' || !digits(17)) {
    return nullptr;
  }
  auto two = [text](int at) { return (text[at] - '0') * 10 + (text[at + 1] - '0'); };
  const int year = two(0) * 100 + two(2);
  const int month = two(5), day = two(8), hour = two(11), minute = two(14), second = two(17);
  if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60) return nullptr;
  tm->tm_year = year - 1900;
  tm->tm_mon = month - 1;
  tm->tm_mday = day;
  tm->tm_hour = hour;
  tm->tm_min = minute;
  tm->tm_sec = second;
  tm->tm_isdst = -1;
  return text + 19;
}

namespace {

// Starts of local hours met so far, keyed by year, month, day and hour.
struct HourTable {
  bool bHaveZone = false;
  bool bZoneSet = false;     // TZ was set when the table was filled
  std::string sZone;         // its value then
  std::unordered_map<uint64_t, time_t> starts;
};
HourTable s_hours;
std::mutex s_hoursMutex;

time_t SystemMktime(const struct tm& tm) {
  struct tm copy = tm;
  copy.tm_isdst = -1;
  return std::mktime(&copy);
}

// Days from 1970-01-01 to the given civil date (proleptic Gregorian).
int64_t DaysFromCivil(int64_t year, int month, int day) {
  year -= month <= 2;
  const int64_t era = (year >= 0 ? year : year - 399) / 400;
  const int64_t yoe = year - era * 400;
  const int64_t doy = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

// The local clock's offset from UTC at t, in seconds; *shown (may be null)
// gets the local time.  False when t cannot be shown.
bool OffsetAt(time_t t, int64_t* offset, struct tm* shown) {
  struct tm got;
  if (!pf::LocalTime(t, &got)) return false;
  const int64_t civil = DaysFromCivil(got.tm_year + 1900LL, got.tm_mon + 1, got.tm_mday) * 86400 +
                        got.tm_hour * 3600 + got.tm_min * 60 + got.tm_sec;
  *offset = civil - static_cast<int64_t>(t);
  if (shown != nullptr) *shown = got;
  return true;
}

// True when every time of the local hour that starts at start exists once,
// and at start + m * 60 + s: the hour's start shows as its first second, and
// the clock keeps one offset from three hours before it to three hours after
// it (no clock change moves by more, so no other instant shows a time of the
// hour).
bool RegularHour(time_t start, const struct tm& hour) {
  int64_t offset = 0, other = 0;
  struct tm shown;
  if (!OffsetAt(start, &offset, &shown)) return false;
  if (shown.tm_year != hour.tm_year || shown.tm_mon != hour.tm_mon || shown.tm_mday != hour.tm_mday ||
      shown.tm_hour != hour.tm_hour || shown.tm_min != 0 || shown.tm_sec != 0) {
    return false;
  }
  for (const time_t probe : {start - 3 * 3600, start - 3600, start + 3599, start + 3600 + 3599, start + 7 * 3600}) {
    if (!OffsetAt(probe, &other, nullptr) || other != offset) return false;
  }
  return true;
}

}  // namespace

time_t local_mktime(const struct tm& tm) {
  // Only fields that need no normalising take the shortcut.
  if (tm.tm_mon < 0 || tm.tm_mon > 11 || tm.tm_mday < 1 || tm.tm_mday > 31 || tm.tm_hour < 0 || tm.tm_hour > 23 ||
      tm.tm_min < 0 || tm.tm_min > 59 || tm.tm_sec < 0 || tm.tm_sec > 59 || tm.tm_year < -1000 || tm.tm_year > 9000) {
    return SystemMktime(tm);
  }
  std::lock_guard<std::mutex> lock(s_hoursMutex);  // callers may be threads of a mount
  const char* zone = std::getenv("TZ");
  if (!s_hours.bHaveZone || s_hours.bZoneSet != (zone != nullptr) || (zone != nullptr && s_hours.sZone != zone)) {
    s_hours.starts.clear();
    s_hours.bHaveZone = true;
    s_hours.bZoneSet = zone != nullptr;
    s_hours.sZone = zone != nullptr ? zone : "";
    tzset();  // the new zone for localtime as well
  }
  const uint64_t key = (static_cast<uint64_t>(tm.tm_year + 1000) << 20) | (static_cast<uint64_t>(tm.tm_mon) << 16) |
                       (static_cast<uint64_t>(tm.tm_mday) << 8) | static_cast<uint64_t>(tm.tm_hour);
  auto it = s_hours.starts.find(key);
  if (it == s_hours.starts.end()) {
    struct tm hour = tm;
    hour.tm_min = 0;
    hour.tm_sec = 0;
    time_t start = SystemMktime(hour);
    if (start == static_cast<time_t>(-1) || !RegularHour(start, hour)) start = static_cast<time_t>(-1);
    if (s_hours.starts.size() >= 1u << 16) s_hours.starts.clear();  // bounded
    it = s_hours.starts.emplace(key, start).first;
  }
  if (it->second == static_cast<time_t>(-1)) return SystemMktime(tm);
  return it->second + tm.tm_min * 60 + tm.tm_sec;
}

size_t cm_strftime(char* out, size_t max, const char* format, const struct tm* tm) {
  if (!out || max == 0 || !format || !tm) return 0;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  size_t n = std::strftime(out, max, format, tm);
#pragma GCC diagnostic pop
  if (n == 0) out[0] = '\0';  // the contents are unspecified when it did not fit
  return n;
}

time_t time_get() { return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()); }

}  // namespace korvo
