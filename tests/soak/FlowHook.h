// What left the module, by flow and outgoing interface: a gate hook that counts into one table.
//
// Threads    : each worker into its own row; the sums by control.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Bess/GateHook.h"
#include "Bess/Types.h"
#include "tests/soak/Flows.h"

namespace soak {

class FlowCounts {
 public:
  struct Totals {
    uint64_t packets = 0;
    uint64_t bytes = 0;
  };

  explicit FlowCounts(size_t flows);

  void count(int wid, const bess::Packet* packet);

  uint64_t packets(uint32_t flow, const std::string& intf) const;
  Totals onIntf(const std::string& intf) const;

 private:
  struct Cell {
    std::atomic<uint64_t> packets{0};
    std::atomic<uint64_t> bytes{0};
  };
  static size_t place(const std::string& intf);
  const Cell& cell(int wid, size_t flow, size_t oif) const {
    return rows_[static_cast<size_t>(wid)][flow * kOifs.size() + oif];
  }

  static constexpr int kRows = 2;  // workers of a test
  const size_t flows_;
  std::array<uint64_t, 4> oifIds_{};
  std::array<std::vector<Cell>, kRows> rows_;
};

class FlowHook final : public GateHook {
 public:
  static constexpr const char* kName = "soakflows";

  // Makes the hook attachable; all its instances count into `counts` until the next call.
  static void countsIs(FlowCounts* counts);

  explicit FlowHook(FlowCounts& counts) : GateHook(kName), counts_(counts) {}
  void ProcessBatch(const bess::PacketBatch* batch) override;

 private:
  FlowCounts& counts_;
};

}  // namespace soak
