// trace.h - the common trace facility.
//
// Configured from the environment on first use: TQ_TRACE_LEVEL (0 to 3,
// default 0: no lines) and TQ_TRACE_FILE (default: no trace file, nothing is
// written).  Each line is written whole (one write of the complete line), with
// a time stamp and the process id in front, and flushed at once, so that lines
// of several threads or processes never interleave within a line.
//
// Line form: "YYYY-MM-DD HH:MM:SS.mmm [pid] text\n" (a line end is added only
// when the text has none).
//
// Guarding: WRITE_TRACE(level, ...) compares the level before it formats
// anything, so a disabled trace line costs one comparison.
//
// Thread safety: all functions may be called from any thread.
#ifndef TVU_RUNTIME_TRACE_H
#define TVU_RUNTIME_TRACE_H

#include <cstdarg>

namespace korvo {

// The current trace level (0 to 3).
int trace_level();

// Writes one line at `level` when the trace level is `level` or more.
void write_trace(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
void write_trace_v(int level, const char* format, va_list args);

// Writes one line whose level is given by an optional leading marker "%lN "
// (N a digit); without a marker the level is 1.  Levels above 3 are written
// at trace level 3.  The marker is not part of the line written.
void trace(const char* format, ...);

// Appends one line in the form above to the file `path` (created when
// missing), whatever the configured level and file: for callers that keep a
// trace or log file of their own.  Nothing happens when path is null or empty
// or the file cannot be opened.
void write_trace_file(const char* path, const char* format, ...) __attribute__((format(printf, 2, 3)));
void write_trace_file_v(const char* path, const char* format, va_list args);

// Re-reads TQ_TRACE_LEVEL and TQ_TRACE_FILE (for tests and tools).
void trace_reconfigure();
// Sets level and file directly (file may be null: no trace file).
void trace_configure(int level, const char* file);

}  // namespace korvo

#define WRITE_TRACE(level, ...)                                        \
  do {                                                                 \
    if (::korvo::trace_level() >= (level)) ::korvo::write_trace((level), __VA_ARGS__); \
  } while (0)

#endif
