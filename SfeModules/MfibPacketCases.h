// The packet path's table of cases: for each what arrives, on which instance with which routes, and
// everything that has to come of it.
//
// The forwarding rules differ by address family and by whether IPv4 packets carry an Ethernet
// header: a Kind. What holds for several kinds is one function that makes a row for each of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "SfeModules/PacketFates.h"
#include "SfeModules/Testing/MfibFixture.h"
#include "SfeModules/Testing/PacketBuilder.h"

namespace SfeModules::frames {

inline constexpr const char* kBridgeMac = "02:1c:73:00:12:34";
inline constexpr uint32_t kVrfId = 7;
inline constexpr uint8_t kNoCache = 1;
inline constexpr uint8_t kWrongVif = 2;
inline constexpr uint8_t kWholePkt = 3;

struct Kind {
  uint32_t af;
  bool ethernetMode;
  const char* name;

  bool isIpv4() const { return af == 1; }
  bool hasLink() const { return ethernetMode || !isIpv4(); }
  size_t linkBytes() const { return hasLink() ? kEtherBytes : 0; }
  // The packet leaves without a link header and says so.
  bool hintsEncap() const { return !hasLink(); }
};

inline constexpr Kind kEthernetV4{1, true, "EthernetV4"};
inline constexpr Kind kRawV4{1, false, "RawV4"};
inline constexpr Kind kEthernetV6{2, true, "EthernetV6"};
inline constexpr Kind kRawV6{2, false, "RawV6"};
inline constexpr Kind kOtherFamily{10, false, "OtherFamily"};  // behaves as IPv6

enum class PacketFate : uint8_t { kForwarded, kHeld, kDropped, kUnchanged };

// One packet that leaves for an outgoing interface.
struct Sent {
  gate_idx_t gate;
  std::string oif;
  Bytes bytes;
  bool isCopy = false;  // else the arriving packet itself
  uint16_t vlan = 0;
};

// One message to the control plane.
struct Note {
  uint8_t kind;
  std::string source;
  std::string group;
  std::string intf;
  Bytes whole = {};
};

struct PacketCase {
  std::string name;
  Kind kind;
  std::vector<std::string> enabled = {"Ethernet0", "Ethernet2"};
  std::vector<MfibFixture::Route> routes = {};
  std::optional<uint32_t> heldPerRoute = {};  // limits of the cache of held packets
  std::optional<uint32_t> heldRoutes = {};
  MfibFixture::Arrival arrival = {.intf = "Ethernet0"};
  bool reinjected = false;
  Bytes input = {};

  PacketFate fate = PacketFate::kForwarded;
  std::vector<Sent> sent = {};
  std::vector<Note> notes = {};
  bool nonMulticastIntf = false;  // is counted as arrived on one
  std::string source = {};        // under which it is counted, when a route was found
  std::string group = {};
  bool matched = true;
  uint32_t routeDropped = 0;
  Fate drop = Fate::kCount;  // why, when it is dropped
  // Its outgoing interfaces are looked at although nothing is sent to them.
  bool reachesOifs = false;
  // Of the input: with fewer bytes it has to be dropped, with as many or more it fares as the
  // whole. 0: that does not hold.
  size_t headerBytes = 0;
};

// One (S,G) and its packets in the shape of a kind.
class Flow {
 public:
  explicit Flow(const Kind& kind);

  Ip ip() const { return {.source = source, .group = group}; }
  Bytes in(const Ip& ip) const;   // as it arrives
  Bytes out(const Ip& ip) const;  // as it leaves: TTL, checksum and link header rewritten
  Ip registerOf(const Ip& inner, uint8_t outerTtl = 64) const;
  MfibFixture::Route route() const;
  Note note(uint8_t noteKind) const { return {noteKind, source, group, "Ethernet0"}; }

  // A row whose packet is `ip`, with the one route, before anything is expected of it.
  PacketCase row(const std::string& name, const Ip& ip) const;
  PacketCase forwards(const std::string& name, const Ip& ip) const;
  PacketCase drops(const std::string& name, const Ip& ip, Fate reason) const;  // without a route
  PacketCase passes(const std::string& name, const Ip& ip) const;
  // A Register around `inner`, on a route that takes Registers.
  PacketCase unpacks(const std::string& name, const Ip& inner, uint8_t outerTtl = 64) const;

  Kind kind;
  std::string source;
  std::string group;
};

// The same row under another name, for a change to it.
PacketCase renamed(PacketCase row, const std::string& name);
// Expects `bytes` on every interface of the row's first route.
void expectOnAll(PacketCase& row, const Bytes& bytes);
// Expects a drop and nothing sent.
void expectDrop(PacketCase& row, uint32_t routeDropped, Fate reason);

using Rows = std::vector<PacketCase>;

// One group of rows each, for one kind.
void addFanOutRows(const Kind& kind, Rows& rows);
void addTtlRows(const Kind& kind, Rows& rows);
void addMetadataRows(const Kind& kind, Rows& rows);
void addIpv4HeaderRows(const Kind& kind, Rows& rows);
void addGroupRows(const Kind& kind, Rows& rows);
void addInterfaceRows(const Kind& kind, Rows& rows);
void addMissingRouteRows(const Kind& kind, Rows& rows);
void addWildcardRows(const Kind& kind, Rows& rows);
void addRegisterRows(const Kind& kind, Rows& rows);
void addRegisterRouteRows(const Kind& kind, Rows& rows);
void addVxlanRows(const Kind& kind, Rows& rows);
void addWholePacketRows(const Kind& kind, Rows& rows);
void addGateSelectRows(const Kind& kind, Rows& rows);
void addSegmentRows(const Kind& kind, Rows& rows);

// Every group for every kind that it applies to.
Rows allRows();

}  // namespace SfeModules::frames
