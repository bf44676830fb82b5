// Tells whether the workers make progress.
//
// A worker is stuck when it has tasks and is not paused, and yet its count of scheduler rounds has
// stood still for longer than the patience. An idle worker sleeps between its rounds for far less.
//
// Threads    : one at a time.
// Invariants :
//   (1) a worker that was just seen for the first time, paused or without tasks gets the whole
//   patience.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Bess/Worker.h"

namespace Bessd {

class Watchdog {
 public:
  using Clock = std::function<std::chrono::steady_clock::time_point()>;

  explicit Watchdog(std::chrono::nanoseconds patience,
                    Clock clock = std::chrono::steady_clock::now);

  // Returns: what is stuck, for people; empty when nothing is.
  std::string check(const std::vector<WorkerStatus>& workers);

 private:
  struct Progress {
    uint64_t rounds = 0;
    std::chrono::steady_clock::time_point since;
  };

  const std::chrono::nanoseconds patience_;
  const Clock clock_;
  std::map<int, Progress> seen_;  // by worker id
};

}  // namespace Bessd
