// The interfaces that an edge module knows: a port, or one VLAN of it, under an interface name.
//
// Threads    | operation      | control             | worker |
//            | add, remove    | yes, workers paused |   -    |
//            | at, withId     |   yes               |  yes   |
// Errors     : add() and remove() return a refusal that says what is wrong and what would be right.
// Cost       : at() two array accesses; withId() one hash look-up. Neither allocates.
// Invariants :
//   (1) no two interfaces have one name, and none two have one (port, VLAN).
//   (2) an interface named after a VLAN has that VLAN; any other interface is untagged.
#pragma once

#include <rte_config.h>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "Bess/GenericCommand.h"
#include "Nynet/IntfId.h"
#include "protocol/sfe.pb.h"

namespace SfeModules {

struct Intf {
  Nynet::IntfId id;
  uint16_t port = 0;
  uint16_t vlan = 0;      // 0: untagged
  uint16_t gateBase = 0;  // of the gates by which its packets leave
  std::array<uint8_t, 6> mac{};
};

class IntfTable {
 public:
  static constexpr uint16_t kVlans = 4096;
  // Room for three gates each of more than a thousand VRFs.
  static constexpr uint16_t kMaxGateBase = 4092;

  CommandResponse add(const sfe::pb::IntfArg& arg);
  CommandResponse remove(const sfe::pb::IntfNameArg& arg);
  void show(sfe::pb::IntfTable* out) const;  // in the order of (port, VLAN)
  size_t size() const { return byId_.size(); }

  // The interface of a port's VLAN (below 4096), null when there is none.
  const Intf* at(uint16_t port, uint16_t vlan) const {
    if (port >= ports_.size() || ports_[port] == nullptr) {
      return nullptr;
    }
    return (*ports_[port])[vlan];
  }
  const Intf* withId(uint64_t id) const {
    auto intf = byId_.find(id);
    return intf == byId_.end() ? nullptr : intf->second.get();
  }

 private:
  using Vlans = std::array<const Intf*, kVlans>;

  std::optional<CommandResponse> refusal(const sfe::pb::IntfArg& arg) const;

  // Written by control while workers are paused, read by workers.
  std::array<std::unique_ptr<Vlans>, RTE_MAX_ETHPORTS> ports_;
  std::unordered_map<uint64_t, std::unique_ptr<Intf>> byId_;
};

}  // namespace SfeModules
