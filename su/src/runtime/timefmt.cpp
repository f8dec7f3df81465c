// timefmt.cpp - time parsing and formatting of the common runtime.
//
// cm_strptime() runs twice for every catalog line, so it is a small
// hand-written parser: no locale, no allocation, no stream.
#include "runtime/timefmt.h"

#include <chrono>

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
