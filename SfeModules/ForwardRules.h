// The forwarding rules as questions. The packet path asks them for a packet that came, `explain`
// for one that might come: each rule is written once.
//
// Threads    : any; nothing here reads or writes more than its arguments.
#pragma once

#include <cstdint>

#include "SfeModules/MfibTypes.h"

namespace SfeModules {

// A packet that carries another one is taken from every interface.
inline bool admitsFrom(bool multicastIntf, bool encap) {
  return multicastIntf || encap;
}

inline bool ttlAllowsForwarding(uint8_t ttl) {
  return ttl > 1;
}

// A NoCache notification goes out although the packet ends here.
inline bool alertsOnLastHop(uint8_t ttl) {
  return ttl == 1;
}

// What becomes of a packet without a route.
enum class WithoutRoute : uint8_t {
  kDropTtl,
  kDropNoRoute,    // it was held before and its route has gone again
  kNotifyAndDrop,  // packets are not held
  kOfferToTheCache,
};
inline WithoutRoute withoutRoute(uint8_t ttl, bool reinjected, uint32_t maxHeldPerRoute) {
  if (!ttlAllowsForwarding(ttl)) {
    return WithoutRoute::kDropTtl;
  }
  if (reinjected) {
    return WithoutRoute::kDropNoRoute;
  }
  return maxHeldPerRoute == 0 ? WithoutRoute::kNotifyAndDrop : WithoutRoute::kOfferToTheCache;
}

// Whether the route takes the packet from where it came.
enum class IifCheck : uint8_t { kRight, kNotRegister, kWrong };
inline IifCheck checkIif(const MfibPvSet& entry, uint64_t inIntf, bool decap, bool ethernetMode) {
  if (decap) {
    return entry.iifRegister ? IifCheck::kRight : IifCheck::kNotRegister;
  }
  const bool wrong = inIntf != entry.iif.value() || (entry.iifRegister && ethernetMode);
  return wrong ? IifCheck::kWrong : IifCheck::kRight;
}

// A native packet of a register route is forwarded and still looked at as one on the wrong
// interface.
inline bool looksWrongAfterForwarding(const MfibPvSet& entry, bool decap) {
  return entry.iifRegister && !decap;
}

// True for gates 1 and 2.
inline bool isSelectableGate(uint16_t gate) {
  return static_cast<uint16_t>(gate - 1) <= 1;
}

// A packet with a gate selection leaves by the selectable gates only.
inline bool permitsGate(uint8_t gateSelect, uint16_t gate) {
  return gateSelect == 0 || isSelectableGate(gate);
}

}  // namespace SfeModules
