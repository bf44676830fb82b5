// The flows that a soak test sends: each with its packet, where it arrives, its route, and what the
// rules make of it.
//
// Every packet ends with the index of its flow, so that a hook can tell the flows apart behind the
// module, whatever was rewritten.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Bess/Packet.h"
#include "SfeModules/Testing/PacketBuilder.h"

namespace soak {

using SfeModules::frames::Bytes;

enum class Kind : uint8_t {
  kStable,    // its route stays as it is
  kReplaced,  // its route is replaced again and again
  kVolatile,  // its route comes and goes
  kUnknown,   // never has a route
  kFlapping,  // its route stays, multicast on its interface does not
  kFlappingUnknown,
  kWrongIntf,     // the packets of a stable route, on another interface
  kTtlWithRoute,  // of a stable route, with TTL 1
  kTtlWithoutRoute,
  kUnicast,
  kLinkLocal,
  kCutOff,
  kNonMulticast,  // arrives where multicast is off
  kRegister,      // comes out of a tunnel
  kVolatileRegister,
  kNotRegister,  // out of a tunnel, and its route takes none
  kNullRegister,
  kWildcard,  // has a (*,G) route only
  kNoOifs,
  kGate,         // its first interface's gate is not allowed
  kWholePacket,  // the control plane gets each packet
  kSegmented,    // a packet of two segments
};

struct Oif {
  std::string intf;
  unsigned gate;
};

struct Route {
  std::string source;  // "*" for (*,G)
  std::string group;
  std::string iif;
  std::vector<Oif> oifs = {};
  bool iifRegister = false;
  bool oifRegister = false;
};

struct Flow {
  Kind kind;
  std::string source;
  std::string group;
  std::string intf;  // that its packets arrive on
  Bytes packet = {};
  size_t split = 0;  // bytes of the first segment; 0: one segment
  uint8_t gateSelect = 0;
  unsigned weight = 1;             // packets in one turn of the generator
  std::vector<Route> routes = {};  // none, one, or those that take turns
};

// The interfaces. Multicast is on for all that packets arrive on but kOffIntf.
inline const std::vector<std::string> kStableIntfs = {"Ethernet1", "Ethernet2", "Register0"};
inline const std::string kFlappingIntf = "Ethernet3";
inline const std::string kOffIntf = "Ethernet9";

// The outgoing ones with their gates; kDeadEnd's gate leads nowhere.
inline const std::vector<Oif> kOifs = {{"Ethernet4", 1},
                                       {"Ethernet5", 2},
                                       {"Ethernet6", 3},
                                       {"Vlan100", 1}};
inline const Oif kDeadEnd = {"Ethernet8", 7};

struct FlowSettings {
  uint32_t af = 1;
  bool ethernetMode = true;  // of IPv4; IPv6 packets always have an Ethernet header
};

// The index of a flow is its place in the list.
std::vector<Flow> makeFlows(const FlowSettings& settings);

// Returns: the index of the flow that a packet belongs to.
uint32_t flowOf(const bess::Packet* packet);

}  // namespace soak
