// The base of every module: a node of the packet graph.
//
// Threads    | operation                          | control        | worker |
//            | factory, Init, commands, DeInit    | yes            |   -    |
//            | RegisterTask                       | yes            |   -    |
//            | RunTask, ProcessBatch              |       -        |  yes   |
//            | RunChooseModule, EmitPacket, Drop..|       -        |  yes   |
//            | OnEvent, AddActiveWorker, Check... | workers paused |   -    |
//            | GetDesc, counts                    | yes            |   -    |
//            | addState, states, their texts      | yes            |   -    |
// Life       : factory, Init, then commands, batches and task runs in any order, then DeInit, then
//              delete. DeInit and delete also follow an Init that failed. Class-specific operator
//              new and delete are honoured.
// Ownership  : the graph owns modules; a module owns its gates and tasks.
// Errors     : Init and commands may throw: the exception's text becomes the error of the answer.
//              RunTask and ProcessBatch must not.
// Invariants :
//   (1) ProcessBatch owns the packets of its batch: each one is passed on, freed or dropped.
//   (2) a batch that is passed on comes from the running task: it is the one the module was called
//       with, or of Task::AllocPacketBatch, and is not touched afterwards.
//   (3) a module that allows several workers is called by all of them at once.
//   (4) the virtual operations keep their order: plug-ins rely on the slots.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Bess/Context.h"
#include "Bess/Gate.h"
#include "Bess/Packet.h"
#include "Bess/State.h"
#include "Bess/Task.h"
#include "Bess/Types.h"

class ModuleBuilder;
class ModuleGraph;

enum class CheckConstraintResult {
  kOk = 0,
  kNonFatal = 1,  // logged; the graph change stands
  kFatal = 2,     // the graph change is refused
};

namespace bess {
enum class Event {
  kPreResume,  // the workers are about to go on after a pause
};
}  // namespace bess

class Module {
 public:
  Module();
  virtual ~Module();  // disconnects its gates
  // Gives back what Init and commands took. No packet and no task run reaches the module any more.
  virtual void DeInit();
  // One scheduled run. `batch` is empty, of the running task, and free to be filled and passed on;
  // `arg` is what the task was registered with. The default reports that there was nothing to do.
  virtual TaskResult RunTask(Context* ctx, bess::PacketBatch* batch, void* arg);
  // Packets that came in by ctx->currentIgate. The default drops them.
  virtual void ProcessBatch(Context* ctx, bess::PacketBatch* batch);
  // Returns: 0 or a negated errno value; -ENOTSUP keeps the event from being sent again.
  virtual int OnEvent(bess::Event event);
  // One line about this instance, for people.
  virtual std::string GetDesc() const;
  // Called for each attached task whose packets can reach the module. An override calls this one.
  virtual void AddActiveWorker(int wid, const Task* task);
  // The default refuses more active workers than maxAllowedWorkers().
  virtual CheckConstraintResult CheckModuleConstraints() const;

  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;

  const std::string& name() const { return name_; }
  const ModuleBuilder* moduleBuilder() const { return builder_; }  // null outside the graph

  // Returns: the new task's id, kInvalidTaskId when the module has kMaxTasksPerModule already.
  // `arg` outlives the module. The task runs once it is attached to a worker.
  task_id_t RegisterTask(void* arg);

  // Hands the batch to whatever `ogate` leads to:
  //   - an empty batch is skipped.
  //   - a gate that does not exist or leads nowhere: the packets are freed and counted as dead ends
  //     of this module and silent drops of the context, and the batch is emptied.
  //   - otherwise the gate's hooks see the batch and the running task takes it: it is the task's
  //     next batch, or joins one that waits for the same input gate when both fit 32 packets, or
  //     goes to the front of the run queue.
  void RunChooseModule(Context* ctx, gate_idx_t ogate, bess::PacketBatch* batch);
  void RunNextModule(Context* ctx, bess::PacketBatch* batch) { RunChooseModule(ctx, 0, batch); }

  // The same packet by packet: the framework collects a batch for each gate.
  void EmitPacket(Context* ctx, bess::Packet* pkt, gate_idx_t ogate = 0) {
    ctx->task->emit(ctx, this, pkt, ogate);
  }
  // Counted as this module's drop now, freed when the task run ends.
  void DropPacket(Context* ctx, bess::Packet* pkt) {
    count(ctx->wid, &WorkerCounts::drops, 1);
    ctx->task->drop(pkt);
  }

  // Packets that left through a gate that leads nowhere, and packets given to DropPacket.
  uint64_t deadEnds(int wid) const { return read(wid, &WorkerCounts::deadEnds); }
  uint64_t drops(int wid) const { return read(wid, &WorkerCounts::drops); }
  uint64_t deadEnds() const;  // over all workers
  uint64_t drops() const;

  bool isTask() const { return isTask_; }
  int maxAllowedWorkers() const { return maxAllowedWorkers_; }
  int activeWorkers() const;

  // What the instance shows of its inside, in the order in which it was added.
  const std::vector<bess::State>& states() const { return states_; }

  // The graph's shape. The vectors have null at gates that are not connected.
  const std::vector<std::unique_ptr<InputGate>>& igates() const { return igates_; }
  const std::vector<std::unique_ptr<OutputGate>>& ogates() const { return ogates_; }
  const std::vector<std::unique_ptr<Task>>& tasks() const { return tasks_; }
  InputGate* igate(gate_idx_t index) const;   // null when it is not connected
  OutputGate* ogate(gate_idx_t index) const;  // null when it is not connected

  // Requires: workers paused, or neither module reachable by one; indexes below kMaxGates; `ogate`
  // not connected / connected. Disconnecting removes the hooks of the output gate, and those of the
  // input gate when it was the last one that led there.
  void connectGate(gate_idx_t ogate, Module* next, gate_idx_t igate);
  void disconnectGate(gate_idx_t ogate);

 protected:
  // Set by the factory.
  bool isTask_ = false;        // has tasks of its own; set by RegisterTask too
  int maxAllowedWorkers_ = 1;  // how many workers may be in this instance at once

  // Called from the constructor or Init. `text` builds the state (State.h) while the instance
  // lives and workers forward.
  // Errors: std::system_error EEXIST for a name that the instance has already.
  void addState(std::string name,
                std::string help,
                std::function<std::string(const std::string& arg)> text);

 private:
  friend class ModuleGraph;

  struct alignas(64) WorkerCounts {
    std::atomic<uint64_t> deadEnds{0};
    std::atomic<uint64_t> drops{0};
  };
  using Count = std::atomic<uint64_t> WorkerCounts::*;

  // Each worker writes its own row only. A context without a worker id counts nowhere.
  void count(int wid, Count which, uint64_t n) {
    if (wid >= 0 && wid < MAX_WORKERS) {
      std::atomic<uint64_t>& cell = counts_[wid].*which;
      cell.store(cell.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
    }
  }
  uint64_t read(int wid, Count which) const {
    return wid >= 0 && wid < MAX_WORKERS ? (counts_[wid].*which).load(std::memory_order_relaxed)
                                         : 0;
  }
  void deadEnd(Context* ctx, bess::PacketBatch* batch);
  void dropGate(gate_idx_t ogate);

  // Control writes while paused, workers read.
  std::vector<std::unique_ptr<OutputGate>> ogates_;
  std::vector<std::unique_ptr<InputGate>> igates_;

  // Per worker.
  std::array<WorkerCounts, MAX_WORKERS> counts_;

  // Control's alone.
  std::string name_;
  const ModuleBuilder* builder_ = nullptr;
  std::vector<std::unique_ptr<Task>> tasks_;
  std::array<bool, MAX_WORKERS> active_{};
  bool wantsEvents_ = true;
  std::vector<bess::State> states_;
};

inline void Module::RunChooseModule(Context* ctx, gate_idx_t ogate, bess::PacketBatch* batch) {
  if (batch->empty()) {
    return;
  }
  if (ogate >= ogates_.size() || ogates_[ogate] == nullptr) [[unlikely]] {
    deadEnd(ctx, batch);
    return;
  }
  const OutputGate& gate = *ogates_[ogate];
  gate.runHooks(batch);
  ctx->task->enqueue(ctx, gate.next(), batch);
}

inline void Task::emit(Context* ctx, Module* from, bess::Packet* pkt, gate_idx_t ogate) {
  if (emitted_ == nullptr) [[unlikely]] {
    emitted_ = std::make_unique<bess::PacketBatch*[]>(kMaxGates + 1);
  }
  emitter_ = from;
  const gate_idx_t slot = ogate < kMaxGates ? ogate : DROP_GATE;
  bess::PacketBatch*& batch = emitted_[slot];
  if (batch == nullptr) {
    batch = AllocPacketBatch();
    emittedGates_.push_back(slot);
  } else if (batch->full()) {
    from->RunChooseModule(ctx, slot, batch);
    batch = AllocPacketBatch();
  }
  batch->add(pkt);
}
