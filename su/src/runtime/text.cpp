// text.cpp - text conversion and path-name helpers of the common runtime.
//
// mbstowcsl() runs twice for every catalog line, so it avoids allocation and
// has a fast path for pure ASCII text, which every encoding of the list
// decodes the same way.
#include "runtime/text.h"

#include <cstdint>
#include <cstring>
#include <string_view>

#include "platform/platform.h"
#include "runtime/strutil.h"

namespace korvo {
namespace {

enum class Encoding { kUnknown, kUtf8, kLatin1 };

// One entry of an encoding list: "UTF-8", "UTF8", "ISO-8859", "ISO-8859-1",
// each with or without a leading dot, in any case.
Encoding ParseEncoding(std::string_view name) {
  name = detail::Trim(name);
  if (!name.empty() && name.front() == '.') name.remove_prefix(1);
  if (detail::EqualsNoCase(name, "UTF-8") || detail::EqualsNoCase(name, "UTF8")) return Encoding::kUtf8;
  if (detail::EqualsNoCase(name, "ISO-8859") || detail::EqualsNoCase(name, "ISO-8859-1")) {
    return Encoding::kLatin1;
  }
  return Encoding::kUnknown;
}

// True when no byte of s[0, n) has its top bit set; looks at 8 bytes a step.
bool IsAscii(const unsigned char* s, size_t n) {
  uint64_t high = 0;
  size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    uint64_t word;
    std::memcpy(&word, s + i, sizeof word);
    high |= word;
  }
  for (; i < n; ++i) high |= s[i];
  return (high & 0x8080808080808080ull) == 0;
}

// Widens each byte: ASCII and ISO-8859-1 both map byte b to code point b.
size_t WidenBytes(const unsigned char* s, size_t n, wchar_t* out, size_t cap) {
  size_t count = n < cap ? n : cap;
  size_t i = 0;
  // Blocks of eight, each loaded before it is stored (bytes may alias the
  // output), so that the compiler widens a block with vector instructions.
  for (; i + 8 <= count; i += 8) {
    unsigned char block[8];
    std::memcpy(block, s + i, sizeof block);
    for (size_t k = 0; k < 8; ++k) out[i + k] = static_cast<wchar_t>(block[k]);
  }
  for (; i < count; ++i) out[i] = static_cast<wchar_t>(s[i]);
  return count;
}

// Strict UTF-8 decoder following the table of well-formed byte sequences of
// the Unicode standard: no overlong forms, no surrogates (U+D800-U+DFFF), no
// code point above U+10FFFF, no truncated sequence.  Validates all n bytes but
// writes at most cap wchar_t units; with a 16-bit wchar_t code points above
// U+FFFF become surrogate pairs, and a pair is never split by the cut.
bool DecodeUtf8(const unsigned char* s, size_t n, wchar_t* out, size_t cap, size_t* written) {
  size_t w = 0;
  bool full = false;  // set at the first character that does not fit
  size_t i = 0;
  while (i < n) {
    // Paths are mostly ASCII even when they are not all ASCII: take runs of
    // eight ASCII bytes a block at a time.
    if (n - i >= 8 && !full && cap - w >= 8) {
      uint64_t word;
      std::memcpy(&word, s + i, sizeof word);
      if ((word & 0x8080808080808080ull) == 0) {
        w += WidenBytes(s + i, 8, out + w, 8);
        i += 8;
        continue;
      }
    }
    unsigned c = s[i];
    if (c < 0x80) {
      if (!full && w < cap) {
        out[w++] = static_cast<wchar_t>(c);
      } else {
        full = true;
      }
      ++i;
      continue;
    }
    size_t length;
    uint32_t cp;
    unsigned lo = 0x80;  // allowed range of the second byte
    unsigned hi = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) {
      length = 2;
      cp = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
      length = 3;
      cp = c & 0x0F;
      if (c == 0xE0) lo = 0xA0;  // below: overlong
      if (c == 0xED) hi = 0x9F;  // above: surrogates
    } else if (c >= 0xF0 && c <= 0xF4) {
      length = 4;
      cp = c & 0x07;
      if (c == 0xF0) lo = 0x90;  // below: overlong
      if (c == 0xF4) hi = 0x8F;  // above: beyond U+10FFFF
    } else {
      return false;  // continuation byte, C0/C1 (always overlong) or F5-FF
    }
    if (n - i < length) return false;
    unsigned second = s[i + 1];
    if (second < lo || second > hi) return false;
    cp = (cp << 6) | (second & 0x3F);
    for (size_t k = 2; k < length; ++k) {
      unsigned next = s[i + k];
      if ((next & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (next & 0x3F);
    }
    i += length;
    if (full) continue;
    if constexpr (sizeof(wchar_t) == 2) {
      if (cp > 0xFFFF) {
        if (cap - w < 2) {
          full = true;
          continue;
        }
        cp -= 0x10000;
        out[w++] = static_cast<wchar_t>(0xD800 + (cp >> 10));
        out[w++] = static_cast<wchar_t>(0xDC00 + (cp & 0x3FF));
        continue;
      }
    }
    if (w < cap) {
      out[w++] = static_cast<wchar_t>(cp);
    } else {
      full = true;
    }
  }
  *written = w;
  return true;
}

// Decodes s[0, n) by the first encoding of the list that accepts all of it,
// writing at most cap units.  Returns false when none does.
bool DecodeByList(const unsigned char* s, size_t n, const char* list, wchar_t* out, size_t cap,
                  size_t* written) {
  if (!list) return false;
  bool ascii = IsAscii(s, n);
  std::string_view rest = list;
  while (true) {
    size_t comma = rest.find(',');
    Encoding encoding = ParseEncoding(rest.substr(0, comma));
    if (encoding != Encoding::kUnknown) {
      if (ascii || encoding == Encoding::kLatin1) {
        *written = WidenBytes(s, n, out, cap);
        return true;
      }
      if (DecodeUtf8(s, n, out, cap, written)) return true;
    }
    if (comma == std::string_view::npos) return false;
    rest.remove_prefix(comma + 1);
  }
}

void AppendUtf8(uint32_t cp, std::string* out) {
  if (cp < 0x80) {
    out->push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out->push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out->push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out->push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

bool IsSeparator(char c) { return c == '/' || c == '\\'; }
bool IsSeparator(wchar_t c) { return c == L'/' || c == L'\\'; }

template <typename Char>
const Char* BaseName(const Char* path) {
  const Char* base = path;
  for (const Char* p = path; *p; ++p) {
    if (IsSeparator(*p)) base = p + 1;
  }
  return base;
}

}  // namespace

size_t mbstowcsl(wchar_t* out, const char* in, size_t maxChars, const char* encodingList) {
  bool canWrite = out && maxChars > 0;
  const char* text = in ? in : "";
  size_t written = 0;
  bool ok = DecodeByList(reinterpret_cast<const unsigned char*>(text), std::strlen(text), encodingList, out,
                         canWrite ? maxChars - 1 : 0, &written);
  if (!ok) written = 0;
  if (canWrite) out[written] = L'\0';
  return ok ? written : static_cast<size_t>(-1);
}

bool mbstowcsl(const char* in, size_t length, const char* encodingList, std::wstring* out) {
  if (!out) return false;
  if (!in) length = 0;
  // Every encoding yields at most one wchar_t unit per byte.
  out->resize(length);
  size_t written = 0;
  bool ok = DecodeByList(reinterpret_cast<const unsigned char*>(in ? in : ""), length, encodingList,
                         out->empty() ? nullptr : &(*out)[0], length, &written);
  out->resize(ok ? written : 0);
  return ok;
}

std::string wcstombs_utf8(const wchar_t* in) {
  std::string out;
  if (!in) return out;
  for (const wchar_t* p = in; *p; ++p) {
    uint32_t cp = static_cast<uint32_t>(*p);
    if constexpr (sizeof(wchar_t) == 2) {
      cp &= 0xFFFF;
      if (cp >= 0xD800 && cp <= 0xDBFF) {
        uint32_t low = static_cast<uint32_t>(p[1]) & 0xFFFF;
        if (low >= 0xDC00 && low <= 0xDFFF) {
          cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
          ++p;
        }
      }
    }
    // Unpaired surrogates and values outside Unicode have no UTF-8 form.
    if ((cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) cp = 0xFFFD;
    AppendUtf8(cp, &out);
  }
  return out;
}

const char* basename(const char* path) { return path ? BaseName(path) : ""; }
const wchar_t* basename(const wchar_t* path) { return path ? BaseName(path) : L""; }

void szPath2Dos(char* path) {
  if (!path) return;
  for (char* p = path; *p; ++p) {
    if (*p == '/') *p = '\\';
  }
}

// The platform's matcher knows no flags; they are accepted for the C
// library's signature and have no effect.
int fnmatch(const char* pattern, const char* name, int flags) {
  if (!pattern || !name) return 1;
  return pf::WildcardMatch(pattern, name) ? 0 : 1;
}

bool read_line(FILE* fp, std::string* line) {
  line->clear();
  if (!fp) return false;
  char chunk[1024];
  bool any = false;
  while (std::fgets(chunk, sizeof chunk, fp)) {
    any = true;
    size_t n = std::strlen(chunk);
    line->append(chunk, n);
    if (n > 0 && chunk[n - 1] == '\n') {
      line->pop_back();
      // The "\r" of a "\r\n" may have come with the previous chunk.
      if (!line->empty() && line->back() == '\r') line->pop_back();
      return true;
    }
  }
  return any;  // a last line without a line end, or nothing at end of file
}

}  // namespace korvo
