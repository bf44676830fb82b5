// The ends of a connection between two modules, and the hooks on them.
//
// Threads    : written by control while the workers are paused, read by workers. The pending slot
// of
//              a worker is that worker's alone.
// Ownership  : a module owns its gates; a gate exists while it is connected.
// Invariants :
//   (1) an output gate leads to exactly one input gate, which lists it among its feeders.
//   (2) a pending slot is null between two task runs.
#pragma once

#include <algorithm>
#include <array>
#include <memory>
#include <string_view>
#include <vector>

#include "Bess/GateHook.h"
#include "Bess/PacketBatch.h"
#include "Bess/Types.h"

class Module;

class Gate {
 public:
  Gate(Module* module, gate_idx_t index) : module_(module), index_(index) {}
  Gate(const Gate&) = delete;
  Gate& operator=(const Gate&) = delete;

  Module* module() const { return module_; }
  gate_idx_t index() const { return index_; }

  // Calls every hook that has a batch handler.
  void runHooks(const bess::PacketBatch* batch) const {
    for (GateHook* hook : active_) {
      hook->ProcessBatch(batch);
    }
  }

  // Requires: workers paused.
  void addHook(std::unique_ptr<GateHook> hook);
  std::unique_ptr<GateHook> removeHook(std::string_view name);

  GateHook* findHook(std::string_view name) const;  // null when there is none
  const std::vector<std::unique_ptr<GateHook>>& hooks() const { return hooks_; }

 protected:
  ~Gate() = default;

 private:
  Module* const module_;
  const gate_idx_t index_;
  std::vector<GateHook*> active_;  // those of hooks_ that have a batch handler, in order
  std::vector<std::unique_ptr<GateHook>> hooks_;
};

class OutputGate;

class InputGate final : public Gate {
 public:
  using Gate::Gate;

  // The batch that waits for this gate in the running task of worker `wid`.
  // Requires: wid < MAX_WORKERS && wid >= 0.
  bess::PacketBatch*& pending(int wid) { return pending_[wid].batch; }

  const std::vector<OutputGate*>& feeders() const { return feeders_; }

 private:
  friend class Module;
  void removeFeeder(const OutputGate* gate) {
    feeders_.erase(std::find(feeders_.begin(), feeders_.end(), gate));
  }

  struct alignas(64) Slot {
    bess::PacketBatch* batch = nullptr;
  };

  std::array<Slot, MAX_WORKERS> pending_;
  std::vector<OutputGate*> feeders_;
};

class OutputGate final : public Gate {
 public:
  OutputGate(Module* module, gate_idx_t index, InputGate* next)
      : Gate(module, index), next_(next) {}

  InputGate* next() const { return next_; }

 private:
  InputGate* const next_;
};
