// hostlog.h - the protocol file and the per-thread program logs of the host
// helpers.
//
// Protocol lines (FPROT) record what the product did for a user to read
// later: the commands run on other hosts.  They go to the file that the
// environment variable TQ_PROT_FILE names, read on every call; without it
// nothing is written.
//
// A program log belongs to one thread: v_set_log_main() names the calling
// thread's log file and the module name that heads its lines, log_line()
// appends to it, v_set_log_all_close() ends it.  A thread without a log
// writes nothing.  Both use the trace line form of trace.h.
//
// Thread safety: all functions may be called from any thread.
#ifndef TVU_RUNTIME_HOSTLOG_H
#define TVU_RUNTIME_HOSTLOG_H

namespace korvo {

void FPROT(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Names the calling thread's log file and module (either may be null: no log).
void v_set_log_main(const char* logFile, const char* moduleName);
// Appends "MODULE text" to the calling thread's log.
void log_line(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Ends the calling thread's logs.
void v_set_log_all_close();

}  // namespace korvo

#endif
