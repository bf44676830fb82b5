#include "Bess/hooks/Track.h"

#include "Bess/Packet.h"
#include "Bess/Worker.h"

void Track::ProcessBatch(const bess::PacketBatch* batch) {
  PacketCounters::Totals n{.packets = static_cast<uint64_t>(batch->cnt()), .batches = 1};
  for (const bess::Packet* pkt : *batch) {
    n.bytes += pkt->totalLen();
  }
  counters_.add(current_worker.wid(), n);
}

GateHookStats Track::stats() const {
  PacketCounters::Totals total = counters_.total();
  return {.packets = total.packets, .bytes = total.bytes, .batches = total.batches};
}

[[maybe_unused]] static const bool kRegistered =
    GateHookRegistry::registerHook("track",
                                   [](const std::string&) { return std::make_unique<Track>(); });
