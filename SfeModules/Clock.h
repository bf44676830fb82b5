// The module's clock: the system's, or one that a test holds still.
//
// Every reading that the forwarding rules ask for goes through now(); times that a caller was given
// travel as arguments. Threads: any. Cost: one relaxed load and the clock's own reading.
#pragma once

#include <atomic>
#include <chrono>

namespace SfeModules {

using TimePoint = std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds>;

class Clock {
 public:
  using Source = TimePoint (*)();

  static TimePoint now() { return source_.load(std::memory_order_relaxed)(); }

  // Replaces the source and returns the one in force before it.
  static Source sourceIs(Source source) {
    return source_.exchange(source, std::memory_order_relaxed);
  }

  static TimePoint systemNow() {
    return std::chrono::time_point_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now());
  }

 private:
  inline static std::atomic<Source> source_{&Clock::systemNow};
};

}  // namespace SfeModules
