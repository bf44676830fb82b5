// The threads that forward packets.
//
// Threads    | operation                              | control | worker | other   |
//            | launch, destroy, attach, detach        |   yes   |   -    |   -     |
//            | pause, resume                          |   yes   |   -    |   -     |
//            | workerStatus, isWorkerRunning          |   yes   |   -    |   -     |
//            | current_worker                         |   yes   |  yes   |  yes    |
// Errors     : launch and destroy throw std::system_error (EINVAL, EEXIST, ENOENT, EBUSY, EAGAIN)
// and
//              leave everything as it was.
// RCU        : a worker is a registered QSBR reader: one quiescent state per scheduler round,
// offline
//              while it is paused or asleep. pauseWorkers() waits with the caller as it is.
// Invariants :
//   (1) after pauseWorkers() returned and until the matching resumeWorkers(), no worker runs a
//   task. (2) pauses nest: the workers go on after as many resumes as pauses. A worker that is
//   launched
//       meanwhile begins paused.
//   (3) what control writes while the workers are paused is seen by them afterwards, and the other
//       way round.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "Bess/PacketPool.h"
#include "Bess/Types.h"

class Task;

// What a thread knows of the worker it is. wid() is -1 on a thread that is none.
class Worker {
 public:
  constexpr Worker() = default;

  int wid() const { return wid_; }
  int core() const { return core_; }  // -1: floats over the cores that the process may use
  // The pool of the worker's NUMA node; elsewhere the default pool. Null before there is any.
  bess::PacketPool* packetPool() const {
    return pool_ != nullptr ? pool_ : bess::PacketPool::defaultPool();
  }

 private:
  friend class ScopedWorkerIdentity;
  int wid_ = -1;
  int core_ = -1;
  bess::PacketPool* pool_ = nullptr;
};

extern constinit thread_local Worker current_worker;  // NOLINT(readability-identifier-naming)

// Makes the calling thread act as worker `wid` while it lives: worker threads, and tests that run a
// module on their own thread.
class ScopedWorkerIdentity {
 public:
  explicit ScopedWorkerIdentity(int wid, int core = -1, bess::PacketPool* pool = nullptr);
  ~ScopedWorkerIdentity();
  ScopedWorkerIdentity(const ScopedWorkerIdentity&) = delete;
  ScopedWorkerIdentity& operator=(const ScopedWorkerIdentity&) = delete;

 private:
  const Worker saved_;
};

struct WorkerOptions {
  int core = -1;      // pin to this core; -1: float
  bool spin = false;  // never sleep, never back off
};

// Starts worker `wid` and returns once it is in its loop.
void launchWorker(int wid, const WorkerOptions& options = {});
inline void launchWorker(int wid, int core) {
  launchWorker(wid, WorkerOptions{.core = core, .spin = false});
}
// Stops worker `wid`. Refused (EBUSY) while a task is attached to it.
void destroyWorker(int wid);
// Stops every worker; their tasks become unattached.
void destroyAllWorkers();

void pauseWorkers();
void resumeWorkers();
bool workersPaused();

class ScopedWorkerPause {
 public:
  ScopedWorkerPause() { pauseWorkers(); }
  ~ScopedWorkerPause() { resumeWorkers(); }
  ScopedWorkerPause(const ScopedWorkerPause&) = delete;
  ScopedWorkerPause& operator=(const ScopedWorkerPause&) = delete;
};

bool isWorkerRunning(int wid);  // launched and not destroyed

// Requires: workers paused. Rate 0: no limit. Errors: ENOENT when there is no such worker.
void attachTask(Task* task, int wid, uint64_t ratePerSecond);
void detachTask(Task* task);  // nothing happens when it is not attached

// Totals since the launch. Written by the worker after each round, relaxed.
struct WorkerStats {
  uint64_t rounds = 0;
  uint64_t idleRounds = 0;  // rounds in which no task had anything to do
  uint64_t busyNs = 0;      // time spent in rounds that did something
  uint64_t idleNs = 0;      // time spent in the others, asleep, and paused
  uint64_t batches = 0;     // batches handed to modules
  uint64_t packets = 0;     // what task runs reported
  uint64_t bits = 0;
  uint64_t silentDrops = 0;
};

struct WorkerStatus {
  int wid = -1;
  int core = -1;
  bool running = false;  // false: paused
  size_t tasks = 0;
  WorkerStats stats;
};
std::vector<WorkerStatus> workerStatus();  // by worker id

// Called on the control thread: up right before a worker's thread starts, down after it has ended
// (also when its start failed).
using WorkerObserver = std::function<void(int wid, bool up)>;
void addWorkerObserver(WorkerObserver observer);
