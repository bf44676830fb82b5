// Waits for events: for those that come one soon after another awake, which saves the wake-up, for
// others asleep.
//
// A wait is awake for at most kAwake. kEnough waits in a row that ended within kSoon each begin a
// time of waiting awake; it ends once kTries waits more were awake in vain than not. Two that send
// each other events begin together: each finds the other quick only when that one waits awake, too.
// One late event does not end it: the processor may have been with somebody else. Nobody waits
// awake on the only processor.
//
// Threads    : one at a time.
#pragma once

#include <sched.h>

#include <algorithm>
#include <chrono>
#include <thread>

template <class Clock = std::chrono::steady_clock>
class AwakeWait {
 public:
  static constexpr std::chrono::microseconds kAwake{100};
  static constexpr std::chrono::microseconds kSoon{1000};
  static constexpr int kEnough = 32;
  static constexpr int kTries = 8;

  explicit AwakeWait(unsigned processors = usableProcessors()) : possible_(processors > 1) {}

  // `look` looks once for the event, without waiting, and says whether it is there; `sleep` waits
  // for it.
  template <class Look, class Sleep>
  void wait(Look look, Sleep sleep) {
    if (look()) {
      return;  // says nothing about the next one
    }
    const auto start = Clock::now();
    if (tries_ > 0) {
      if (lookUntil(look, start + kAwake)) {
        tries_ = std::min(tries_ + 1, kTries);
        return;
      }
      --tries_;
    }
    sleep();
    learn(Clock::now() - start <= kSoon);
  }

 private:
  // Those that this process may run on.
  static unsigned usableProcessors() {
    cpu_set_t usable;
    return sched_getaffinity(0, sizeof(usable), &usable) == 0
               ? static_cast<unsigned>(CPU_COUNT(&usable))
               : std::thread::hardware_concurrency();
  }
  template <class Look>
  static bool lookUntil(Look& look, typename Clock::time_point end) {
    do {
      sched_yield();  // to whoever else wants this processor
      if (look()) {
        return true;
      }
    } while (Clock::now() < end);
    return false;
  }

  // From a wait that was asleep.
  void learn(bool soon) {
    soon_ = soon && tries_ == 0 ? soon_ + 1 : 0;
    if (soon_ == kEnough) {
      soon_ = 0;
      tries_ = possible_ ? kTries : 0;
    }
  }

  const bool possible_;
  int soon_ = 0;   // waits in a row that ended soon, asleep
  int tries_ = 0;  // how many waits may be awake in vain now; 0: none is awake
};
