// platform_posix_proc.cpp - threads and child processes of platform.h for
// Linux and other POSIX systems.
//
// Children are started with posix_spawn, which is safe in a process with many
// threads (nothing runs between fork and exec but the spawn's own steps).  The
// files a child's streams go to are opened here, before the spawn, so that a
// missing input file or an unwritable output file is reported with its name
// instead of as a failed start.
#include "platform/platform.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>

extern char** environ;

namespace pf {

// ---- threads ---------------------------------------------------------------

struct Thread {
  pthread_t thread;
  int (*fn)(void*);
  void* arg;
  int exitCode = 0;
  std::atomic<bool> done{false};  // set by the thread as its last step
};

static void* ThreadMain(void* p) {
  auto* t = static_cast<Thread*>(p);
  t->exitCode = t->fn(t->arg);
  t->done.store(true, std::memory_order_release);
  return nullptr;
}

int ThreadStart(int (*fn)(void*), void* arg, Thread** out) {
  *out = nullptr;
  auto* t = new Thread;
  t->fn = fn;
  t->arg = arg;
  int rc = pthread_create(&t->thread, nullptr, ThreadMain, t);
  if (rc != 0) {
    delete t;
    return rc;
  }
  *out = t;
  return 0;
}

int ThreadPoll(Thread* t, int* exitCode, int* error) {
  *error = 0;
  if (!t) {
    *error = EINVAL;
    return kWaitFailed;
  }
  if (!t->done.load(std::memory_order_acquire)) return kWaitTimeout;
  // The thread has nothing left to do but return: the join is immediate.
  int rc = pthread_join(t->thread, nullptr);
  if (rc != 0) {
    *error = rc;
    return kWaitFailed;
  }
  *exitCode = t->exitCode;
  return kWaitSignaled;
}

void ThreadClose(Thread* t) { delete t; }

int ThreadId() { return static_cast<int>(::syscall(SYS_gettid)); }

// ---- child processes -------------------------------------------------------

struct Process {
  pid_t pid = -1;
  bool group = false;
  bool collected = false;
  int exitState = 0;
  int outPipe = -1;  // read end of a kStdioPipe output
};

namespace {

int ExitStateOf(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

// Opens fd above the standard streams, so that a dup2 onto 0, 1 or 2 always
// makes a new descriptor (and clears close-on-exec on it).
int OpenHigh(const std::string& path, int flags, int* fd) {
  int raw;
  do {
    raw = ::open(path.c_str(), flags | O_CLOEXEC, 0666);
  } while (raw < 0 && errno == EINTR);
  if (raw < 0) return errno;
  if (raw > 2) {
    *fd = raw;
    return 0;
  }
  int high = ::fcntl(raw, F_DUPFD_CLOEXEC, 3);
  int e = errno;
  ::close(raw);
  if (high < 0) return e;
  *fd = high;
  return 0;
}

// The descriptors opened for one start; closed in the parent once the child has them.
struct StartFds {
  int fds[8];
  int n = 0;
  ~StartFds() {
    for (int i = 0; i < n; ++i) ::close(fds[i]);
  }
  void Keep(int fd) { fds[n++] = fd; }
};

// Prepares one stream (target 0, 1 or 2) of the child.
int PlanStream(const StdioSetup& setup, int target, posix_spawn_file_actions_t* actions, StartFds* fds,
               int* pipeRead, std::string* why) {
  static const char* const kNames[] = {"input", "output", "error"};
  int flags = 0;
  std::string path = OsPath(setup.path.c_str());
  switch (setup.mode) {
    case kStdioInherit:
      return 0;
    case kStdioToOut:
      return posix_spawn_file_actions_adddup2(actions, 1, target);
    case kStdioPipe: {
      int p[2];
      if (::pipe2(p, O_CLOEXEC) != 0) {
        int e = errno;
        *why = "create output pipe";
        return e;
      }
      fds->Keep(p[1]);
      *pipeRead = p[0];
      return posix_spawn_file_actions_adddup2(actions, p[1], target);
    }
    case kStdioNull:
      path = "/dev/null";
      flags = target == 0 ? O_RDONLY : O_WRONLY;
      break;
    case kStdioRead:
      flags = O_RDONLY;
      break;
    case kStdioTruncate:
      flags = O_WRONLY | O_CREAT | O_TRUNC;
      break;
    case kStdioAppend:
      flags = O_WRONLY | O_CREAT | O_APPEND;
      break;
  }
  int fd = -1;
  if (int e = OpenHigh(path, flags, &fd)) {
    *why = std::string("open ") + kNames[target] + " file " + path;
    return e;
  }
  fds->Keep(fd);
  return posix_spawn_file_actions_adddup2(actions, fd, target);
}

}  // namespace

std::vector<std::string> ShellArgv(const std::string& cmdLine) { return {"/bin/sh", "-c", cmdLine}; }

int ProcessStart(const ProcessSetup& setup, Process** out, std::string* why) {
  *out = nullptr;
  if (setup.argv.empty()) {
    *why = "start: no program named";
    return EINVAL;
  }
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attr;
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_init(&attr);
  StartFds fds;
  int pipeRead = -1;
  int rc = 0;
  const StdioSetup* streams[] = {&setup.in, &setup.out, &setup.err};
  for (int target = 0; target < 3 && rc == 0; ++target)
    rc = PlanStream(*streams[target], target, &actions, &fds, &pipeRead, why);

  if (rc == 0) {
    short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
    if (setup.newGroup) {
      flags |= POSIX_SPAWN_SETPGROUP;
      posix_spawnattr_setpgroup(&attr, 0);
    }
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &all);
    posix_spawnattr_setflags(&attr, flags);

    std::vector<char*> argv;
    for (const std::string& a : setup.argv) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    const std::string& program = setup.argv[0];
    rc = program.find('/') == std::string::npos
             ? posix_spawnp(&pid, program.c_str(), &actions, &attr, argv.data(), environ)
             : posix_spawn(&pid, program.c_str(), &actions, &attr, argv.data(), environ);
    if (rc == 0) {
      auto* p = new Process;
      p->pid = pid;
      p->group = setup.newGroup;
      p->outPipe = pipeRead;
      pipeRead = -1;
      *out = p;
    } else {
      *why = "start " + program;
    }
  } else if (why->empty()) {
    *why = "prepare the streams of " + setup.argv[0];
  }
  if (pipeRead >= 0) ::close(pipeRead);
  posix_spawnattr_destroy(&attr);
  posix_spawn_file_actions_destroy(&actions);
  return rc;
}

int64_t ProcessPid(const Process* p) { return p ? p->pid : -1; }

int ProcessWait(Process* p, uint32_t milliseconds, int* exitState) {
  if (!p) return kWaitFailed;
  if (p->collected) {
    *exitState = p->exitState;
    return kWaitSignaled;
  }
  uint64_t deadline = milliseconds == kWaitForever ? 0 : TicksMs() + milliseconds;
  uint32_t pause = 1;
  for (;;) {
    int status = 0;
    pid_t r = ::waitpid(p->pid, &status, milliseconds == kWaitForever ? 0 : WNOHANG);
    if (r == p->pid) {
      p->collected = true;
      p->exitState = ExitStateOf(status);
      *exitState = p->exitState;
      return kWaitSignaled;
    }
    if (r < 0 && errno != EINTR) return kWaitFailed;
    if (r == 0) {
      uint64_t now = TicksMs();
      if (now >= deadline) return kWaitTimeout;
      // Short pauses first, so that quick commands return quickly.
      SleepMs(static_cast<uint32_t>(std::min<uint64_t>(pause, deadline - now)));
      pause = std::min<uint32_t>(pause * 2, 20);
    }
  }
}

int ProcessEnd(Process* p, uint32_t graceMs, int* exitState) {
  if (!p) return EINVAL;
  pid_t target = p->group ? -p->pid : p->pid;
  if (!p->collected) ::kill(target, SIGTERM);
  int rc = ProcessWait(p, graceMs, exitState);
  // Whatever of the group is left (a child that ignores the request, or one
  // the process started in the background) is ended by force.
  if (p->group || rc != kWaitSignaled) ::kill(target, SIGKILL);
  if (rc != kWaitSignaled) rc = ProcessWait(p, kWaitForever, exitState);
  return rc == kWaitSignaled ? 0 : ECHILD;
}

int ProcessReadOutput(Process* p, void* buf, size_t n, uint32_t milliseconds, size_t* got) {
  *got = 0;
  if (!p || p->outPipe < 0) return EBADF;
  struct pollfd pfd{p->outPipe, POLLIN, 0};
  int timeout = milliseconds == kWaitForever ? -1 : static_cast<int>(std::min<uint32_t>(milliseconds, 1u << 30));
  int r;
  do {
    r = ::poll(&pfd, 1, timeout);
  } while (r < 0 && errno == EINTR);
  if (r < 0) return errno;
  if (r == 0) return kWaitTimeout;
  ssize_t n2;
  do {
    n2 = ::read(p->outPipe, buf, n);
  } while (n2 < 0 && errno == EINTR);
  if (n2 < 0) return errno;
  *got = static_cast<size_t>(n2);
  return 0;
}

void ProcessClose(Process* p) {
  if (!p) return;
  if (p->outPipe >= 0) ::close(p->outPipe);
  delete p;
}

// A process that has ended but is not collected yet shows state 'Z' in
// /proc (where there is one); it runs no more, so it counts as gone.
static bool IsZombie(int64_t pid) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%lld/stat", static_cast<long long>(pid));
  FILE* fp = std::fopen(path, "re");
  if (!fp) return false;
  char line[512];
  bool zombie = false;
  if (std::fgets(line, sizeof line, fp)) {
    // "pid (name) S ...": the name may hold blanks and parentheses, so the
    // state is the field after the last ')'.
    const char* close = std::strrchr(line, ')');
    zombie = close && close[1] == ' ' && close[2] == 'Z';
  }
  std::fclose(fp);
  return zombie;
}

bool ProcessExists(int64_t pid) {
  if (pid <= 0) return false;
  int status;
  pid_t r = ::waitpid(static_cast<pid_t>(pid), &status, WNOHANG);
  if (r == pid) return false;  // our child had finished: now collected
  if (::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) return false;
  // It exists (EPERM: it belongs to another user but exists).
  return !IsZombie(pid);
}

int ProcessSignalEnd(int64_t pid, bool force) {
  if (pid <= 0) return EINVAL;
  return ::kill(static_cast<pid_t>(pid), force ? SIGKILL : SIGTERM) == 0 ? 0 : errno;
}

}  // namespace pf
