// db_hooks.h - the module's log, trace, error, status-file and notes hooks.
//
// The client hands the module a log function and a trace function at start
// (DB_SetLog, DB_SetTrace); these functions are how every part of the module
// reports.  They are set once, before the operation starts, and only read
// afterwards, so no lock guards them.  The error record and the format buffers
// are single instances used from the client's one thread.
#ifndef TVU_PLUGIN_DB_HOOKS_H
#define TVU_PLUGIN_DB_HOOKS_H

#include <cstdarg>
#include <cstdint>

#include "tvu_con.h"

// Log through the host's "vttvu_log" (unformatted), else through the fallback
// function given to DB_SetLog (formatted into 2047 characters), else nowhere.
void tvu_log(int32_t level, const char* format, ...) __attribute__((format(printf, 2, 3)));
void tvu_log_v(int32_t level, const char* format, va_list args);

// Logs at level 1500 and keeps the text in the error record (code
// DB_NUM_E_FAILED), so that DB_GetError tells the client why a call failed.
void tvu_log_error(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Trace through the client's trace hook (formatted into 2047 characters).
void tvu_trace(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Writes the status-file line "<local time> <kind> INFO=<message>" into the
// status file, truncating it.  Nothing when the file cannot be opened or its
// place is not known yet.
void tvu_fatal_report(const char* kind, const char* format, ...) __attribute__((format(printf, 2, 3)));

// The one way the module ends the process: status-file line with kind
// "ERROR", the same message in the trace file and in the client's log at
// level 1500, then exit status 1.  Callers that must also write the message
// to the standard error stream do that themselves first.
[[noreturn]] void tvu_fatal(const char* format, ...) __attribute__((format(printf, 1, 2)));

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

// Clears the hooks and the error record (tests, and DB_SetLog re-entry).
void tvu_hooks_reset_for_test();

#endif
