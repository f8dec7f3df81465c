// strutil.h - small string helpers shared by the runtime's sources (private).
//
// All of them work on ASCII only and never consult the C locale, so that the
// runtime behaves the same whatever locale the host process has set.
#ifndef TVU_RUNTIME_STRUTIL_H
#define TVU_RUNTIME_STRUTIL_H

#include <algorithm>
#include <cstring>
#include <string_view>

namespace korvo {
namespace detail {

inline bool IsBlank(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

inline bool IsDigit(char c) { return c >= '0' && c <= '9'; }

inline char AsciiLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

// The text without leading and trailing blanks.
inline std::string_view Trim(std::string_view s) {
  size_t b = 0;
  size_t e = s.size();
  while (b < e && IsBlank(s[b])) ++b;
  while (e > b && IsBlank(s[e - 1])) --e;
  return s.substr(b, e - b);
}

// ASCII comparison without regard to case.
inline bool EqualsNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (AsciiLower(a[i]) != AsciiLower(b[i])) return false;
  }
  return true;
}

// Copies text into a caller's buffer of `size` bytes, cut to size-1
// characters and NUL-terminated.  Nothing happens when there is no room.
inline void CopyCut(std::string_view text, char* out, size_t size) {
  if (!out || size == 0) return;
  size_t n = std::min(text.size(), size - 1);
  if (n > 0) std::memcpy(out, text.data(), n);
  out[n] = '\0';
}

}  // namespace detail
}  // namespace korvo

#endif
