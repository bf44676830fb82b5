// Source: sends one packet again and again by gate 0, at full speed or at a rate, for ever or a
// number of times.
//
// One task. A run makes at most one burst of 32 packets, fresh ones with a copy of the template.
#pragma once

#include <string>

#include "Bess/Module.h"
#include "Bess/ModuleBuilder.h"
#include "Bess/Modules/PacketCounters.h"
#include "protocol/modules.pb.h"

class Source final : public Module {
 public:
  // How long a source that was late may catch up.
  static constexpr double kBacklogSeconds = 0.001;

  Source() { isTask_ = true; }

  CommandResponse Init(const bess::pb::SourceArg& arg);
  TaskResult RunTask(Context* ctx, bess::PacketBatch* batch, void* arg) override;
  std::string GetDesc() const override;
  // Begins anew with another template, rate and count. Not thread-safe: the workers are paused.
  CommandResponse setSource(const bess::pb::SourceArg& arg);
  CommandResponse showCounters(const bess::pb::EmptyModuleArg& arg);

 private:
  size_t allowance(uint64_t nowNs);

  // Written by control while the workers are paused.
  std::string packet_;
  uint64_t rate_ = 0;
  bool endless_ = true;

  // The worker's.
  uint64_t left_ = 0;    // of a source that ends
  double credit_ = 1.0;  // packets that the rate allows by now
  uint64_t lastNs_ = 0;  // 0: not run yet

  PacketCounters counters_;
};
