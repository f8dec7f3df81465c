// tq_vfs_regex.cpp - TqRegex over PCRE 8.x.
#include "vfs/tq_vfs_regex.h"

#include <pcre.h>

#include <cstdint>
#include <cstring>
#include <utility>

namespace {

// The JIT fast entry needs a stack of its own; one per thread, since a stack
// must not be shared by matches running at the same time.  It starts at 32
// KiB and may grow to 1 MiB for heavy backtracking.
class ThreadJitStack {
 public:
  ThreadJitStack() : m_pStack(pcre_jit_stack_alloc(32 * 1024, 1024 * 1024)) {}
  ~ThreadJitStack() {
    if (m_pStack != nullptr) pcre_jit_stack_free(m_pStack);
  }
  ThreadJitStack(const ThreadJitStack&) = delete;
  ThreadJitStack& operator=(const ThreadJitStack&) = delete;
  pcre_jit_stack* Get() const { return m_pStack; }

 private:
  pcre_jit_stack* m_pStack;
};

pcre_jit_stack* JitStack() {
  thread_local ThreadJitStack t_stack;
  return t_stack.Get();
}

}  // namespace

TqRegex::TqRegex(TqRegex&& other) noexcept
    : m_pCode(other.m_pCode), m_pExtra(other.m_pExtra), m_bJit(other.m_bJit), m_sPattern(std::move(other.m_sPattern)) {
  other.m_pCode = nullptr;
  other.m_pExtra = nullptr;
  other.m_bJit = false;
}

TqRegex& TqRegex::operator=(TqRegex&& other) noexcept {
  if (this != &other) {
    Reset();
    m_pCode = other.m_pCode;
    m_pExtra = other.m_pExtra;
    m_bJit = other.m_bJit;
    m_sPattern = std::move(other.m_sPattern);
    other.m_pCode = nullptr;
    other.m_pExtra = nullptr;
    other.m_bJit = false;
  }
  return *this;
}

void TqRegex::Reset() {
  if (m_pExtra != nullptr) pcre_free_study(m_pExtra);
  if (m_pCode != nullptr) pcre_free(m_pCode);
  m_pExtra = nullptr;
  m_pCode = nullptr;
  m_bJit = false;
  m_sPattern.clear();
}

bool TqRegex::Compile(const char* pattern, int options, int* errorOffset, std::string* errorText) {
  Reset();
  const char* error = nullptr;
  int offset = 0;
  pcre* code = pcre_compile(pattern, options, &error, &offset, nullptr);
  if (code == nullptr) {
    if (errorOffset != nullptr) *errorOffset = offset;
    if (errorText != nullptr) *errorText = error != nullptr ? error : "unknown error";
    return false;
  }
  // Studying only speeds matching up; when it fails (or the library has no
  // JIT) the pattern is still matched correctly by the interpreter.
  const char* studyError = nullptr;
  pcre_extra* extra = pcre_study(code, PCRE_STUDY_JIT_COMPILE, &studyError);
  m_pCode = code;
  m_pExtra = studyError == nullptr ? extra : nullptr;
  if (studyError != nullptr && extra != nullptr) pcre_free_study(extra);
  m_sPattern = pattern;
  int jit = 0;
  m_bJit = m_pExtra != nullptr && pcre_fullinfo(m_pCode, m_pExtra, PCRE_INFO_JIT, &jit) == 0 && jit != 0;
  return true;
}

int TqRegex::Exec(const char* subject, size_t length) const {
  if (m_pCode == nullptr) return -1;
  if (length > static_cast<size_t>(INT32_MAX)) return PCRE_ERROR_BADLENGTH;
  const int n = static_cast<int>(length);
  // Only whether the pattern matches is wanted; the vector takes the whole
  // match's bounds and no captured substrings.
  int ovector[3];
  int rc;
  pcre_jit_stack* stack = m_bJit ? JitStack() : nullptr;
  if (stack != nullptr) {
    // The JIT entry skips the argument checks of pcre_exec; they cannot fail
    // here and this runs once per catalog line and pattern.
    rc = pcre_jit_exec(m_pCode, m_pExtra, subject, n, 0, 0, ovector, 3, stack);
    if (rc == PCRE_ERROR_JIT_STACKLIMIT) {
      // The JIT code ran out of its machine stack on an unusual subject: the
      // interpreter gives the same answer without that limit.
      pcre_extra interpreted = *m_pExtra;
      interpreted.flags &= ~static_cast<unsigned long>(PCRE_EXTRA_EXECUTABLE_JIT);
      rc = pcre_exec(m_pCode, &interpreted, subject, n, 0, 0, ovector, 3);
    }
  } else {
    rc = pcre_exec(m_pCode, m_pExtra, subject, n, 0, 0, ovector, 3);
  }
  if (rc >= 0) return 1;  // 0 means "matched, vector too small"
  if (rc == PCRE_ERROR_NOMATCH) return 0;
  return rc;
}

bool TqRegex::Match(const char* subject) const {
  return subject != nullptr && Match(subject, std::strlen(subject));
}

bool TqRegex::DotStopsOnlyAtLineFeed() {
  static const bool s_lf = [] {
    int newline = 0;
    return pcre_config(PCRE_CONFIG_NEWLINE, &newline) == 0 && newline == '\n';
  }();
  return s_lf;
}
