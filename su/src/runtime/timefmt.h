// timefmt.h - time parsing and formatting of the common runtime.
#ifndef TVU_RUNTIME_TIMEFMT_H
#define TVU_RUNTIME_TIMEFMT_H

#include <cstddef>
#include <ctime>

namespace korvo {

// Parses text by a strptime-style format.  Supported directives: %Y (four
// digits), %m, %d, %H, %M, %S (one or two digits), %% and literal characters;
// a blank in the format matches any run of blanks.  Fields are range-checked
// (month 1-12, day 1-31, hour 0-23, minute 0-59, second 0-60).  Fills tm
// (tm_isdst = -1; fields not in the format are left as they were) and returns
// a pointer past the parsed text, or nullptr when the text does not match.
const char* cm_strptime(const char* text, const char* format, struct tm* tm);

// cm_strptime(text, "%Y-%m-%d %H:%M:%S", tm) for the one shape catalogs write,
// "YYYY-MM-DD HH:MM:SS" with every field at full width: the same fields, the
// same range checks and the same result.  Returns nullptr, tm untouched, for
// any text of another shape (the caller then asks cm_strptime, which also
// takes one-digit fields and runs of blanks).
const char* parse_catalog_time(const char* text, struct tm* tm);

// mktime() of a copy of tm with tm_isdst = -1 (the zone decides whether
// daylight saving time is in effect): the same result, but without asking
// the zone again for every call.  The C library's mktime re-checks the
// time-zone file on each call when TZ is unset; this one keeps the start of
// each local hour it has met and adds minutes and seconds to it, for hours
// that pass without a clock change (tested with localtime, which does not
// re-check).  An hour with a change, or fields outside their usual ranges, go
// to mktime itself.  The kept hours are dropped when TZ changes.  Safe to
// call from several threads.
time_t local_mktime(const struct tm& tm);

// Formats like strftime; returns the length written (0 when it did not fit).
size_t cm_strftime(char* out, size_t max, const char* format, const struct tm* tm);

// The current time as seconds since the epoch.
time_t time_get();

}  // namespace korvo

#endif
