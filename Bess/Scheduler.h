// The tasks of one worker and when each of them runs next.
//
// Threads    : attach and detach by control while the worker is paused; runRound by the worker.
// Ownership  : refers to tasks; a task is detached before it goes.
// Units      : time is passed in, nanoseconds of one monotonic clock; rates are runs per second.
// Cost       : runRound is O(tasks), without a look at a clock.
// Invariants :
//   (1) a task runs at most once per round, and a limited one at most rate x seconds times, give or
//       take what kBacklogNs allows it to catch up.
//   (2) a task that reported a block waits 1, 2, 4, ... microseconds, kMaxBackoffNs at most, unless
//       the scheduler spins.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Bess/Context.h"
#include "Bess/Task.h"

class Scheduler {
 public:
  static constexpr uint64_t kMaxBackoffNs = 100'000;
  static constexpr uint64_t kBacklogNs = 1'000'000;
  static constexpr uint64_t kNever = UINT64_MAX;

  struct Round {
    bool worked = false;   // some task ran and was not blocked
    uint64_t packets = 0;  // what the tasks report
    uint64_t bits = 0;
    uint64_t dueNs = kNever;    // when the next task may run
    uint64_t limitNs = kNever;  // the same of those alone that have a rate
  };

  explicit Scheduler(int wid, bool spin = false);
  ~Scheduler();  // detaches what is attached
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;

  // Requires: the task is attached to no scheduler / to this one. Rate 0: no limit.
  void attach(Task* task, uint64_t ratePerSecond);
  void detach(Task* task);

  Round runRound(uint64_t nowNs);

  const Context& context() const { return ctx_; }
  const std::vector<Task*>& tasks() const { return tasks_; }

 private:
  void runTask(Task* task, uint64_t nowNs, Round* round);

  const bool spin_;
  Context ctx_;
  std::vector<Task*> tasks_;
};
