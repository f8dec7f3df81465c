// text.h - text conversion and path-name helpers of the common runtime.
#ifndef TVU_RUNTIME_TEXT_H
#define TVU_RUNTIME_TEXT_H

#include <cstddef>
#include <cstdio>
#include <string>

namespace korvo {

// Converts narrow text to a wide string following an encoding list such as
// ".UTF-8,,ISO-8859" or ".UTF-8,ISO-8859": the encodings are tried in order
// (empty entries are skipped); the first that decodes the whole text wins.
// Supported names: "UTF-8" (also "UTF8", with or without a leading dot) and
// "ISO-8859" / "ISO-8859-1" (Latin-1, decodes every byte).  UTF-8 decoding is
// strict: overlong forms, surrogates and code points above U+10FFFF are
// invalid.  Writes at most maxChars-1 characters and a NUL into out (cutting a
// longer text) and returns the number of characters written, or (size_t)-1
// when no encoding of the list decodes the text (out then holds "").
size_t mbstowcsl(wchar_t* out, const char* in, size_t maxChars, const char* encodingList);
// The same into a std::wstring; returns false when no encoding decodes it.
bool mbstowcsl(const char* in, size_t length, const char* encodingList, std::wstring* out);

// Wide to UTF-8 (for traces and messages).
std::string wcstombs_utf8(const wchar_t* in);

// The last component of a path; both "/" and "\" separate components.
const char* basename(const char* path);
const wchar_t* basename(const wchar_t* path);

// Turns every "/" of the path into "\" in place.
void szPath2Dos(char* path);

// Shell-style wildcard match ("*", "?", "[...]"); returns 0 on a match and
// non-zero otherwise, like the C library's fnmatch.
int fnmatch(const char* pattern, const char* name, int flags = 0);

// Reads one line of any length from fp into line, without its line end
// ("\n", and a "\r" before it).  Returns false at end of file when nothing
// was read.
bool read_line(FILE* fp, std::string* line);

}  // namespace korvo

#endif
