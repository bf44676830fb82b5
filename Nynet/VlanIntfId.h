// Nynet::VlanIntfId: what an interface id says about a VLAN.
//
// An interface is a VLAN interface when it is named Vlan<v> or Ethernet...<.v>. Every other id,
// also one that has no name of its own, is not.
// Threads    : pure functions.
// Cost       : for the packet path: a handful of instructions, no call.
#pragma once

#include <cstdint>

#include "Nynet/IntfId.h"

namespace Nynet {

struct VlanIntfId {
  static constexpr bool isVlanIntfId(IntfId id) noexcept { return vlanId(id) != 0; }

  // Returns: the VLAN (1..4094) of a VLAN interface, 0 for any other id.
  static constexpr uint16_t vlanId(IntfId id) noexcept {
    constexpr uint64_t kMask = 0xfff;
    const uint64_t value = id.value();
    const uint64_t vlan = value & kMask;
    const bool vlanKind = (value & ~kMask) == kindBits(IntfId::Kind::kVlan);
    const bool portKind = (value >> kPortBits) == (kindBits(IntfId::Kind::kEthernet) >> kPortBits);
    const bool carries = (vlanKind | portKind) & (vlan != kMask);
    return static_cast<uint16_t>(carries ? vlan : 0);
  }

 private:
  static constexpr unsigned kPortBits = 36;  // bits of an Ethernet id below its zero bits

  static constexpr uint64_t kindBits(IntfId::Kind kind) noexcept {
    return static_cast<uint64_t>(kind) << 56;
  }
};

}  // namespace Nynet
