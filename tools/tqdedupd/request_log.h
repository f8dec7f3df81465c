// request_log.h - the line log of tqdedupd: one line per request served,
// connection and lifecycle event, written whole and flushed at once so that
// a test can read it while the server runs.
#ifndef TQDEDUPD_REQUEST_LOG_H
#define TQDEDUPD_REQUEST_LOG_H

#include <cstdio>
#include <mutex>
#include <string>

namespace tqdedupd {

class RequestLog {
 public:
  RequestLog() = default;
  ~RequestLog();
  RequestLog(const RequestLog&) = delete;
  RequestLog& operator=(const RequestLog&) = delete;

  // Appends to path, or writes to standard error when path is empty.
  // Returns false (with *error) when the file cannot be opened.
  bool Open(const std::string& path, std::string* error);

  // Writes "HH:MM:SS.mmm tqdedupd: <text>\n" from any thread.
  void Line(const std::string& text);
  void Printf(const char* format, ...) __attribute__((format(printf, 2, 3)));

 private:
  std::mutex mutex_;
  FILE* file_ = nullptr;  // null: standard error
};

// printf into a std::string.
std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));

// An object name made safe for a log line or message: quoted, with
// non-printable bytes as \xNN and very long names cut.
std::string Quote(const std::string& name);

}  // namespace tqdedupd

#endif
