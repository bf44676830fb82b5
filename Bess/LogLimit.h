// Keeps what strangers can cause from filling the log.
//
// Threads    : any.
// Invariants :
//   (1) at most kPerSecond lines are let through within a second of the clock.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>

namespace bess {

class LogLimit {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr unsigned kPerSecond = 10;

  // Returns: whether the line may be written; `dropped` is then how many were not since the last
  // one that was.
  bool admit(uint64_t* dropped, Clock::time_point now = Clock::now()) {
    const std::lock_guard lock(mutex_);
    if (now - windowStart_ >= std::chrono::seconds(1)) {
      windowStart_ = now;
      lines_ = 0;
    }
    if (lines_ == kPerSecond) {
      ++dropped_;
      return false;
    }
    ++lines_;
    *dropped = dropped_;
    dropped_ = 0;
    return true;
  }

 private:
  std::mutex mutex_;
  Clock::time_point windowStart_{};
  unsigned lines_ = 0;
  uint64_t dropped_ = 0;
};

}  // namespace bess
