// The hook "track": counts the packets, bytes and batches that pass a gate.
//
// Threads    : as GateHook says.
// Cost       : one pass over the packets' lengths.
#pragma once

#include "Bess/GateHook.h"
#include "Bess/Modules/PacketCounters.h"

class Track final : public GateHook {
 public:
  Track() : GateHook("track") {}
  void ProcessBatch(const bess::PacketBatch* batch) override;
  GateHookStats stats() const override;

 private:
  PacketCounters counters_;
};
