// Sink: counts and frees what it gets.
#pragma once

#include <string>

#include "Bess/Module.h"
#include "Bess/ModuleBuilder.h"
#include "Bess/Modules/PacketCounters.h"
#include "protocol/modules.pb.h"

class Sink final : public Module {
 public:
  Sink() { maxAllowedWorkers_ = MAX_WORKERS; }

  CommandResponse Init(const bess::pb::SinkArg& arg);
  void ProcessBatch(Context* ctx, bess::PacketBatch* batch) override;
  std::string GetDesc() const override;
  CommandResponse showCounters(const bess::pb::EmptyModuleArg& arg);

 private:
  PacketCounters counters_;
};
