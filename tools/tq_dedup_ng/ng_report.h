// ng_report.h - failure texts and log lines of the next-generation dedup
// library: the calling thread's last failure message, the log callback with
// its level markers, and the description of a caught exception.
#ifndef TQ_DEDUP_NG_REPORT_H
#define TQ_DEDUP_NG_REPORT_H

#include <string>

#include "tq_dedup.h"

namespace tqng {

// Level markers understood by the caller's log callback ("%lN " prefix).
enum class LogLevel { Error = 0, Warning = 1, Info = 2, Trace = 3 };

// Sends one line to the callback (nothing when it is null).  The line gets
// the level marker in front; line breaks and other control characters in
// the text become blanks and an overlong text is cut, so the callback always
// receives exactly one line of bounded length.
void LogLine(TQ_DEDUP_LOG_FN log, LogLevel level, const std::string& text);

// The calling thread's last failure text; SetLastMessage replaces it.  It is
// kept until the next failure on the same thread (a success does not clear it).
void SetLastMessage(const std::string& text);
const char* LastMessage();

// Records a failure: the text becomes the thread's last message and is
// logged at error level.
void Fail(TQ_DEDUP_LOG_FN log, const std::string& text);

// Describes the exception being handled; call only inside a catch block.
// text is "<type> (code <n>): <message>" for Thrift and service exceptions
// and "<type>: <what>" for other standard exceptions.  connectionLost is
// set when the exception leaves the connection in an unknown state
// (transport or protocol errors), so that the caller can drop it.
struct ExceptionInfo {
  std::string text;
  bool connectionLost = false;
};
ExceptionInfo DescribeCurrentException();

// printf-style formatting into a std::string.
std::string Format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace tqng

#endif
