// The clock of the ring trace: cheap ticks, and what time they were.
//
// Ticks are the time stamp counter where it runs at one rate on all processors, else the monotonic
// clock.
#pragma once

#include <cstdint>
#include <ctime>

#if defined(__x86_64__)
#include <x86intrin.h>
#endif

namespace Flit {

// One moment on all clocks.
struct Moment {
  uint64_t ticks;
  uint64_t monotonicNs;
  uint64_t unixNs;
};

extern const bool ticksAreTsc;

inline uint64_t clockNs(clockid_t clock) noexcept {
  timespec t{};
  clock_gettime(clock, &t);
  return static_cast<uint64_t>(t.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(t.tv_nsec);
}

inline uint64_t ticks() noexcept {
#if defined(__x86_64__)
  if (ticksAreTsc) [[likely]] {
    return __rdtsc();
  }
#endif
  return clockNs(CLOCK_MONOTONIC);
}

Moment momentNow() noexcept;

// The moment at which the library was loaded.
const Moment& firstMoment() noexcept;

// Converts ticks between two moments; the wall clock is the later one's.
class TickScale {
 public:
  TickScale(const Moment& from, const Moment& to);

  // Returns: nanoseconds since 1970, UTC.
  uint64_t unixNs(uint64_t ticks) const;

 private:
  Moment to_;
  double nsPerTick_;
};

}  // namespace Flit
