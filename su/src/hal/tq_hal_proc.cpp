// tq_hal_proc.cpp - local processes: start in the background, run and wait
// (optionally copying the output into a file), check and end by id.
#include <cerrno>
#include <cstdio>
#include <string>

#include "hal/tq_hal.h"
#include "platform/platform.h"
#include "runtime/rcmd.h"
#include "runtime/strutil.h"
#include "runtime/trace.h"

namespace hal {
namespace {

// How long a process asked to end may take before it is ended by force, and
// how long a forced end may take to show.
constexpr uint32_t kKillGraceMs = 2000;
constexpr uint32_t kKillForcedMs = 1000;
constexpr uint32_t kKillPollMs = 20;
// After the command itself has ended, its output is read until it ends, stays
// quiet for kDrainQuietMs or kDrainMaxMs have passed (a child left running
// in the background may keep the pipe open).
constexpr uint32_t kDrainQuietMs = 100;
constexpr uint32_t kDrainMaxMs = 1000;
// Pipe reads wait at most this long, so that the command's end and the
// time-out are checked between them.
constexpr uint32_t kTeeSliceMs = 100;

pf::ProcessSetup ShellSetup(const char* cmdLine) {
  pf::ProcessSetup setup;
  setup.argv = pf::ShellArgv(cmdLine);
  setup.newGroup = true;
  return setup;
}

void SetMessage(char* msg, int32_t size, const std::string& text) {
  if (msg && size > 0) korvo::detail::CopyCut(text, msg, static_cast<size_t>(size));
}

bool WaitGone(int64_t pid, uint32_t ms) {
  uint64_t deadline = pf::TicksMs() + ms;
  for (;;) {
    if (!pf::ProcessExists(pid)) return true;
    if (pf::TicksMs() >= deadline) return false;
    pf::SleepMs(kKillPollMs);
  }
}

}  // namespace
}  // namespace hal

extern "C" {

TVU_EXPORT int32_t start_proc(const char* szCmdLine, const char* szOutFile, int32_t* piPid) {
  if (!szCmdLine || !piPid) return EINVAL;
  *piPid = 0;
  pf::ProcessSetup setup = hal::ShellSetup(szCmdLine);
  setup.in = {pf::kStdioNull, {}};
  setup.out = szOutFile && *szOutFile ? pf::StdioSetup{pf::kStdioAppend, szOutFile} : pf::StdioSetup{pf::kStdioNull, {}};
  setup.err = {pf::kStdioToOut, {}};
  pf::Process* proc = nullptr;
  std::string why;
  if (int e = pf::ProcessStart(setup, &proc, &why)) {
    WRITE_TRACE(1, "start_proc: cannot %s: %s", why.c_str(), pf::ErrorText(e).c_str());
    return e;
  }
  *piPid = static_cast<int32_t>(pf::ProcessPid(proc));
  pf::ProcessClose(proc);
  WRITE_TRACE(2, "start_proc: pid %d: %s", *piPid, szCmdLine);
  return 0;
}

TVU_EXPORT int32_t start_system(const char* szCmdLine, int32_t iTimeout, char* szMsg, int32_t iMsgSize) {
  if (!szCmdLine) return -1;
  char msg[1024];
  int32_t rc = korvo::run_process(hal::ShellSetup(szCmdLine), iTimeout, msg, sizeof msg);
  hal::SetMessage(szMsg, iMsgSize, msg);
  return rc;
}

TVU_EXPORT int32_t start_system_tee(const char* szCmdLine, const char* szTeeFile, int32_t iTimeout, char* szMsg,
                                    int32_t iMsgSize) {
  if (!szCmdLine || !szTeeFile) return -1;
  pf::File* tee = nullptr;
  if (int e = pf::FileOpenAppend(szTeeFile, &tee)) {
    hal::SetMessage(szMsg, iMsgSize, std::string("cannot open ") + szTeeFile + ": " + pf::ErrorText(e));
    return -1;
  }
  pf::ProcessSetup setup = hal::ShellSetup(szCmdLine);
  setup.out = {pf::kStdioPipe, {}};
  setup.err = {pf::kStdioToOut, {}};
  pf::Process* proc = nullptr;
  std::string why;
  if (int e = pf::ProcessStart(setup, &proc, &why)) {
    pf::FileClose(tee);
    hal::SetMessage(szMsg, iMsgSize, "cannot " + why + ": " + pf::ErrorText(e));
    return -1;
  }
  uint64_t deadline = iTimeout > 0 ? pf::TicksMs() + uint64_t(iTimeout) * 1000u : 0;
  bool ended = false;  // the command itself has ended: drain what is left
  uint64_t endedAt = 0;
  bool timedOut = false;
  int state = 0;
  int teeError = 0;
  char buf[65536];
  for (;;) {
    uint64_t now = pf::TicksMs();
    if (ended ? now - endedAt >= hal::kDrainMaxMs : deadline && now >= deadline) {
      timedOut = !ended;
      break;
    }
    size_t got = 0;
    int rc = pf::ProcessReadOutput(proc, buf, sizeof buf, ended ? hal::kDrainQuietMs : hal::kTeeSliceMs, &got);
    if (rc == 0 && got > 0) {
      std::fwrite(buf, 1, got, stdout);
      std::fflush(stdout);
      if (teeError == 0) teeError = pf::FileWrite(tee, buf, got);
      continue;
    }
    if (rc != pf::kWaitTimeout || ended) break;  // end of output, an error, or quiet after the end
    if (pf::ProcessWait(proc, 0, &state) == pf::kWaitSignaled) {
      ended = true;
      endedAt = pf::TicksMs();
    }
  }
  std::string text;
  if (timedOut) {
    pf::ProcessEnd(proc, 1000, &state);
    state = korvo::kTimedOutState;
    text = "timed out after " + std::to_string(iTimeout) + " s";
  } else {
    uint64_t now = pf::TicksMs();
    uint32_t left = !deadline ? pf::kWaitForever : deadline > now ? static_cast<uint32_t>(deadline - now) : 0;
    if (pf::ProcessWait(proc, left, &state) != pf::kWaitSignaled) {
      pf::ProcessEnd(proc, 1000, &state);
      state = korvo::kTimedOutState;
      text = "timed out after " + std::to_string(iTimeout) + " s";
    } else {
      text = korvo::exit_state_text(state);
    }
  }
  if (teeError != 0) text += std::string("; writing ") + szTeeFile + " failed: " + pf::ErrorText(teeError);
  pf::ProcessClose(proc);
  pf::FileClose(tee);
  hal::SetMessage(szMsg, iMsgSize, text);
  return state;
}

TVU_EXPORT int32_t pid_exist(int32_t iPid) { return iPid > 0 && pf::ProcessExists(iPid) ? 1 : 0; }

TVU_EXPORT int32_t i_KILL_TVU(int32_t iPid) {
  if (iPid <= 0 || iPid == pf::ProcessId()) return EINVAL;
  if (!pf::ProcessExists(iPid)) return ESRCH;
  int e = pf::ProcessSignalEnd(iPid, false);
  if (e == ESRCH) return 0;
  if (e != 0) return e;
  if (hal::WaitGone(iPid, hal::kKillGraceMs)) return 0;
  WRITE_TRACE(1, "i_KILL_TVU: pid %d did not end within %u ms: ending it by force", iPid, hal::kKillGraceMs);
  e = pf::ProcessSignalEnd(iPid, true);
  if (e == ESRCH) return 0;
  if (e != 0) return e;
  return hal::WaitGone(iPid, hal::kKillForcedMs) ? 0 : ETIMEDOUT;
}

}  // extern "C"
