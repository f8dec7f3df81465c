// hostlog.cpp - protocol file and per-thread program logs.
#include "runtime/hostlog.h"

#include <cstdarg>
#include <cstdio>
#include <string>

#include "platform/platform.h"
#include "runtime/trace.h"

namespace korvo {
namespace {

constexpr const char* kProtocolEnv = "TQ_PROT_FILE";

struct ThreadLog {
  std::string file;
  std::string module;
};
thread_local ThreadLog t_log;

}  // namespace

void FPROT(const char* format, ...) {
  std::string file;
  if (!pf::GetEnv(kProtocolEnv, &file) || file.empty()) return;
  va_list args;
  va_start(args, format);
  write_trace_file_v(file.c_str(), format, args);
  va_end(args);
}

void v_set_log_main(const char* logFile, const char* moduleName) {
  t_log.file = logFile ? logFile : "";
  t_log.module = moduleName ? moduleName : "";
}

void log_line(const char* format, ...) {
  if (t_log.file.empty()) return;
  char text[2048];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  write_trace_file(t_log.file.c_str(), "%s %s", t_log.module.c_str(), text);
}

void v_set_log_all_close() {
  t_log.file.clear();
  t_log.module.clear();
}

}  // namespace korvo
