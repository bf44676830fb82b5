// PortOut: sends what it gets through a port.
//
// Several workers send without a lock: each has a transmit queue of its own, which it keeps until
// the workers are paused the next time. So a port must be opened with one transmit queue for each
// worker that reaches its PortOut modules; a change of the graph or of the tasks that lets more
// workers in is refused. What the device does not take is freed and counted, here and in the port's
// statistics.
#pragma once

#include <bitset>
#include <string>

#include "Bess/Module.h"
#include "Bess/ModuleBuilder.h"
#include "Bess/Modules/PacketCounters.h"
#include "Bess/Port.h"
#include "protocol/modules.pb.h"

class PortOut final : public Module {
 public:
  PortOut() { maxAllowedWorkers_ = MAX_WORKERS; }

  // Errors: ENOENT (no such port).
  CommandResponse Init(const bess::pb::PortOutArg& arg);
  void DeInit() override;
  void ProcessBatch(Context* ctx, bess::PacketBatch* batch) override;
  int OnEvent(bess::Event event) override;
  std::string GetDesc() const override;
  void AddActiveWorker(int wid, const Task* task) override;
  CheckConstraintResult CheckModuleConstraints() const override;
  CommandResponse showCounters(const bess::pb::EmptyModuleArg& arg);

 private:
  using Workers = std::bitset<MAX_WORKERS>;

  bess::Port* port_ = nullptr;
  Workers workers_;  // valid while activeWorkers() is not 0
  PacketCounters counters_;
};
