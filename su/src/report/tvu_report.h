// tvu_report.h - how every layer of the module reports: the client's log and
// trace hooks, the error record, the fatal report in the status file and the
// notes file.
//
// The hooks are set once by the entry points (DB_SetLog, DB_SetTrace) before
// the operation starts, and only read afterwards, so no lock guards them.  The
// error record and the format buffers are single instances used from the
// client's one thread.
#ifndef TVU_REPORT_TVU_REPORT_H
#define TVU_REPORT_TVU_REPORT_H

#include <cstdarg>
#include <cstdint>

#include "tvu_con.h"

// ---- the hooks (set by the entry points) ------------------------------------

// The host's exported "vttvu_log" (takes the format unformatted) and the
// fallback log function (takes formatted text); either may be null.
void tvu_report_set_log(VTTVU_LOG_FN hostLog, DB_TEXT_FN fallbackLog);
void tvu_report_set_trace(DB_TEXT_FN traceFn);
bool tvu_report_has_host_log();
// Clears the hooks and the error record.
void tvu_report_reset();

// ---- log and trace ----------------------------------------------------------

// Log through the host's "vttvu_log" (unformatted), else through the fallback
// function (formatted into 2047 characters), else nowhere.
void tvu_log(int32_t level, const char* format, ...) __attribute__((format(printf, 2, 3)));
void tvu_log_v(int32_t level, const char* format, va_list args);

// Logs at level 1500 and keeps the text in the error record (code
// DB_NUM_E_FAILED), so that DB_GetError tells the client why a call failed.
void tvu_log_error(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Trace through the client's trace hook (formatted into 2047 characters).
void tvu_trace(const char* format, ...) __attribute__((format(printf, 1, 2)));

// ---- the error record -------------------------------------------------------

// Clears the record, sets kind "ERROR", the code and the message (at most
// 2047 characters).  Returns the message's length.
uint32_t tvu_set_error_v(uint32_t code, const char* format, va_list args);
uint32_t tvu_set_error(uint32_t code, const char* format, ...) __attribute__((format(printf, 2, 3)));
const DB_ERROR& tvu_error_record();

// ---- fatal report, notes ----------------------------------------------------

// Writes the status-file line "<local time> <kind> INFO=<message>" into the
// status file, truncating it.  Nothing when the file cannot be opened or its
// place is not known yet.
void tvu_fatal_report(const char* kind, const char* format, ...) __attribute__((format(printf, 2, 3)));

// The one way the module ends the process: status-file line with kind
// "ERROR", the same message in the trace file and in the client's log at
// level 1500, then exit status 1.  Callers that must also write the message
// to the standard error stream do that themselves first.
[[noreturn]] void tvu_fatal(const char* format, ...) __attribute__((format(printf, 1, 2)));
#ifdef TVU_FUZZING
// In fuzz builds tvu_fatal throws this instead of ending the process.
#include <string>
struct TvuFatalError {
  std::string message;
};
#endif

// Appends one line to the notes file.
void tvu_note(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Places the status file "tvu_con.status" and the notes file
// "tvu_con.notes" in the meta files directory (which ends in a separator).
void tvu_set_meta_dir(const char* metaDir);
const char* tvu_status_file();
const char* tvu_notes_file();

// Message callback handed to the next-generation dedup library: "%lN text"
// lines carry a level (see the .cpp); returns 0.
int tvu_dedup_message(const char* text);

#endif
