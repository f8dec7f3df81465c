// tvu_report.cpp - log, trace and error record, the status file and the notes
// file.
#include "report/tvu_report.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "platform/platform.h"
#include "runtime/trace.h"

namespace {

constexpr size_t kFormatBuffer = 2048;        // log and trace texts: 2047 characters at most
constexpr size_t kDedupMessageBuffer = 9216;  // dedup library messages: 9215 at most

VTTVU_LOG_FN s_hostLog = nullptr;   // the host's exported "vttvu_log"
DB_TEXT_FN s_fallbackLog = nullptr; // the function given to DB_SetLog
DB_TEXT_FN s_traceFn = nullptr;     // the function given to DB_SetTrace
DB_ERROR s_error;                   // zero-initialised: empty kind, code 0
std::string s_statusFile;
std::string s_notesFile;

}  // namespace

void tvu_report_set_log(VTTVU_LOG_FN hostLog, DB_TEXT_FN fallbackLog) {
  s_hostLog = hostLog;
  s_fallbackLog = fallbackLog;
}

void tvu_report_set_trace(DB_TEXT_FN traceFn) { s_traceFn = traceFn; }

bool tvu_report_has_host_log() { return s_hostLog != nullptr; }

void tvu_report_reset() {
  s_hostLog = nullptr;
  s_fallbackLog = nullptr;
  s_traceFn = nullptr;
  memset(&s_error, 0, sizeof s_error);
}

uint32_t tvu_set_error_v(uint32_t code, const char* format, va_list args) {
  memset(s_error.szKind, 0, sizeof s_error.szKind);
  memset(s_error.szMessage, 0, sizeof s_error.szMessage);
  snprintf(s_error.szKind, sizeof s_error.szKind, "%s", "ERROR");
  s_error.uiCode = code;
  vsnprintf(s_error.szMessage, sizeof s_error.szMessage, format ? format : "", args);
  return static_cast<uint32_t>(strlen(s_error.szMessage));
}

uint32_t tvu_set_error(uint32_t code, const char* format, ...) {
  va_list args;
  va_start(args, format);
  uint32_t n = tvu_set_error_v(code, format, args);
  va_end(args);
  return n;
}

const DB_ERROR& tvu_error_record() { return s_error; }

void tvu_log_v(int32_t level, const char* format, va_list args) {
  if (s_hostLog) {
    s_hostLog(0, level, format, args);
  } else if (s_fallbackLog) {
    char text[kFormatBuffer];
    vsnprintf(text, sizeof text, format, args);
    s_fallbackLog(text);
  }
}

void tvu_log(int32_t level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  tvu_log_v(level, format, args);
  va_end(args);
}

void tvu_log_error(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  tvu_set_error_v(DB_NUM_E_FAILED, format, copy);
  va_end(copy);
  tvu_log_v(TQ_LOG_ERROR, format, args);
  va_end(args);
}

void tvu_trace(const char* format, ...) {
  if (!s_traceFn) return;
  char text[kFormatBuffer];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  s_traceFn(text);
}

// Formats a message of any length (the status file keeps it whole).
static std::string FormatWhole(const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  int n = vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text(n > 0 ? static_cast<size_t>(n) : 0, '\0');
  if (n > 0) vsnprintf(&text[0], text.size() + 1, format, args);
  return text;
}

static void WriteStatusLine(const char* kind, std::string message) {
  if (s_statusFile.empty()) return;
  FILE* fp = pf::FOpen(s_statusFile.c_str(), "w+");
  if (!fp) return;
  char when[32] = "";
  struct tm tmNow;
  if (pf::LocalTime(time(nullptr), &tmNow)) strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &tmNow);
  // Messages written to the standard error stream carry their own line end;
  // the status file has exactly one line.
  while (!message.empty() && (message.back() == '\n' || message.back() == '\r')) message.pop_back();
  fprintf(fp, "%s %s INFO=%s\n", when, kind, message.c_str());
  fclose(fp);
}

void tvu_fatal_report(const char* kind, const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string message = FormatWhole(format, args);
  va_end(args);
  WriteStatusLine(kind, message);
}

void tvu_fatal(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = FormatWhole(format, args);
  va_end(args);
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  WriteStatusLine("ERROR", text);
  korvo::write_trace(1, "FATAL: %s", text.c_str());
  // The client learns why the process ends through its log.
  tvu_log(TQ_LOG_ERROR, "%s", text.c_str());
  fflush(stdout);
  fflush(stderr);
#ifdef TVU_FUZZING
  // Fuzz builds only: the target catches this as a clean rejection of its
  // input and resets the module's state for the next one.
  throw TvuFatalError{text};
#else
  exit(1);
#endif
}

void tvu_note(const char* format, ...) {
  if (s_notesFile.empty()) return;
  FILE* fp = pf::FOpen(s_notesFile.c_str(), "a");
  if (!fp) return;
  va_list args;
  va_start(args, format);
  vfprintf(fp, format, args);
  va_end(args);
  fputc('\n', fp);
  fclose(fp);
}

void tvu_set_meta_dir(const char* metaDir) {
  s_statusFile = std::string(metaDir) + "tvu_con.status";
  s_notesFile = std::string(metaDir) + "tvu_con.notes";
}

const char* tvu_status_file() { return s_statusFile.c_str(); }
const char* tvu_notes_file() { return s_notesFile.c_str(); }

int tvu_dedup_message(const char* text) {
  if (!text) return 0;
  // "%lN text": N is a level digit; the level decides the prefix and the trace
  // level at which the line is written.
  if (text[0] == '%' && text[1] == 'l' && text[2] >= '0' && text[2] <= '9' && text[3] == ' ') {
    const char* prefix;
    int needed;
    switch (text[2]) {
      case '0': prefix = "Error: "; needed = 0; break;
      case '1': prefix = "Warning: "; needed = 0; break;
      case '2': prefix = "Info: "; needed = 1; break;
      case '3': prefix = "Trace: "; needed = 2; break;
      default: prefix = "Debug: "; needed = 3; break;
    }
    static thread_local char line[kDedupMessageBuffer];
    snprintf(line, sizeof line, "%s %s", prefix, text + 4);
    if (korvo::trace_level() >= needed) korvo::write_trace(needed > 0 ? needed : 0, "%s", line);
    return 0;
  }
  WRITE_TRACE(1, "%s", text);
  return 0;
}

