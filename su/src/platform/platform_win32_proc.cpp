// platform_win32_proc.cpp - threads and child processes of platform.h for
// Windows.
//
// A child gets its standard streams as inheritable handles that are opened
// here before CreateProcessA, so that a missing input file or an unwritable
// output file is reported with its name instead of as a failed start.  Only
// those handles are inherited (PROC_THREAD_ATTRIBUTE_HANDLE_LIST), so that
// handles other threads open at the same time never leak into the child.  A
// process started as the leader of a group goes into a job object, which
// ProcessEnd ends with everything the process started.
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "platform/platform.h"

namespace pf {

// ---- threads ---------------------------------------------------------------

struct Thread {
  HANDLE h = nullptr;
  int (*fn)(void*) = nullptr;
  void* arg = nullptr;
};

static DWORD WINAPI ThreadMain(LPVOID p) {
  auto* t = static_cast<Thread*>(p);
  return static_cast<DWORD>(t->fn(t->arg));
}

int ThreadStart(int (*fn)(void*), void* arg, Thread** out) {
  *out = nullptr;
  auto* t = new Thread;
  t->fn = fn;
  t->arg = arg;
  t->h = CreateThread(nullptr, 0, ThreadMain, t, 0, nullptr);
  if (!t->h) {
    int e = static_cast<int>(GetLastError());
    delete t;
    return e;
  }
  *out = t;
  return 0;
}

int ThreadPoll(Thread* t, int* exitCode, int* error) {
  *error = 0;
  if (!t) {
    *error = ERROR_INVALID_HANDLE;
    return kWaitFailed;
  }
  DWORD r = WaitForSingleObject(t->h, 0);
  if (r == WAIT_TIMEOUT) return kWaitTimeout;
  DWORD code = 0;
  if (r != WAIT_OBJECT_0 || !GetExitCodeThread(t->h, &code)) {
    *error = static_cast<int>(GetLastError());
    return kWaitFailed;
  }
  *exitCode = static_cast<int>(code);
  return kWaitSignaled;
}

void ThreadClose(Thread* t) {
  if (!t) return;
  if (t->h) CloseHandle(t->h);
  delete t;
}

int ThreadId() { return static_cast<int>(GetCurrentThreadId()); }

// ---- child processes -------------------------------------------------------

// The exit code a process ended by ProcessEnd or ProcessSignalEnd gets, the
// same number a shell reports for a process ended by SIGTERM.
static constexpr UINT kEndedExitCode = 143;

struct Process {
  HANDLE process = nullptr;
  HANDLE job = nullptr;
  DWORD pid = 0;
  HANDLE outPipe = nullptr;  // read end of a kStdioPipe output
};

namespace {

// One argument quoted so that the C runtime's command line parser of the
// child gives it back unchanged.
void AppendQuoted(const std::string& arg, std::string* line) {
  if (!arg.empty() && arg.find_first_of(" \t\n\v\"") == std::string::npos) {
    *line += arg;
    return;
  }
  *line += '"';
  for (size_t i = 0;; ++i) {
    size_t slashes = 0;
    while (i < arg.size() && arg[i] == '\\') {
      ++i;
      ++slashes;
    }
    if (i == arg.size()) {
      line->append(slashes * 2, '\\');  // before the closing quote
      break;
    }
    if (arg[i] == '"') {
      line->append(slashes * 2 + 1, '\\');
    } else {
      line->append(slashes, '\\');
    }
    *line += arg[i];
  }
  *line += '"';
}

// cmd.exe does not parse its command line like the C runtime: after "/s /c"
// it takes everything between the first and the last quote as the command.
bool IsShellCommand(const std::vector<std::string>& argv) {
  if (argv.size() != 3 || argv[1] != "/c") return false;
  std::string prog = argv[0];
  for (char& c : prog) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return prog == "cmd" || prog == "cmd.exe";
}

std::string CommandLine(const std::vector<std::string>& argv) {
  if (IsShellCommand(argv)) return "cmd.exe /d /s /c \"" + argv[2] + "\"";
  std::string line;
  for (size_t i = 0; i < argv.size(); ++i) {
    if (i) line += ' ';
    AppendQuoted(argv[i], &line);
  }
  return line;
}

// The handles opened for one start; closed in the parent once the child has them.
struct StartHandles {
  HANDLE h[8];
  int n = 0;
  ~StartHandles() {
    for (int i = 0; i < n; ++i) CloseHandle(h[i]);
  }
  void Keep(HANDLE handle) { h[n++] = handle; }
};

HANDLE Inheritable(HANDLE h) {
  if (h == nullptr || h == INVALID_HANDLE_VALUE) return nullptr;
  HANDLE dup = nullptr;
  if (!DuplicateHandle(GetCurrentProcess(), h, GetCurrentProcess(), &dup, 0, TRUE, DUPLICATE_SAME_ACCESS))
    return nullptr;
  return dup;
}

// Prepares one stream (target 0, 1 or 2) of the child: *child receives the
// inheritable handle it gets.
int PlanStream(const StdioSetup& setup, int target, HANDLE outHandle, HANDLE* child, StartHandles* handles,
               HANDLE* pipeRead, std::string* why) {
  static const char* const kNames[] = {"input", "output", "error"};
  static const DWORD kStd[] = {STD_INPUT_HANDLE, STD_OUTPUT_HANDLE, STD_ERROR_HANDLE};
  SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  std::string path = OsPath(setup.path.c_str());
  DWORD access = target == 0 ? GENERIC_READ : GENERIC_WRITE;
  DWORD disposition = OPEN_EXISTING;
  switch (setup.mode) {
    case kStdioInherit:
      *child = Inheritable(GetStdHandle(kStd[target]));
      if (*child) handles->Keep(*child);
      return 0;
    case kStdioToOut:
      *child = outHandle;
      return 0;
    case kStdioPipe: {
      HANDLE r = nullptr, w = nullptr;
      if (!CreatePipe(&r, &w, &inherit, 0)) {
        *why = "create output pipe";
        return static_cast<int>(GetLastError());
      }
      SetHandleInformation(r, HANDLE_FLAG_INHERIT, 0);
      handles->Keep(w);
      *pipeRead = r;
      *child = w;
      return 0;
    }
    case kStdioNull:
      path = "NUL";
      disposition = OPEN_EXISTING;
      break;
    case kStdioRead:
      break;
    case kStdioTruncate:
      disposition = CREATE_ALWAYS;
      break;
    case kStdioAppend:
      // Appending: every write of the child goes to the end of the file.
      access = FILE_APPEND_DATA | SYNCHRONIZE;
      disposition = OPEN_ALWAYS;
      break;
  }
  HANDLE h = CreateFileA(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, &inherit,
                         disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) {
    *why = std::string("open ") + kNames[target] + " file " + path;
    return static_cast<int>(GetLastError());
  }
  handles->Keep(h);
  *child = h;
  return 0;
}

}  // namespace

std::vector<std::string> ShellArgv(const std::string& cmdLine) { return {"cmd.exe", "/c", cmdLine}; }

int ProcessStart(const ProcessSetup& setup, Process** out, std::string* why) {
  *out = nullptr;
  if (setup.argv.empty()) {
    *why = "start: no program named";
    return ERROR_INVALID_PARAMETER;
  }
  StartHandles handles;
  HANDLE pipeRead = nullptr;
  HANDLE streams[3] = {nullptr, nullptr, nullptr};
  const StdioSetup* setups[] = {&setup.in, &setup.out, &setup.err};
  int rc = 0;
  for (int target = 0; target < 3 && rc == 0; ++target)
    rc = PlanStream(*setups[target], target, streams[1], &streams[target], &handles, &pipeRead, why);
  if (rc != 0) {
    if (why->empty()) *why = "prepare the streams of " + setup.argv[0];
    if (pipeRead) CloseHandle(pipeRead);
    return rc;
  }

  // Exactly the stream handles are inherited, each once.
  HANDLE inherit[3];
  int nInherit = 0;
  for (HANDLE h : streams)
    if (h && std::find(inherit, inherit + nInherit, h) == inherit + nInherit) inherit[nInherit++] = h;

  SIZE_T attrSize = 0;
  InitializeProcThreadAttributeList(nullptr, 1, 0, &attrSize);
  std::vector<char> attrBuf(attrSize);
  auto* attrs = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(attrBuf.data());
  bool haveAttrs = nInherit > 0 && InitializeProcThreadAttributeList(attrs, 1, 0, &attrSize) &&
                   UpdateProcThreadAttribute(attrs, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, inherit,
                                             nInherit * sizeof(HANDLE), nullptr, nullptr);

  STARTUPINFOEXA si;
  std::memset(&si, 0, sizeof si);
  si.StartupInfo.cb = sizeof si;
  si.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
  si.StartupInfo.hStdInput = streams[0];
  si.StartupInfo.hStdOutput = streams[1];
  si.StartupInfo.hStdError = streams[2];
  if (haveAttrs) si.lpAttributeList = attrs;

  HANDLE job = nullptr;
  if (setup.newGroup) {
    job = CreateJobObjectA(nullptr, nullptr);
    if (!job) {
      *why = "create job object";
      int e = static_cast<int>(GetLastError());
      if (pipeRead) CloseHandle(pipeRead);
      return e;
    }
  }

  std::string line = CommandLine(setup.argv);
  PROCESS_INFORMATION pi;
  DWORD flags = CREATE_SUSPENDED | (haveAttrs ? EXTENDED_STARTUPINFO_PRESENT : 0);
  BOOL ok = CreateProcessA(nullptr, &line[0], nullptr, nullptr, nInherit > 0, flags, nullptr, nullptr,
                           &si.StartupInfo, &pi);
  int e = ok ? 0 : static_cast<int>(GetLastError());
  if (haveAttrs) DeleteProcThreadAttributeList(attrs);
  if (!ok) {
    *why = "start " + setup.argv[0];
    if (job) CloseHandle(job);
    if (pipeRead) CloseHandle(pipeRead);
    return e;
  }
  // In the job before it runs, so that whatever it starts is in it too.
  if (job && !AssignProcessToJobObject(job, pi.hProcess)) {
    CloseHandle(job);
    job = nullptr;
  }
  ResumeThread(pi.hThread);
  CloseHandle(pi.hThread);
  auto* p = new Process;
  p->process = pi.hProcess;
  p->pid = pi.dwProcessId;
  p->job = job;
  p->outPipe = pipeRead;
  *out = p;
  return 0;
}

int64_t ProcessPid(const Process* p) { return p ? static_cast<int64_t>(p->pid) : -1; }

int ProcessWait(Process* p, uint32_t milliseconds, int* exitState) {
  if (!p) return kWaitFailed;
  DWORD r = WaitForSingleObject(p->process, milliseconds == kWaitForever ? INFINITE : milliseconds);
  if (r == WAIT_TIMEOUT) return kWaitTimeout;
  DWORD code = 0;
  if (r != WAIT_OBJECT_0 || !GetExitCodeProcess(p->process, &code)) return kWaitFailed;
  *exitState = static_cast<int>(code);
  return kWaitSignaled;
}

int ProcessEnd(Process* p, uint32_t graceMs, int* exitState) {
  if (!p) return ERROR_INVALID_HANDLE;
  // A console process cannot be asked to end the way a signal asks it; it
  // gets the grace time to finish on its own, then it is ended.
  int rc = ProcessWait(p, graceMs, exitState);
  if (p->job) TerminateJobObject(p->job, kEndedExitCode);
  if (rc != kWaitSignaled) {
    TerminateProcess(p->process, kEndedExitCode);
    rc = ProcessWait(p, kWaitForever, exitState);
  }
  return rc == kWaitSignaled ? 0 : ERROR_INVALID_HANDLE;
}

int ProcessReadOutput(Process* p, void* buf, size_t n, uint32_t milliseconds, size_t* got) {
  *got = 0;
  if (!p || !p->outPipe) return ERROR_INVALID_HANDLE;
  // Anonymous pipes cannot be waited on: poll for data until the time is up.
  uint64_t deadline = milliseconds == kWaitForever ? 0 : TicksMs() + milliseconds;
  uint32_t pause = 1;
  for (;;) {
    DWORD avail = 0;
    if (!PeekNamedPipe(p->outPipe, nullptr, 0, nullptr, &avail, nullptr)) {
      DWORD e = GetLastError();
      return e == ERROR_BROKEN_PIPE ? 0 : static_cast<int>(e);  // end of the output
    }
    if (avail > 0) break;
    if (milliseconds != kWaitForever) {
      uint64_t now = TicksMs();
      if (now >= deadline) return kWaitTimeout;
      SleepMs(static_cast<uint32_t>(std::min<uint64_t>(pause, deadline - now)));
    } else {
      SleepMs(pause);
    }
    pause = std::min<uint32_t>(pause * 2, 20);
  }
  DWORD r = 0;
  if (!ReadFile(p->outPipe, buf, static_cast<DWORD>(std::min<size_t>(n, 1u << 30)), &r, nullptr)) {
    DWORD e = GetLastError();
    return e == ERROR_BROKEN_PIPE ? 0 : static_cast<int>(e);
  }
  *got = r;
  return 0;
}

void ProcessClose(Process* p) {
  if (!p) return;
  if (p->outPipe) CloseHandle(p->outPipe);
  // Closing the job handle does not end its processes (no kill-on-close).
  if (p->job) CloseHandle(p->job);
  CloseHandle(p->process);
  delete p;
}

bool ProcessExists(int64_t pid) {
  if (pid <= 0) return false;
  HANDLE h = OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, static_cast<DWORD>(pid));
  if (!h) return GetLastError() == ERROR_ACCESS_DENIED;  // exists, but not ours to open
  bool running = WaitForSingleObject(h, 0) == WAIT_TIMEOUT;
  CloseHandle(h);
  return running;
}

int ProcessSignalEnd(int64_t pid, bool force) {
  if (pid <= 0) return ERROR_INVALID_PARAMETER;
  (void)force;  // Windows has one way to end another console process
  HANDLE h = OpenProcess(PROCESS_TERMINATE, FALSE, static_cast<DWORD>(pid));
  if (!h) return static_cast<int>(GetLastError());
  int rc = TerminateProcess(h, kEndedExitCode) ? 0 : static_cast<int>(GetLastError());
  CloseHandle(h);
  return rc;
}

}  // namespace pf
