// One schedulable activity of a module: batch storage and the run queue of the run in progress.
//
// Threads    | operation                        | control        | worker          |
//            | construct, attach, dtor          | workers paused |       -         |
//            | run, runPending, AllocPacketBatch|       -        | the attached one|
//            | runs, worker, ratePerSecond      | yes            |       -         |
// Ownership  : the module owns its tasks. A batch belongs to the task and lives until the run ends;
//              nobody frees it. Packets that wait in the run queue belong to the task.
// Cost       : AllocPacketBatch() is an index increment.
// Invariants :
//   (1) between two runs no batch is in use, no gate is pending and no emitted packet waits.
//   (2) a run ends: the graph has no circles (ModuleGraph refuses them).
#pragma once

#include <glog/logging.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "Bess/Context.h"
#include "Bess/Gate.h"
#include "Bess/Packet.h"
#include "Bess/Types.h"

class Module;

struct TaskResult {
  bool block = false;    // nothing was done: the scheduler may back off
  uint32_t packets = 0;  // handled in this run
  uint64_t bits = 0;     // of these packets, on the wire
};

class Task {
 public:
  static constexpr unsigned kMaxBatches = 1024;

  // A unit test builds one on its own thread: Task task(module, arg); Context ctx{&task, wid};
  Task(Module* module, void* arg, task_id_t id = 0);
  ~Task();
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;

  Module* module() const { return module_; }
  void* arg() const { return arg_; }
  task_id_t id() const { return id_; }

  // An empty batch that lives until the run ends. The 1025th of one run is fatal.
  bess::PacketBatch* AllocPacketBatch() {  // NOLINT(readability-identifier-naming)
    CHECK(pbatch_idx_ < 1024);
    bess::PacketBatch* batch = &pbatches_[pbatch_idx_++];
    batch->clear();
    return batch;
  }

  // One scheduled run: the module's RunTask, then runPending().
  // Requires: ctx->task is this task.
  TaskResult run(Context* ctx);

  // Hands every queued batch to its module until none is left, frees what was dropped and takes all
  // batches back.
  void runPending(Context* ctx);

  // The output gate's step for a batch of this run that is not empty: see Module::RunChooseModule.
  void enqueue(Context* ctx, InputGate* gate, bess::PacketBatch* batch);

  // Takes a packet that `from` sends to `ogate`; packets of one gate travel together. They leave
  // when the batch is full or the module's call returns.
  void emit(Context* ctx, Module* from, bess::Packet* pkt, gate_idx_t ogate);

  // Takes a packet that is to be freed when the run ends.
  void drop(bess::Packet* pkt) {
    if (deadBatch_.full()) {
      bess::Packet::Free(&deadBatch_);
    }
    deadBatch_.add(pkt);
  }

  // Scheduling. Written by control while the workers are paused.
  int worker() const { return worker_; }                     // -1: attached to none
  uint64_t ratePerSecond() const { return ratePerSecond_; }  // 0: no limit
  uint64_t runs() const { return runs_.load(std::memory_order_relaxed); }

 private:
  friend class Scheduler;

  struct Pending {
    InputGate* gate;
    bess::PacketBatch* batch;
  };

  bool takeNext(Context* ctx, Pending* next);
  void deliver(Context* ctx, const Pending& next);
  void flushEmitted(Context* ctx);
  void endRun();

  // Constant after construction.
  Module* const module_;
  void* const arg_;
  const task_id_t id_;
  const std::unique_ptr<bess::PacketBatch[]> pbatches_;

  // The worker's, within a run.
  unsigned pbatch_idx_ = 0;  // NOLINT(readability-identifier-naming): a fatal text names it
  Pending next_{nullptr, nullptr};
  std::vector<Pending> queue_;  // its front is the vector's end
  bess::PacketBatch deadBatch_;
  Module* emitter_ = nullptr;
  std::unique_ptr<bess::PacketBatch*[]> emitted_;  // by output gate; made on first use
  std::vector<gate_idx_t> emittedGates_;

  // The scheduler's: control writes while paused, the worker between runs.
  int worker_ = -1;
  uint64_t ratePerSecond_ = 0;
  uint64_t intervalNs_ = 0;
  uint64_t dueNs_ = 0;
  uint64_t backoffNs_ = 0;
  std::atomic<uint64_t> runs_{0};
};

inline void Task::enqueue(Context* ctx, InputGate* gate, bess::PacketBatch* batch) {
  if (next_.gate == nullptr) {
    next_ = {gate, batch};
    return;
  }
  const int wid = ctx->wid;
  CHECK(wid < MAX_WORKERS && wid >= 0);
  bess::PacketBatch*& pending = gate->pending(wid);
  if (pending != nullptr &&
      pending->cnt() + batch->cnt() <= static_cast<int>(bess::PacketBatch::kMaxBurst)) {
    pending->absorb(batch);
    return;
  }
  pending = batch;
  queue_.push_back({gate, batch});
}
