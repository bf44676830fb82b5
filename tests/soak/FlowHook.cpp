#include "tests/soak/FlowHook.h"

#include <algorithm>
#include <iterator>

#include "Bess/Worker.h"
#include "Nynet/IntfId.h"
#include "SfeModules/ForwardingMetadata.h"

namespace soak {

namespace {

FlowCounts* currentCounts = nullptr;

void bump(std::atomic<uint64_t>& counter, uint64_t n) {
  counter.store(counter.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
}

}  // namespace

FlowCounts::FlowCounts(size_t flows) : flows_(flows) {
  for (size_t i = 0; i < kOifs.size(); ++i) {
    oifIds_.at(i) = Nynet::IntfId::fromName(kOifs[i].intf).value();
  }
  for (std::vector<Cell>& row : rows_) {
    row = std::vector<Cell>(flows * kOifs.size());
  }
}

void FlowCounts::count(int wid, const bess::Packet* packet) {
  const auto& meta = *packet->metadata<const SfeModules::ForwardingMetadata*>();
  const auto found = std::find(oifIds_.begin(), oifIds_.end(), meta.outIntfOrZero());
  const uint32_t flow = flowOf(packet);
  // A packet of no known flow or interface shows as a difference of the sums.
  if (found == oifIds_.end() || flow >= flows_) {
    return;
  }
  const auto oif = static_cast<size_t>(std::distance(oifIds_.begin(), found));
  Cell& cell = rows_.at(static_cast<size_t>(wid))[flow * kOifs.size() + oif];
  bump(cell.packets, 1);
  bump(cell.bytes, packet->totalLen());
}

size_t FlowCounts::place(const std::string& intf) {
  const auto found = std::find_if(kOifs.begin(), kOifs.end(),
                                  [&intf](const Oif& oif) { return oif.intf == intf; });
  return static_cast<size_t>(std::distance(kOifs.begin(), found));
}

uint64_t FlowCounts::packets(uint32_t flow, const std::string& intf) const {
  uint64_t sum = 0;
  for (int wid = 0; wid < kRows; ++wid) {
    sum += cell(wid, flow, place(intf)).packets.load(std::memory_order_relaxed);
  }
  return sum;
}

FlowCounts::Totals FlowCounts::onIntf(const std::string& intf) const {
  Totals sum;
  for (int wid = 0; wid < kRows; ++wid) {
    for (size_t flow = 0; flow < flows_; ++flow) {
      const Cell& counted = cell(wid, flow, place(intf));
      sum.packets += counted.packets.load(std::memory_order_relaxed);
      sum.bytes += counted.bytes.load(std::memory_order_relaxed);
    }
  }
  return sum;
}

void FlowHook::countsIs(FlowCounts* counts) {
  currentCounts = counts;
  static const bool kRegistered = GateHookRegistry::registerHook(
      kName, [](const std::string&) { return std::make_unique<FlowHook>(*currentCounts); });
  static_cast<void>(kRegistered);
}

void FlowHook::ProcessBatch(const bess::PacketBatch* batch) {
  for (const bess::Packet* packet : *batch) {
    counts_.count(current_worker.wid(), packet);
  }
}

}  // namespace soak
