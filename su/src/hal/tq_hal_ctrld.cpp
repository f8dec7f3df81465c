// tq_hal_ctrld.cpp - remote commands over the product's control daemon: the
// port rules, the control client program form and the control client call.
#include <cerrno>
#include <cstring>
#include <string>

#include "hal/tq_hal.h"
#include "platform/platform.h"
#include "runtime/hostlog.h"
#include "runtime/ini.h"
#include "runtime/rcmd.h"

namespace hal {
namespace {

// An exit state from this value up means the control client failed itself
// and left its reason in the error file.
constexpr int kCtrlcFailState = 240;
// How much of the error file becomes the message.
constexpr size_t kErrTextMax = 255;

bool AllDigits(const std::string& s) {
  return !s.empty() && s.find_first_not_of("0123456789") == std::string::npos;
}

// The standard port: "CTRLD_Port" of "[CTRLD_Server]", unless it is missing
// or not a number other than 0.
std::string StandardPort(const TVU_TRACE& trace) {
  char value[256] = "";
  char reason[512];
  int rc = korvo::i_READ_INI("TQ_INI", "[CTRLD_Server]", "CTRLD_Port", value, sizeof value, reason, sizeof reason);
  std::string port = rc == 1 ? value : "";
  if (!AllDigits(port) || port.find_first_not_of('0') == std::string::npos) {
    Trace(trace, 1, "Standard CTRL port not given in tq.ini [CTRLD_Server] CTRLD_Port %s", port.c_str());
    return std::to_string(TVU_CTRLD_DEFAULT_PORT);
  }
  return port;
}

// The port option of the access options: they are checked when they begin
// with "-d", "-o", "-p", "-s" or "-v" and hold "-p ".  The value is the word
// after "-p " up to the next blank; digits only override the standard port.
// *rest receives the options without "-p" and its value.
std::string PortFromOptions(const TVU_TRACE& trace, const std::string& options, const std::string& standard,
                            std::string* rest) {
  *rest = options;
  size_t at = options.find("-p ");
  bool checked = options.size() >= 2 && options[0] == '-' && std::strchr("dopsv", options[1]) && at != std::string::npos;
  if (!checked) return standard;
  Trace(trace, 1, "Checking port option: [%s]", options.c_str());
  size_t start = at + 3;
  size_t end = options.find(' ', start);
  if (end == std::string::npos) end = options.size();
  std::string value = options.substr(start, end - start);
  std::string port = standard;
  if (AllDigits(value)) {
    port = value;
    Trace(trace, 1, "Standard ctrl port overwritten by clients.access_options: [%s]", options.c_str());
    Trace(trace, 1, "Ctrl port set to: %s", port.c_str());
  } else {
    Trace(trace, 1, "WARNING: clients.access_options: [%s] specifices invalid [-p] option", options.c_str());
    Trace(trace, 1, "Use standard port [%s] for CTRLC_LIB_CALL, and [%s] for TQ_CTRLC", standard.c_str(),
          standard.c_str());
  }
  // Remove "-p VALUE" with the blank that follows it (or, at the end, the one before it).
  size_t cut = end < options.size() ? end + 1 : end;
  size_t from = at;
  if (cut == options.size() && from > 0 && options[from - 1] == ' ') --from;
  rest->erase(from, cut - from);
  return port;
}

// Reads the start of the error file into the message, after a failure of the
// control client.
void ErrorFileMessage(TVU_RCMD* rec, const TVU_TRACE& trace) {
  Trace(trace, 1, "got high exit state >= 240 try to get error message");
  std::string errFile = Field(rec->szErrFile);
  char text[kErrTextMax + 1] = "";
  FILE* fp = pf::FOpen(errFile.c_str(), "rb");
  int e = fp ? 0 : pf::LastError();
  size_t n = 0;
  if (fp) {
    n = std::fread(text, 1, kErrTextMax, fp);
    if (std::ferror(fp)) e = EIO;
    std::fclose(fp);
  }
  if (e != 0) {
    SetField(rec->szMsg, "CtrldAccess: Failed to read from " + errFile + ": errno " + std::to_string(e) + ": " +
                             pf::ErrorText(e));
    Trace(trace, 1, "ERROR: %s", Field(rec->szMsg).c_str());
    return;
  }
  // The text up to its first NUL, without the line end the client wrote.
  std::string message(text, strnlen(text, n));
  while (!message.empty() && (message.back() == '\n' || message.back() == '\r')) message.pop_back();
  SetField(rec->szMsg, message);
  Trace(trace, 1, "szMsg [%s]", message.c_str());
}

bool ProgramFormSelected() {
  char value[64];
  char reason[512];
  return korvo::i_READ_INI("TQ_INI", "[pathes]", "gv_ctrlc_old", value, sizeof value, reason, sizeof reason) == 1 &&
         std::strcmp(value, "1") == 0;
}

}  // namespace
}  // namespace hal

using hal::Field;
using hal::Trace;

extern "C" TVU_EXPORT int32_t iCtrldAccess(TVU_RCMD* rec, TVU_TRACE trace) {
  if (!rec) return -1;
  std::string node = Field(rec->szNode), user = Field(rec->szUser), options = Field(rec->szAccessOptions);
  std::string command = Field(rec->szCommand), outFile = Field(rec->szOutFile), errFile = Field(rec->szErrFile);
  Trace(trace, 1, "+++ CtrldAccess: %s %s %s", node.c_str(), user.c_str(), command.c_str());

  std::string standard = hal::StandardPort(trace);
  Trace(trace, 2, "using access mode: CTRLD; user: %s; Port: %s", user.c_str(), standard.c_str());
  std::string portOpt;
  std::string port = hal::PortFromOptions(trace, options, standard, &portOpt);
  Trace(trace, 1, "CtrldPortOpt [%s], PortOpt [%s]", port.c_str(), portOpt.c_str());

  // The control client writes to a separate error file only with "-d";
  // without it, its errors go with the output.
  bool separate = rec->iSeparateErr == 1;
  bool hasD = options.find("-d") != std::string::npos;
  if (separate && !hasD) {
    Trace(trace, 1, "ATTENTION: Due to PortOpt [%s] the stderr will be sent to stdout file [%s]", portOpt.c_str(),
          outFile.c_str());
    Trace(trace, 1, "           CTRLC requires PortOpt [-d] to write to stderr file [%s]", errFile.c_str());
  }
  std::string runErrFile = separate && hasD ? errFile : "";

  int32_t rc;
  if (hal::ProgramFormSelected()) {
    std::string server = "-S " + node;
    std::string line;
    bool fits = runErrFile.empty()
                    ? hal::FormatCmdLine(&line, "tq_ctrlc %s -p %s %s -t %d -l %s %s %s 2>&1", server.c_str(),
                                         port.c_str(), portOpt.c_str(), rec->iTimeout, user.c_str(), node.c_str(),
                                         command.c_str())
                    : hal::FormatCmdLine(&line, "tq_ctrlc %s -p %s %s -l %s %s %s", server.c_str(), port.c_str(),
                                         portOpt.c_str(), user.c_str(), node.c_str(), command.c_str());
    rc = hal::RunCmdLine(rec, trace, line, fits, runErrFile);
  } else {
    // The call takes the port as the options' "-p".
    std::string callOptions = "-p " + port + (portOpt.empty() ? "" : " " + portOpt);
    if (outFile.empty()) {
      Trace(trace, 1, "CTRLC_LIB_CALL: -S %s -t %d -l %s %s %s %s", node.c_str(), rec->iTimeout, user.c_str(),
            callOptions.c_str(), node.c_str(), command.c_str());
    } else {
      Trace(trace, 1, "CTRLC_LIB_CALL: -S %s -t %d -l %s %s %s %s >%s 2>%s", node.c_str(), rec->iTimeout,
            user.c_str(), callOptions.c_str(), node.c_str(), command.c_str(), outFile.c_str(),
            runErrFile.empty() ? outFile.c_str() : runErrFile.c_str());
    }
    if (trace.iTraceLevel != 0)
      korvo::FPROT("I003-BASICS  RemoteCmd tq_ctrlc -S %s -t %d -l %s %s %s %s", node.c_str(), rec->iTimeout,
                   user.c_str(), callOptions.c_str(), node.c_str(), command.c_str());
    std::string inFile = Field(rec->szInFile);
    rc = korvo::ctrlc_lib_call(node.c_str(), rec->iTimeout, user.c_str(), callOptions.c_str(), node.c_str(),
                               command.c_str(), inFile.c_str(), outFile.c_str(), runErrFile.c_str(), rec->szMsg,
                               sizeof rec->szMsg);
  }
  if (rc >= hal::kCtrlcFailState) hal::ErrorFileMessage(rec, trace);
  Trace(trace, 1, "--- CtrldAccess: return exit state: %d. Message: %s", rc, Field(rec->szMsg).c_str());
  return rc;
}
