// trace.cpp - the common trace facility.
//
// The level lives in an atomic so that the check every trace site makes is
// one load.  Until the facility is configured the level reads -1; the first
// caller that sees that reads the environment under the mutex.
//
// A line is formatted completely (time stamp, process id, text, line end)
// into one buffer and handed to the file in one write: the file is opened for
// append and unbuffered, so each line is a single write() with O_APPEND, which
// keeps lines of other processes from landing inside it; the mutex does the
// same for the threads of this process.
#include "runtime/trace.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "runtime/strutil.h"

namespace korvo {
namespace {

constexpr int kMaxLevel = 3;
constexpr const char* kLevelEnv = "TQ_TRACE_LEVEL";
constexpr const char* kFileEnv = "TQ_TRACE_FILE";

std::atomic<int> g_level{-1};         // -1: not configured yet
std::atomic<bool> g_haveFile{false};  // a trace file is configured
std::mutex g_mutex;                   // guards the state below and every write
// The state is never destroyed, so that traces written from other static
// destructors at exit still find it intact.
std::string* g_path = nullptr;  // the configured trace file
FILE* g_file = nullptr;         // opened on the first line written
bool g_openFailed = false;      // do not retry the open for every line

int ClampLevel(long level) { return static_cast<int>(std::clamp<long>(level, 0, kMaxLevel)); }

// TQ_TRACE_LEVEL: a decimal number, clamped to 0-3; anything else is 0.
int ParseLevel(const std::string& text) {
  std::string_view trimmed = detail::Trim(text);
  if (trimmed.empty()) return 0;
  std::string digits(trimmed);
  char* end = nullptr;
  long value = std::strtol(digits.c_str(), &end, 10);  // saturates at LONG_MIN/LONG_MAX
  if (end != digits.c_str() + digits.size()) return 0;
  return ClampLevel(value);
}

void ConfigureLocked(int level, const char* file) {
  if (g_file) std::fclose(g_file);
  g_file = nullptr;
  g_openFailed = false;
  if (!g_path) g_path = new std::string;
  g_path->assign(file ? file : "");
  g_haveFile.store(!g_path->empty(), std::memory_order_relaxed);
  g_level.store(ClampLevel(level), std::memory_order_release);
}

void ConfigureFromEnvLocked() {
  std::string level;
  std::string file;
  bool haveLevel = pf::GetEnv(kLevelEnv, &level);
  bool haveFile = pf::GetEnv(kFileEnv, &file);
  ConfigureLocked(haveLevel ? ParseLevel(level) : 0, haveFile ? file.c_str() : nullptr);
}

int EnsureConfigured() {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (g_level.load(std::memory_order_relaxed) < 0) ConfigureFromEnvLocked();
  return g_level.load(std::memory_order_relaxed);
}

// Whether a line of `level` is written: never at trace level 0, else when the
// line's level is at most the trace level.
bool Enabled(int level) {
  int current = trace_level();
  return current > 0 && level <= current && g_haveFile.load(std::memory_order_relaxed);
}

// "YYYY-MM-DD HH:MM:SS.mmm [pid] " of the current local time; returns its length.
int FormatPrefix(char* out, size_t size) {
  auto now = std::chrono::system_clock::now();
  auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count();
  time_t seconds = static_cast<time_t>(ms / 1000);
  int millis = static_cast<int>(ms % 1000);
  if (millis < 0) {  // before 1970: keep the milliseconds positive
    millis += 1000;
    --seconds;
  }
  struct tm tm {};
  pf::LocalTime(seconds, &tm);
  int n = std::snprintf(out, size, "%04d-%02d-%02d %02d:%02d:%02d.%03d [%d] ", tm.tm_year + 1900,
                        tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, millis, pf::ProcessId());
  return n < 0 ? 0 : std::min(n, static_cast<int>(size) - 1);
}

void WriteLine(const char* line, size_t length) {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (!g_file && !g_openFailed && g_path && !g_path->empty()) {
    g_file = pf::FOpen(g_path->c_str(), "a");
    if (g_file) {
      std::setvbuf(g_file, nullptr, _IONBF, 0);
    } else {
      g_openFailed = true;
    }
  }
  if (!g_file) return;
  std::fwrite(line, 1, length, g_file);
  std::fflush(g_file);
}

}  // namespace

int trace_level() {
  int level = g_level.load(std::memory_order_acquire);
  return level >= 0 ? level : EnsureConfigured();
}

void write_trace_v(int level, const char* format, va_list args) {
  if (!format || !Enabled(level)) return;
  // Most lines fit the stack buffer; a longer one is formatted again into a
  // buffer of the size vsnprintf asked for.
  char small[1024];
  int prefix = FormatPrefix(small, sizeof small);
  va_list copy;
  va_copy(copy, args);
  int textLength = std::vsnprintf(small + prefix, sizeof small - prefix, format, copy);
  va_end(copy);
  if (textLength < 0) return;  // an invalid format: nothing sensible to write
  char* line = small;
  std::vector<char> large;
  size_t total = static_cast<size_t>(prefix) + static_cast<size_t>(textLength);
  if (total + 2 > sizeof small) {  // room for the line end and the NUL
    large.resize(total + 2);
    std::memcpy(large.data(), small, static_cast<size_t>(prefix));
    std::vsnprintf(large.data() + prefix, large.size() - prefix, format, args);
    line = large.data();
  }
  if (textLength == 0 || line[total - 1] != '\n') line[total++] = '\n';
  WriteLine(line, total);
}

void write_trace(int level, const char* format, ...) {
  if (!Enabled(level)) return;
  va_list args;
  va_start(args, format);
  write_trace_v(level, format, args);
  va_end(args);
}

void trace(const char* format, ...) {
  if (!format) return;
  // An optional leading "%lN " gives the level; it is not part of the text.
  int level = 1;
  const char* text = format;
  if (format[0] == '%' && format[1] == 'l' && detail::IsDigit(format[2]) &&
      (format[3] == ' ' || format[3] == '\0')) {
    level = std::min(format[2] - '0', kMaxLevel);
    text = format[3] ? format + 4 : format + 3;
  }
  if (!Enabled(level)) return;
  va_list args;
  va_start(args, format);
  write_trace_v(level, text, args);
  va_end(args);
}

void write_trace_file_v(const char* path, const char* format, va_list args) {
  if (!path || !*path || !format) return;
  char prefix[64];
  int n = FormatPrefix(prefix, sizeof prefix);
  va_list copy;
  va_copy(copy, args);
  int textLength = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (textLength < 0) return;
  std::string line(prefix, static_cast<size_t>(n));
  line.resize(line.size() + static_cast<size_t>(textLength) + 1);
  std::vsnprintf(&line[static_cast<size_t>(n)], static_cast<size_t>(textLength) + 1, format, args);
  line.resize(line.size() - 1);  // the NUL vsnprintf wrote
  if (textLength == 0 || line.back() != '\n') line += '\n';
  // Opened for append and unbuffered: the line goes out in one write at the
  // file's end, as the lines of the trace file do.
  FILE* fp = pf::FOpen(path, "a");
  if (!fp) return;
  std::setvbuf(fp, nullptr, _IONBF, 0);
  std::fwrite(line.data(), 1, line.size(), fp);
  std::fclose(fp);
}

void write_trace_file(const char* path, const char* format, ...) {
  va_list args;
  va_start(args, format);
  write_trace_file_v(path, format, args);
  va_end(args);
}

void trace_reconfigure() {
  std::lock_guard<std::mutex> lock(g_mutex);
  ConfigureFromEnvLocked();
}

void trace_configure(int level, const char* file) {
  std::lock_guard<std::mutex> lock(g_mutex);
  ConfigureLocked(level, file);
}

}  // namespace korvo
