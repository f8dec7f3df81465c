// stop_signal.h - SIGTERM and SIGINT handling of tqdedupd.
//
// The signals are blocked in every thread and taken by one waiting thread
// with sigwait(), so that stopping runs as ordinary code rather than in a
// signal handler.  Stopping must end the process within a second: if the
// main thread has not reported Finished() shortly after the stop action ran,
// the waiting thread ends the process itself with status 0.
#ifndef TQDEDUPD_STOP_SIGNAL_H
#define TQDEDUPD_STOP_SIGNAL_H

#include <pthread.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "tqdedupd/request_log.h"

namespace tqdedupd {

class StopSignal {
 public:
  // Blocks SIGTERM and SIGINT for the calling thread and all threads it
  // starts later, and ignores SIGPIPE.  Call first thing in main.
  static void BlockSignals();

  explicit StopSignal(RequestLog& log);
  ~StopSignal();  // wakes the waiting thread if no signal came, and joins it
  StopSignal(const StopSignal&) = delete;
  StopSignal& operator=(const StopSignal&) = delete;

  // Starts waiting; action runs on the waiting thread when a signal arrives
  // (a signal that came earlier is still pending and is taken then).
  void Start(std::function<void()> action);

  // A descriptor that becomes readable once a stop signal has arrived, for
  // code that waits with poll().
  int ReadyFd() const { return pipe_[0]; }

  // The main thread has shut down; no forced exit is needed.
  void Finished();

 private:
  void Run();

  RequestLog& log_;
  std::function<void()> action_;
  std::thread thread_;
  int pipe_[2] = {-1, -1};
  std::mutex mutex_;
  std::condition_variable done_;
  bool finished_ = false;
  bool quitting_ = false;  // set by the destructor to wake the thread without a signal
};

}  // namespace tqdedupd

#endif
