// dedup_server.cpp - a tqdedupd child process for tests.
#include "support/dedup_server.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <thread>

namespace tvutest {

namespace {

using Clock = std::chrono::steady_clock;

int MsSince(Clock::time_point start) {
  return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

}  // namespace

DedupServer::DedupServer() = default;

DedupServer::~DedupServer() { kill(); }

bool DedupServer::running() {
  if (pid_ <= 0) return false;
  int w = waitpid(pid_, &status_, WNOHANG);
  if (w == 0) return true;
  reaped_ = w == pid_;
  pid_ = -1;
  return false;
}

void DedupServer::start(const Options& options) {
  if (running()) throw std::runtime_error("tqdedupd is already running");
  work_ = std::make_unique<TempDir>();
  std::string portFile = *work_ / "port";
  std::string errPath = *work_ / "stderr";
  std::vector<std::string> argv = {BuiltProgram("tqdedupd"), "--dir", options.dir, "--host", "127.0.0.1",
                                   "--port", "0", "--port-file", portFile};
  argv.insert(argv.end(), options.args.begin(), options.args.end());

  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    int in = open("/dev/null", O_RDONLY);
    int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(in, 0);
    dup2(err, 1);
    dup2(err, 2);
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  pid_ = pid;
  port_ = 0;
  reaped_ = false;

  // The server renames the port file into place, so it is whole once seen.
  auto started = Clock::now();
  while (MsSince(started) < options.startTimeoutMs) {
    if (FileExists(portFile)) {
      port_ = atoi(ReadFile(portFile).c_str());
      if (port_ > 0) return;
    }
    if (!running()) {
      throw std::runtime_error("tqdedupd ended before listening (status " + std::to_string(status_) +
                               "): " + ReadFile(errPath));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  std::string out = ReadFile(errPath);
  kill();
  throw std::runtime_error("tqdedupd did not listen within " + std::to_string(options.startTimeoutMs) +
                           " ms: " + out);
}

ProcessResult DedupServer::stop(int signal, int timeoutMs, int* stopMs) {
  ProcessResult r;
  if (pid_ > 0) {
    auto started = Clock::now();
    ::kill(pid_, signal);
    while (running() && MsSince(started) < timeoutMs) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    if (stopMs) *stopMs = MsSince(started);
    if (pid_ > 0) {
      r.timedOut = true;
      kill();
    }
  }
  if (reaped_ && !r.timedOut && WIFEXITED(status_)) r.exitCode = WEXITSTATUS(status_);
  if (reaped_ && WIFSIGNALED(status_)) r.signal = WTERMSIG(status_);
  r.err = log();
  return r;
}

void DedupServer::kill() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  reaped_ = waitpid(pid_, &status_, 0) == pid_;
  pid_ = -1;
}

std::string DedupServer::log() const { return work_ ? ReadFile(*work_ / "stderr") : std::string(); }

}  // namespace tvutest
