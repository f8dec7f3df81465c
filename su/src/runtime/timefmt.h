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

// Formats like strftime; returns the length written (0 when it did not fit).
size_t cm_strftime(char* out, size_t max, const char* format, const struct tm* tm);

// The current time as seconds since the epoch.
time_t time_get();

}  // namespace korvo

#endif
