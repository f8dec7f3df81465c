// tq_hal.h - what the host helper sources share: record fields as text, the
// record's trace context and the run of one built command line.
#ifndef TVU_HAL_TQ_HAL_H
#define TVU_HAL_TQ_HAL_H

#include <algorithm>
#include <cstring>
#include <string>

#include "tvu_host.h"

namespace hal {

// Command lines are formatted into a buffer of this many characters.
constexpr size_t kCmdLineMax = 8191;

// A record field as text: at most the field's size, even without a NUL.
template <size_t N>
std::string Field(const char (&a)[N]) {
  return std::string(a, strnlen(a, N));
}

// Copies text into a record field, cut to fit.
template <size_t N>
void SetField(char (&a)[N], const std::string& text) {
  size_t n = std::min(text.size(), N - 1);
  std::memcpy(a, text.data(), n);
  a[n] = '\0';
}

// Appends one line to the trace context's file when its level is `level` or more.
void Trace(const TVU_TRACE& trace, int level, const char* format, ...) __attribute__((format(printf, 3, 4)));

// "WNT" and "Windows" (exactly) name Windows clients.
bool IsWindowsClient(const TVU_RCMD& rec);

// Formats a command line into at most kCmdLineMax characters.  False when it
// does not fit; a cut command line is never run.
bool FormatCmdLine(std::string* line, const char* format, ...) __attribute__((format(printf, 2, 3)));

// The record's error file when it asks for a separate one, else "".
std::string SeparateErrFile(const TVU_RCMD& rec);

// Writes the protocol line and the "cmd:" trace (at trace level 1 or more),
// runs the line with the record's input and output files, errFile ("" : with
// the output) and time-out, and puts the message into the record.  A line
// that did not fit (fits false) is not run: result -1 and a message.
int32_t RunCmdLine(TVU_RCMD* rec, const TVU_TRACE& trace, const std::string& line, bool fits,
                   const std::string& errFile);
// Traces "--- <name>: return %d %s" with the record's message; returns rc.
int32_t TraceReturn(const char* name, const TVU_RCMD& rec, const TVU_TRACE& trace, int32_t rc);

// Installs the access functions into the remote command dispatcher (once).
void InstallAccessModes();

}  // namespace hal

#endif
