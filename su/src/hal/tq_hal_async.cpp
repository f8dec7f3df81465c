// tq_hal_async.cpp - remote commands on a thread of their own, and the poll
// for that thread's end.
//
// Each i_ASYNC_RCMD call starts one thread on its own copy of the record; the
// handle in the caller's record points at that run.  The runs alive are kept
// in one set, so that a handle the module did not give out (or gave out and
// took back: a stale copy of a record) is refused instead of followed.
#include <cerrno>
#include <condition_variable>
#include <cstddef>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_set>

#include "hal/tq_hal.h"
#include "platform/platform.h"
#include "runtime/hostlog.h"
#include "runtime/rcmd.h"

// The records are part of the module's interface: their layout must not move.
static_assert(sizeof(TVU_TRACE) == 4100, "TVU_TRACE layout");
static_assert(offsetof(TVU_RCMD, iTimeout) == 22080, "TVU_RCMD layout");
static_assert(offsetof(TVU_RCMD, szMsg) == 22084, "TVU_RCMD layout");
static_assert(offsetof(TVU_RCMD, iAccessMode) == 23112, "TVU_RCMD layout");
static_assert(offsetof(TVU_RCMD, hThread) == 23120 && sizeof(TVU_RCMD) == 23128, "TVU_RCMD layout");

namespace hal {
namespace {

constexpr const char* kLogName = "tq_client.lgc";
constexpr const char* kLogModule = "TQ_CLIENT";

struct AsyncRun {
  TVU_RCMD rec;  // the thread's own copy
  TVU_TRACE trace;
  pf::Thread* thread = nullptr;
  std::mutex mutex;  // guards tid until the thread has published it
  std::condition_variable published;
  int tid = 0;
};

std::mutex g_runsMutex;
// Never destroyed: threads may still be polled from other static destructors.
std::unordered_set<AsyncRun*>* g_runs = new std::unordered_set<AsyncRun*>;

// The program log lies beside the trace file, or in the working folder.
std::string LogPath(const TVU_TRACE& trace) {
  std::string file = Field(trace.szTraceFile);
  size_t sep = file.find_last_of("/\\");
  return sep == std::string::npos ? kLogName : file.substr(0, sep + 1) + kLogName;
}

int RunThread(void* p) {
  auto* run = static_cast<AsyncRun*>(p);
  int tid = pf::ThreadId();
  {
    std::lock_guard<std::mutex> lock(run->mutex);
    run->tid = tid;
  }
  run->published.notify_one();
  korvo::v_set_log_main(LogPath(run->trace).c_str(), kLogModule);
  Trace(run->trace, 1, "+++ ASYNC_RCMD_THREAD (%d): got node %s, cmd %s", tid, Field(run->rec.szNode).c_str(),
        Field(run->rec.szCommand).c_str());
  int32_t rc = korvo::i_RCMD(&run->rec, run->trace);
  Trace(run->trace, 1, "--- ASYNC_RCMD_THREAD (%d): exit with %d, msg [%s]", tid, rc, Field(run->rec.szMsg).c_str());
  korvo::v_set_log_all_close();
  return rc;
}

// Polls a run without waiting, under the set's lock so that one run is
// collected once.  A run that ended, or whose end cannot be collected, leaves
// the set; *release tells whether its memory may go (its thread is done).
int PollRun(AsyncRun* run, int* code, int* error, bool* release) {
  std::lock_guard<std::mutex> lock(g_runsMutex);
  *release = false;
  if (g_runs->count(run) == 0) {
    *error = EBADF;
    return pf::kWaitFailed;
  }
  int wait = pf::ThreadPoll(run->thread, code, error);
  if (wait != pf::kWaitTimeout) {
    g_runs->erase(run);
    *release = wait == pf::kWaitSignaled;
  }
  return wait;
}

long long HandleValue(const void* handle) { return static_cast<long long>(reinterpret_cast<intptr_t>(handle)); }

}  // namespace
}  // namespace hal

using hal::Field;
using hal::Trace;

extern "C" {

TVU_EXPORT int32_t i_ASYNC_RCMD(TVU_RCMD* rec, TVU_TRACE trace) {
  if (!rec) return 2;
  Trace(trace, 1, "+++ ASYNC_RCMD  node >%s<, cmd >%s<", Field(rec->szNode).c_str(), Field(rec->szCommand).c_str());
  hal::InstallAccessModes();
  auto* run = new hal::AsyncRun;
  std::memcpy(&run->rec, rec, sizeof run->rec);
  run->rec.hThread = nullptr;
  run->trace = trace;
  if (int e = pf::ThreadStart(hal::RunThread, run, &run->thread)) {
    delete run;
    hal::SetField(rec->szMsg, pf::ErrorText(e));
    Trace(trace, 1, "--- ASYNC_RCMD return %s", Field(rec->szMsg).c_str());
    return 2;
  }
  int tid;
  {
    std::unique_lock<std::mutex> lock(run->mutex);
    run->published.wait(lock, [run] { return run->tid != 0; });
    tid = run->tid;
  }
  {
    std::lock_guard<std::mutex> lock(hal::g_runsMutex);
    hal::g_runs->insert(run);
  }
  rec->hThread = run;
  hal::SetField(rec->szMsg, "-" + std::to_string(tid));
  Trace(trace, 1, "--- ASYNC_RCMD return HANDLE => ThreadId: (HANDLE %lld) => %d", hal::HandleValue(run), tid);
  return 0;
}

TVU_EXPORT int32_t i_RCMD_GetExit(TVU_RCMD* rec, int32_t* exitCode, TVU_TRACE trace) {
  int32_t unused = 0;
  int32_t* out = exitCode ? exitCode : &unused;
  *out = 0;
  if (!rec) return -1;
  Trace(trace, 2, "+++ RCMD_GetExit: %s [%s], handle %lld", Field(rec->szNode).c_str(), Field(rec->szCommand).c_str(),
        hal::HandleValue(rec->hThread));
  int32_t result;
  auto* run = static_cast<hal::AsyncRun*>(rec->hThread);
  if (!run) {
    Trace(trace, 1, "RCMD_GetExit: Thread handle is not yet set (NULL).");
    result = -1;
  } else {
    int code = 0;
    int error = 0;
    bool release = false;
    int wait = hal::PollRun(run, &code, &error, &release);
    switch (wait) {
      case pf::kWaitSignaled:
        Trace(trace, 2, "RCMD_GetExit: got WAIT_OBJECT_0: child process is signalled");
        Trace(trace, 1, "RCMD_GetExit: Thread returned with exit code %d", code);
        *out = code;
        result = 1;
        break;
      case pf::kWaitTimeout:
        Trace(trace, 2, "got WAIT_TIMEOUT: child is running");
        result = 0;
        break;
      case pf::kWaitFailed:
        Trace(trace, 1, "RCMD_GetExit: WARNING: got not expected WAIT_FAILED");
        Trace(trace, 1, "WaitForSingleObject() sets errno = %d", error);
        Trace(trace, 1, "RCMD_GetExit: %s", pf::ErrorText(error).c_str());
        result = -1;
        break;
      default:
        Trace(trace, 1, "RCMD_GetExit: WARNING: got unknown WaitForSingleObject() return: %ld", static_cast<long>(wait));
        result = -1;
        break;
    }
    // Every outcome but "running" gives the handle back.  A run whose end
    // could not be collected keeps its memory: its thread may still use it.
    if (release) {
      pf::ThreadClose(run->thread);
      delete run;
    }
    if (wait != pf::kWaitTimeout) rec->hThread = nullptr;
  }
  Trace(trace, 2, "--- RCMD_GetExit: return %d, (exit %d)", result, *out);
  return result;
}

}  // extern "C"
