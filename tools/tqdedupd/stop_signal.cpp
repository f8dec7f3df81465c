// stop_signal.cpp - SIGTERM and SIGINT taken by a waiting thread.
#include "tqdedupd/stop_signal.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>

namespace tqdedupd {

namespace {

// Time the main thread gets to finish after the stop action before the
// process is ended by force; keeps the whole stop under one second.
constexpr int kGraceMs = 800;

sigset_t StopSet() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  return set;
}

}  // namespace

void StopSignal::BlockSignals() {
  sigset_t set = StopSet();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  // A client that goes away while a reply is written must not kill the server.
  signal(SIGPIPE, SIG_IGN);
}

StopSignal::StopSignal(RequestLog& log) : log_(log) {
  if (pipe(pipe_) != 0) {
    pipe_[0] = pipe_[1] = -1;
  } else {
    fcntl(pipe_[0], F_SETFD, FD_CLOEXEC);
    fcntl(pipe_[1], F_SETFD, FD_CLOEXEC);
  }
}

StopSignal::~StopSignal() {
  if (thread_.joinable()) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      quitting_ = true;
      finished_ = true;
    }
    done_.notify_all();
    // SIGTERM is blocked in that thread, so this only ends its sigwait().
    pthread_kill(thread_.native_handle(), SIGTERM);
    thread_.join();
  }
  for (int fd : pipe_)
    if (fd >= 0) close(fd);
}

void StopSignal::Start(std::function<void()> action) {
  action_ = std::move(action);
  thread_ = std::thread([this] { Run(); });
}

void StopSignal::Finished() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    finished_ = true;
  }
  done_.notify_all();
}

void StopSignal::Run() {
  sigset_t set = StopSet();
  int sig = 0;
  while (sigwait(&set, &sig) != 0) {
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (quitting_) return;
  }
  log_.Printf("stopping on signal %d (%s)", sig, sig == SIGTERM ? "SIGTERM" : "SIGINT");
  if (pipe_[1] >= 0) {
    char c = 1;
    ssize_t w = write(pipe_[1], &c, 1);
    (void)w;
  }
  if (action_) action_();
  std::unique_lock<std::mutex> lock(mutex_);
  if (!done_.wait_for(lock, std::chrono::milliseconds(kGraceMs), [this] { return finished_; })) {
    log_.Line("open connections did not end in time; exiting anyway");
    _exit(0);
  }
}

}  // namespace tqdedupd
