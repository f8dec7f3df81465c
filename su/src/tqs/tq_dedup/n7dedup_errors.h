// n7dedup_errors.h - turning every failure of a dedup call into text.
//
// DedupGuard runs a call; any exception it throws is classified, written to
// the calling thread's g_dedupLastError and logged on the standard error
// stream, and the guard returns `failure` instead.
#ifndef TVU_TQS_N7DEDUP_ERRORS_H
#define TVU_TQS_N7DEDUP_ERRORS_H

#include <exception>
#include <functional>

// Level numbers of the client's log lines and their words.
enum DedupLogLevel : int { dlDEBUG = -1, dlINFO = 0, dlERROR = 1, dlWARNING = 2 };
const char* DedupLevelWord(int level);
// Writes "<level word> <text>\n" to the standard error stream, flushed.
void DedupLog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
// Sets g_dedupLastError (cut to 1023 characters).
void DedupSetLastError(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Classifies the exception in flight (call only inside a catch block).
void DedupReportCurrentException(const char* context, int line);

template <class F>
int DedupGuard(const char* context, int line, int failure, F&& call) {
  try {
    return call();
  } catch (...) {
    DedupReportCurrentException(context, line);
    return failure;
  }
}

#endif
