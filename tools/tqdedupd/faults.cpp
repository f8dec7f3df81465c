// faults.cpp - the fault switches of tqdedupd.
#include "tqdedupd/faults.h"

#include <chrono>

namespace tqdedupd {

Faults::Faults(const Options& options)
    : failRecover_(options.failRecover),
      failSkip_(options.failSkip),
      closeAfterSet_(options.closeAfterSet),
      closeAfterBytes_(options.closeAfterBytes),
      delayMs_(options.delayMs),
      extraBytes_(options.extraBytes) {}

uint64_t Faults::RecoverCallFails() {
  uint64_t n = ++recoverCalls_;
  return failRecover_ != 0 && n == failRecover_ ? n : 0;
}

uint64_t Faults::SkipCallFails() {
  uint64_t n = ++skipCalls_;
  return failSkip_ != 0 && n == failSkip_ ? n : 0;
}

void Faults::Delay() {
  if (delayMs_ == 0) return;
  std::unique_lock<std::mutex> lock(mutex_);
  wake_.wait_for(lock, std::chrono::milliseconds(delayMs_), [this] { return interrupted_; });
}

void Faults::Interrupt() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    interrupted_ = true;
  }
  wake_.notify_all();
}

}  // namespace tqdedupd
