// faults.h - the fault switches of tqdedupd, used by reliability tests to
// make the server fail in controlled ways: one chosen recover or skip call
// fails, connections drop after a number of bytes, replies come late or
// longer than asked.
#ifndef TQDEDUPD_FAULTS_H
#define TQDEDUPD_FAULTS_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "tqdedupd/options.h"

namespace tqdedupd {

class Faults {
 public:
  explicit Faults(const Options& options);

  // Counts one recover (or skip) call, server-wide, and returns its 1-based
  // number when it is the one chosen to fail, else 0.
  uint64_t RecoverCallFails();
  uint64_t SkipCallFails();

  // True when a connection that has already sent `sent` bytes of recover
  // data is to be closed instead of answering the next recover.
  bool CloseConnection(uint64_t sent) const { return closeAfterSet_ && sent >= closeAfterBytes_; }

  // Bytes to add to what recover was asked for.
  uint32_t ExtraBytes() const { return extraBytes_; }

  // Waits the reply delay; returns early once Interrupt() was called so that
  // a stopping server does not wait for delayed replies.
  void Delay();
  void Interrupt();

 private:
  const uint64_t failRecover_;
  const uint64_t failSkip_;
  const bool closeAfterSet_;
  const uint64_t closeAfterBytes_;
  const uint32_t delayMs_;
  const uint32_t extraBytes_;

  std::atomic<uint64_t> recoverCalls_{0};
  std::atomic<uint64_t> skipCalls_{0};

  std::mutex mutex_;
  std::condition_variable wake_;
  bool interrupted_ = false;
};

}  // namespace tqdedupd

#endif
