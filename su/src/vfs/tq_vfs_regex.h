// tq_vfs_regex.h - one compiled PCRE pattern with its lifetime.
//
// TqRegex holds every PCRE call of the virtual file system: the pattern is
// compiled once (pcre_compile), studied with the JIT compiler where the
// library has one (pcre_study with PCRE_STUDY_JIT_COMPILE), matched as often
// as needed and freed with the object.  A failed compile leaves the object
// empty and hands the compiler's offset and message back to the caller, who
// decides how to report it.
//
// Thread safety: Compile and Reset must not run concurrently with anything
// else on the same object; Match only reads the compiled pattern and may run
// from several threads at once.
#ifndef TVU_VFS_REGEX_H
#define TVU_VFS_REGEX_H

#include <cstddef>
#include <string>

struct real_pcre;         // pcre (opaque, from <pcre.h>)
struct pcre_extra;

class TqRegex {
 public:
  TqRegex() = default;
  ~TqRegex() { Reset(); }
  TqRegex(const TqRegex&) = delete;
  TqRegex& operator=(const TqRegex&) = delete;
  TqRegex(TqRegex&& other) noexcept;
  TqRegex& operator=(TqRegex&& other) noexcept;

  // Compiles pattern with PCRE options (0: none).  On failure returns false,
  // stores the offset in the pattern where the compiler stopped and its
  // message (either pointer may be null) and leaves the object empty.
  bool Compile(const char* pattern, int options = 0, int* errorOffset = nullptr,
               std::string* errorText = nullptr);
  // Frees the compiled pattern; the object is empty afterwards.
  void Reset();
  bool IsCompiled() const { return m_pCode != nullptr; }
  // The pattern text of the last successful compile.
  const std::string& Pattern() const { return m_sPattern; }
  // True when the JIT compiler produced machine code for the pattern.
  bool IsJitCompiled() const { return m_bJit; }

  // Matches subject[0, length).  Returns 1 on a match, 0 on no match and a
  // negative PCRE error code otherwise (also -1 when nothing is compiled).
  int Exec(const char* subject, size_t length) const;
  // True on a match; errors count as no match.
  bool Match(const char* subject, size_t length) const { return Exec(subject, length) > 0; }
  bool Match(const char* subject) const;

  // True when the library's "." (without options) matches every byte but the
  // line feed; other builds also stop it at CR, VT, FF or NEL.
  static bool DotStopsOnlyAtLineFeed();

 private:
  real_pcre* m_pCode = nullptr;
  pcre_extra* m_pExtra = nullptr;
  bool m_bJit = false;
  std::string m_sPattern;
};

#endif
