// What the stock modules answer when they are asked for their counters.
#pragma once

#include <cstdint>

#include "Bess/GenericCommand.h"
#include "Bess/Modules/PacketCounters.h"
#include "protocol/modules.pb.h"

// What a frame takes on the wire besides its bytes: preamble, frame check sequence, gap.
inline constexpr uint64_t kWireOverheadBytes = 24;

inline uint64_t wireBits(uint64_t packets, uint64_t bytes) {
  return (packets * kWireOverheadBytes + bytes) * 8;
}

inline CommandResponse moduleCounters(const PacketCounters& counters) {
  PacketCounters::Totals total = counters.total();
  bess::pb::ModuleCounters answer;
  answer.set_packets(total.packets);
  answer.set_bytes(total.bytes);
  answer.set_drops(total.drops);
  return CommandSuccess(answer);
}
