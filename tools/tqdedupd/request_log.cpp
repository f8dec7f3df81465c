// request_log.cpp - the line log of tqdedupd.
#include "tqdedupd/request_log.h"

#include <sys/time.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>

namespace tqdedupd {

namespace {

std::string VFormat(const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  char small[512];
  int n = vsnprintf(small, sizeof small, format, copy);
  va_end(copy);
  if (n < 0) return std::string();
  if (static_cast<size_t>(n) < sizeof small) return std::string(small, static_cast<size_t>(n));
  std::string big(static_cast<size_t>(n) + 1, '\0');
  vsnprintf(&big[0], big.size(), format, args);
  big.resize(static_cast<size_t>(n));
  return big;
}

}  // namespace

std::string Format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string s = VFormat(format, args);
  va_end(args);
  return s;
}

std::string Quote(const std::string& name) {
  const size_t kMaxShown = 200;
  std::string q = "\"";
  for (size_t i = 0; i < name.size() && i < kMaxShown; ++i) {
    unsigned char c = static_cast<unsigned char>(name[i]);
    if (c == '"' || c == '\\') {
      q += '\\';
      q += static_cast<char>(c);
    } else if (c >= 0x20 && c < 0x7f) {
      q += static_cast<char>(c);
    } else {
      q += Format("\\x%02x", c);
    }
  }
  if (name.size() > kMaxShown) q += "...";
  return q + "\"";
}

RequestLog::~RequestLog() {
  if (file_) fclose(file_);
}

bool RequestLog::Open(const std::string& path, std::string* error) {
  if (path.empty()) return true;
  FILE* f = fopen(path.c_str(), "a");
  if (!f) {
    *error = "cannot open log file " + path + ": " + strerror(errno);
    return false;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  file_ = f;
  return true;
}

void RequestLog::Line(const std::string& text) {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  struct tm tmv;
  time_t secs = tv.tv_sec;
  localtime_r(&secs, &tmv);
  char stamp[32];
  snprintf(stamp, sizeof stamp, "%02d:%02d:%02d.%03d", tmv.tm_hour, tmv.tm_min, tmv.tm_sec,
           static_cast<int>(tv.tv_usec / 1000));
  std::string line = std::string(stamp) + " tqdedupd: " + text + "\n";
  std::lock_guard<std::mutex> lock(mutex_);
  FILE* out = file_ ? file_ : stderr;
  fwrite(line.data(), 1, line.size(), out);
  fflush(out);
}

void RequestLog::Printf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string s = VFormat(format, args);
  va_end(args);
  Line(s);
}

}  // namespace tqdedupd
