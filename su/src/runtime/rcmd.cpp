// rcmd.cpp - the pipe runner, the control client call, escaping and the
// remote command dispatcher.
#include "runtime/rcmd.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "runtime/hostlog.h"
#include "runtime/strutil.h"
#include "runtime/trace.h"

namespace korvo {
namespace {

using detail::CopyCut;

// How long a command whose time-out passed may take to end after being asked
// to, before it is ended by force.
constexpr uint32_t kEndGraceMs = 1000;

bool Named(const char* path) { return path && *path; }

// Runs a process with the streams of the pipe runner: input from inFile (the
// null device without one), output to outFile (discarded without one),
// errors to errFile or with the output.
int RunWithFiles(pf::ProcessSetup setup, const char* inFile, const char* outFile, const char* errFile, int timeoutSec,
                 char* msg, size_t msgSize) {
  setup.in = Named(inFile) ? pf::StdioSetup{pf::kStdioRead, inFile} : pf::StdioSetup{pf::kStdioNull, {}};
  setup.out = Named(outFile) ? pf::StdioSetup{pf::kStdioTruncate, outFile} : pf::StdioSetup{pf::kStdioNull, {}};
  setup.err = Named(errFile) ? pf::StdioSetup{pf::kStdioTruncate, errFile} : pf::StdioSetup{pf::kStdioToOut, {}};
  setup.newGroup = true;
  return run_process(setup, timeoutSec, msg, msgSize);
}

// Splits text at blanks into words.
void AppendWords(const char* text, std::vector<std::string>* words) {
  std::string word;
  for (const char* p = text ? text : "";; ++p) {
    if (*p == '\0' || detail::IsBlank(*p)) {
      if (!word.empty()) words->push_back(word);
      word.clear();
      if (*p == '\0') break;
    } else {
      word += *p;
    }
  }
}

std::atomic<RcmdAccessFn> g_access[kRcmdModes];

// A record field as text: at most the field's size, even without a NUL.
template <size_t N>
std::string Field(const char (&a)[N]) {
  return std::string(a, strnlen(a, N));
}

}  // namespace

std::string exit_state_text(int state) {
  if (state > 128 && state < 128 + 65) return "ended by signal " + std::to_string(state - 128);
  return "exit status " + std::to_string(state);
}

int run_process(const pf::ProcessSetup& setup, int timeoutSec, char* msg, size_t msgSize) {
  pf::Process* proc = nullptr;
  std::string why;
  if (int e = pf::ProcessStart(setup, &proc, &why)) {
    CopyCut("cannot " + why + ": " + pf::ErrorText(e), msg, msgSize);
    WRITE_TRACE(1, "run: cannot %s: %s", why.c_str(), pf::ErrorText(e).c_str());
    return -1;
  }
  uint32_t waitMs = pf::kWaitForever;
  if (timeoutSec > 0) waitMs = static_cast<uint32_t>(std::min<uint64_t>(uint64_t(timeoutSec) * 1000u, pf::kWaitForever - 1));
  int state = 0;
  int rc = pf::ProcessWait(proc, waitMs, &state);
  std::string text;
  if (rc == pf::kWaitTimeout) {
    pf::ProcessEnd(proc, kEndGraceMs, &state);
    state = kTimedOutState;
    text = "timed out after " + std::to_string(timeoutSec) + " s";
  } else if (rc != pf::kWaitSignaled) {
    int e = pf::LastError();
    pf::ProcessEnd(proc, 0, &state);
    state = -1;
    text = "cannot wait for " + setup.argv[0] + ": " + pf::ErrorText(e);
  } else {
    text = exit_state_text(state);
  }
  pf::ProcessClose(proc);
  CopyCut(text, msg, msgSize);
  return state;
}

int i_PIPE_OPEN_CMD(const char* cmdLine, const char* inFile, const char* outFile, const char* errFile,
                    int timeoutSec, char* msg, size_t msgSize) {
  pf::ProcessSetup setup;
  setup.argv = pf::ShellArgv(cmdLine ? cmdLine : "");
  return RunWithFiles(std::move(setup), inFile, outFile, errFile, timeoutSec, msg, msgSize);
}

int ctrlc_lib_call(const char* server, int timeoutSec, const char* user, const char* options, const char* node,
                   const char* command, const char* inFile, const char* outFile, const char* errFile, char* msg,
                   size_t msgSize) {
  pf::ProcessSetup setup;
  setup.argv = {"tq_ctrlc", "-S", server ? server : "", "-t", std::to_string(timeoutSec), "-l", user ? user : ""};
  AppendWords(options, &setup.argv);
  setup.argv.push_back(node ? node : "");
  setup.argv.push_back(command ? command : "");
  return RunWithFiles(std::move(setup), inFile, outFile, errFile, timeoutSec, msg, msgSize);
}

int szChar2EscapeChar(const char* in, char ch, char* out, size_t outSize) {
  if (!out || outSize == 0) return -1;
  size_t n = 0;
  for (const char* p = in ? in : ""; *p; ++p) {
    size_t need = *p == ch ? 2 : 1;
    if (n + need > outSize - 1) {
      out[0] = '\0';
      return -1;
    }
    if (*p == ch) out[n++] = '\\';
    out[n++] = *p;
  }
  out[n] = '\0';
  return static_cast<int>(n);
}

void rcmd_set_access(int mode, RcmdAccessFn fn) {
  if (mode >= 0 && mode < kRcmdModes) g_access[mode].store(fn, std::memory_order_release);
}

int32_t i_RCMD(TVU_RCMD* rec, TVU_TRACE trace) {
  if (!rec) return -1;
  int mode = rec->iAccessMode;
  RcmdAccessFn fn = mode >= 0 && mode < kRcmdModes ? g_access[mode].load(std::memory_order_acquire) : nullptr;
  log_line("RCMD node %s, access mode %d, cmd %s", Field(rec->szNode).c_str(), mode, Field(rec->szCommand).c_str());
  int32_t rc;
  if (!fn) {
    CopyCut("RCMD: no access function for access mode " + std::to_string(mode), rec->szMsg, sizeof rec->szMsg);
    rc = -1;
  } else {
    rc = fn(rec, trace);
  }
  log_line("RCMD return %d, msg [%s]", rc, Field(rec->szMsg).c_str());
  return rc;
}

}  // namespace korvo
