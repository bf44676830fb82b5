// PortInc: brings what a port receives into the graph, by gate 0.
//
// One task for each receive queue, so that several workers can share a port. A task reads at most
// one burst of 32 packets in a run, and says "blocked" when none was there.
#pragma once

#include <string>

#include "Bess/Module.h"
#include "Bess/ModuleBuilder.h"
#include "Bess/Modules/PacketCounters.h"
#include "Bess/Port.h"
#include "protocol/modules.pb.h"

class PortInc final : public Module {
 public:
  PortInc() {
    isTask_ = true;
    maxAllowedWorkers_ = MAX_WORKERS;
  }

  // Errors: ENOENT (no such port), EBUSY (another module reads it).
  CommandResponse Init(const bess::pb::PortIncArg& arg);
  void DeInit() override;
  TaskResult RunTask(Context* ctx, bess::PacketBatch* batch, void* arg) override;
  std::string GetDesc() const override;
  CommandResponse showCounters(const bess::pb::EmptyModuleArg& arg);

 private:
  bess::Port* port_ = nullptr;
  PacketCounters counters_;
};
