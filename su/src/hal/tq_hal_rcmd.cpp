// tq_hal_rcmd.cpp - remote commands over rsh, ssh and the product's own ssh
// transport, and what all access modes share: the trace context, the command
// line buffer and the run of a built line.
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "hal/tq_hal.h"
#include "runtime/hostlog.h"
#include "runtime/ini.h"
#include "runtime/rcmd.h"
#include "runtime/trace.h"

namespace hal {

void Trace(const TVU_TRACE& trace, int level, const char* format, ...) {
  if (level < 1 || trace.iTraceLevel < level) return;
  std::string file = Field(trace.szTraceFile);
  if (file.empty()) return;
  va_list args;
  va_start(args, format);
  korvo::write_trace_file_v(file.c_str(), format, args);
  va_end(args);
}

bool IsWindowsClient(const TVU_RCMD& rec) {
  std::string platform = Field(rec.szPlatform);
  return platform == "WNT" || platform == "Windows";
}

bool FormatCmdLine(std::string* line, const char* format, ...) {
  char buf[kCmdLineMax + 1];
  va_list args;
  va_start(args, format);
  int n = std::vsnprintf(buf, sizeof buf, format, args);
  va_end(args);
  if (n < 0) {
    line->clear();
    return false;
  }
  line->assign(buf);
  return static_cast<size_t>(n) <= kCmdLineMax;
}

std::string SeparateErrFile(const TVU_RCMD& rec) { return rec.iSeparateErr == 1 ? Field(rec.szErrFile) : ""; }

int32_t RunCmdLine(TVU_RCMD* rec, const TVU_TRACE& trace, const std::string& line, bool fits,
                   const std::string& errFile) {
  std::string outFile = Field(rec->szOutFile);
  int32_t rc;
  if (!fits) {
    SetField(rec->szMsg, "command line longer than " + std::to_string(kCmdLineMax) + " characters: not run");
    rc = -1;
  } else {
    if (trace.iTraceLevel != 0) {
      korvo::FPROT("I003-BASICS  RemoteCmd %s", line.c_str());
      Trace(trace, 1, "cmd: [%s], szOutFile: [%s]", line.c_str(), outFile.c_str());
    }
    std::string inFile = Field(rec->szInFile);
    rc = korvo::i_PIPE_OPEN_CMD(line.c_str(), inFile.c_str(), outFile.c_str(), errFile.c_str(), rec->iTimeout,
                                rec->szMsg, sizeof rec->szMsg);
  }
  return rc;
}

int32_t TraceReturn(const char* name, const TVU_RCMD& rec, const TVU_TRACE& trace, int32_t rc) {
  Trace(trace, 1, "--- %s: return %d %s", name, rc, Field(rec.szMsg).c_str());
  return rc;
}

void InstallAccessModes() {
  static std::once_flag once;
  std::call_once(once, [] {
    korvo::rcmd_set_access(korvo::kRcmdCtrld, iCtrldAccess);
    korvo::rcmd_set_access(korvo::kRcmdRsh, iRshAccess);
    korvo::rcmd_set_access(korvo::kRcmdSsh, iSshAccess);
    korvo::rcmd_set_access(korvo::kRcmdTqSsh, iTqSshAccess);
  });
}

namespace {

// The product's own ssh server: its port, and its key file below the
// configuration folder gv_rw_ini.
constexpr const char* kUseSsh = "use_ssh";

// gv_rw_ini without trailing separators, so that the key path gets one.
std::string ConfigFolder(const TVU_TRACE& trace) {
  char value[4096];
  char reason[512];
  if (korvo::i_READ_INI("TQ_INI", "[pathes]", "gv_rw_ini", value, sizeof value, reason, sizeof reason) != 1) {
    Trace(trace, 1, "TqSshAccess: gv_rw_ini not read: %s", reason);
    return "";
  }
  std::string folder = value;
  while (!folder.empty() && (folder.back() == '/' || folder.back() == '\\')) folder.pop_back();
  return folder;
}

}  // namespace

}  // namespace hal

using hal::Field;
using hal::Trace;

extern "C" {

TVU_EXPORT int32_t iRshAccess(TVU_RCMD* rec, TVU_TRACE trace) {
  if (!rec) return -1;
  std::string node = Field(rec->szNode), user = Field(rec->szUser), options = Field(rec->szAccessOptions);
  std::string command = Field(rec->szCommand);
  Trace(trace, 1, "+++ RshAccess: %s %s %s %s", node.c_str(), command.c_str(), Field(rec->szInFile).c_str(),
        Field(rec->szOutFile).c_str());
  if (!options.empty()) Trace(trace, 1, "PortOpt= %s", options.c_str());
  std::string line;
  bool fits = hal::IsWindowsClient(*rec)
                  ? hal::FormatCmdLine(&line, "rsh -l %s %s %s '%s'", user.c_str(), options.c_str(), node.c_str(),
                                       command.c_str())
                  : hal::FormatCmdLine(&line,
                                       "rsh -l %s %s %s '. /etc/korvo2000.ini;set -f;LD_LIBRARY_PATH=$TQ_BIN_KORVO "
                                       "PATH=$PATH:$TQ_BIN_KORVO:$TQ_BIN_TQS %s'",
                                       user.c_str(), options.c_str(), node.c_str(), command.c_str());
  int32_t rc = hal::RunCmdLine(rec, trace, line, fits, hal::SeparateErrFile(*rec));
  return hal::TraceReturn("RshAccess", *rec, trace, rc);
}

TVU_EXPORT int32_t iSshAccess(TVU_RCMD* rec, TVU_TRACE trace) {
  if (!rec) return -1;
  std::string node = Field(rec->szNode), user = Field(rec->szUser), options = Field(rec->szAccessOptions);
  std::string command = Field(rec->szCommand);
  Trace(trace, 1, "+++ SshAccess: %s %s %s %s", node.c_str(), command.c_str(), Field(rec->szInFile).c_str(),
        Field(rec->szOutFile).c_str());
  // The command stands in double quotes on the line: its own double quotes
  // get a backslash.
  char escaped[hal::kCmdLineMax + 1];
  bool fits = korvo::szChar2EscapeChar(command.c_str(), '"', escaped, sizeof escaped) >= 0;
  std::string line;
  if (fits) {
    fits = hal::IsWindowsClient(*rec)
               ? hal::FormatCmdLine(&line, "ssh -l %s %s %s \"%s\"", user.c_str(), options.c_str(), node.c_str(),
                                    escaped)
               : hal::FormatCmdLine(&line,
                                    "ssh -l %s %s %s \". /etc/korvo2000.ini;set -f;LD_LIBRARY_PATH=$TQ_BIN_KORVO "
                                    "PATH=$PATH:$TQ_BIN_KORVO:$TQ_VAR_BIN:$TQ_BIN_TQS %s\"",
                                    user.c_str(), options.c_str(), node.c_str(), escaped);
  }
  int32_t rc = hal::RunCmdLine(rec, trace, line, fits, hal::SeparateErrFile(*rec));
  return hal::TraceReturn("SshAccess", *rec, trace, rc);
}

TVU_EXPORT int32_t iTqSshAccess(TVU_RCMD* rec, TVU_TRACE trace) {
  if (!rec) return -1;
  std::string node = Field(rec->szNode), user = Field(rec->szUser), options = Field(rec->szAccessOptions);
  std::string command = Field(rec->szCommand);
  Trace(trace, 1, "+++ TqSshAccess: %s %s %s %s", node.c_str(), command.c_str(), Field(rec->szInFile).c_str(),
        Field(rec->szOutFile).c_str());
  Trace(trace, 1, "Access options=%s", options.c_str());
  std::string line;
  bool fits;
  if (options.compare(0, 7, hal::kUseSsh) == 0) {
    // The text after "use_ssh" goes to ssh as it is, leading blank included.
    std::string folder = hal::ConfigFolder(trace);
    fits = hal::FormatCmdLine(&line, "ssh -p 11322 -i \"%s/tq_ssh/ssh_server_rsa.key\" -l %s %s %s %s",
                              folder.c_str(), user.c_str(), options.c_str() + 7, node.c_str(), command.c_str());
  } else {
    fits = hal::FormatCmdLine(&line, "tq_ssh -l %s %s %s %s", user.c_str(), options.c_str(), node.c_str(),
                              command.c_str());
  }
  int32_t rc = hal::RunCmdLine(rec, trace, line, fits, hal::SeparateErrFile(*rec));
  return hal::TraceReturn("TqSshAccess", *rec, trace, rc);
}

}  // extern "C"
