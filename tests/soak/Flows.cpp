#include "tests/soak/Flows.h"

#include <cstdio>
#include <cstring>
#include <utility>

namespace soak {

namespace {

using namespace SfeModules::frames;  // NOLINT(google-build-using-namespace): the builder's words

constexpr unsigned kStableFlows = 16;
constexpr unsigned kReplacedFlows = 16;
constexpr unsigned kVolatileFlows = 48;
constexpr unsigned kUnknownFlows = 300;  // more keys than the cache takes
constexpr unsigned kOddFlows = 4;
constexpr unsigned kBusy = 8;
constexpr size_t kSecondSegment = 8;  // bytes
constexpr uint8_t kTtl = 64;
constexpr uint8_t kNullRegisterFlag = 0x40;
constexpr uint8_t kDataRegister = 0x21;

// Collects the flows of one address family.
class Builder {
 public:
  explicit Builder(const FlowSettings& settings) : settings_(settings) {}

  void forwarded();
  void unresolved();
  void dropped();
  void tunnelled();
  std::vector<Flow> take() { return std::move(flows_); }

 private:
  bool ipv4() const { return settings_.af == 1; }

  std::string address(const char* v4, const char* v6, unsigned n) const {
    char text[64];
    if (ipv4()) {
      std::snprintf(text, sizeof(text), "%s.%u.%u", v4, n / 250, n % 250 + 1);
    } else {
      std::snprintf(text, sizeof(text), "%s::%x", v6, n + 1);
    }
    return text;
  }

  Flow flow(Kind kind, const std::string& intf) {
    const unsigned n = next_++;
    return {kind, address("10.1", "2001:db8", n), address("239.1", "ff0e", n), intf};
  }

  // The first `count` interfaces from the `first` one on.
  static std::vector<Oif> oifs(size_t first, size_t count) {
    std::vector<Oif> result;
    for (size_t i = 0; i < count; ++i) {
      result.push_back(kOifs[(first + i) % kOifs.size()]);
    }
    return result;
  }

  Ip ip(const Flow& flow, uint8_t ttl) const {
    Ip packet;
    packet.source = flow.source;
    packet.group = flow.group;
    packet.ttl = ttl;
    return packet;
  }

  Bytes framed(const Bytes& packet) const {
    if (ipv4() && !settings_.ethernetMode) {
      return packet;
    }
    return etherFrame("01:00:5e:00:00:01", "02:00:00:00:00:01",
                      ipv4() ? kEtherTypeIpv4 : kEtherTypeIpv6, packet);
  }

  // The flow's packet inside a Register.
  Bytes tunnelledPacket(const Flow& flow, uint8_t flags) const {
    Ip outer;
    outer.source = ipv4() ? "10.9.9.1" : "2001:db8:9::1";
    outer.group = ipv4() ? "10.9.9.2" : "2001:db8:9::2";
    outer.protocol = kProtocolPim;
    outer.payload = pimRegister(kDataRegister, flags) + ipPacket(ip(flow, kTtl));
    return framed(ipPacket(outer));
  }

  void add(Flow flow, uint8_t ttl = kTtl) { addPacket(flow, framed(ipPacket(ip(flow, ttl)))); }
  void addPacket(Flow flow, Bytes packet) {
    const auto index = static_cast<uint32_t>(flows_.size());
    std::memcpy(packet.data() + packet.size() - sizeof(index), &index, sizeof(index));
    if (flow.kind == Kind::kSegmented) {
      flow.split = packet.size() - kSecondSegment;
    }
    flow.packet = std::move(packet);
    flows_.push_back(std::move(flow));
  }

  const FlowSettings settings_;
  std::vector<Flow> flows_;
  unsigned next_ = 0;
};

void Builder::forwarded() {
  for (unsigned i = 0; i < kStableFlows; ++i) {
    Flow stable = flow(Kind::kStable, i % 2 == 0 ? "Ethernet1" : "Ethernet2");
    stable.weight = kBusy;
    stable.routes = {{stable.source, stable.group, stable.intf, oifs(i, 1 + i % kOifs.size())}};
    if (i == 0) {
      stable.routes[0].oifs.push_back(kDeadEnd);
    }
    add(stable);
  }
  for (unsigned i = 0; i < kReplacedFlows; ++i) {
    Flow replaced = flow(Kind::kReplaced, i % 2 == 0 ? "Ethernet2" : "Ethernet1");
    replaced.weight = kBusy;
    for (size_t count = 1; count <= kOifs.size(); ++count) {
      replaced.routes.push_back({replaced.source, replaced.group, replaced.intf, oifs(i, count)});
    }
    add(replaced);
  }
  for (unsigned i = 0; i < kOddFlows; ++i) {
    Flow wildcard = flow(Kind::kWildcard, "Ethernet1");
    wildcard.routes = {{"*", wildcard.group, wildcard.intf, oifs(i, 2)}};
    add(wildcard);
    Flow whole = flow(Kind::kWholePacket, "Ethernet2");
    whole.routes = {{whole.source, whole.group, whole.intf, oifs(i, 2), false, true}};
    add(whole);
    Flow segmented = flow(Kind::kSegmented, "Ethernet1");
    segmented.routes = {{segmented.source, segmented.group, segmented.intf, oifs(i, 3)}};
    add(segmented);
    Flow flapping = flow(Kind::kFlapping, kFlappingIntf);
    flapping.routes = {{flapping.source, flapping.group, flapping.intf, oifs(i, 2)}};
    add(flapping);
  }
}

void Builder::unresolved() {
  for (unsigned i = 0; i < kVolatileFlows; ++i) {
    Flow volatileFlow = flow(Kind::kVolatile, i % 2 == 0 ? "Ethernet1" : "Ethernet2");
    volatileFlow.routes = {
        {volatileFlow.source, volatileFlow.group, volatileFlow.intf, oifs(i, 1 + i % 3)}};
    add(volatileFlow);
  }
  for (unsigned i = 0; i < kUnknownFlows; ++i) {
    add(flow(Kind::kUnknown, i % 2 == 0 ? "Ethernet1" : "Ethernet2"));
  }
  for (unsigned i = 0; i < kOddFlows; ++i) {
    add(flow(Kind::kFlappingUnknown, kFlappingIntf));
  }
}

void Builder::dropped() {
  const std::vector<Flow> sent = flows_;
  for (unsigned i = 0; i < kOddFlows; ++i) {
    Flow wrong = sent[i];
    wrong.kind = Kind::kWrongIntf;
    wrong.intf = sent[i].intf == "Ethernet1" ? "Ethernet2" : "Ethernet1";
    wrong.weight = 1;
    wrong.routes.clear();
    add(wrong);
    Flow old = sent[i + kOddFlows];
    old.kind = Kind::kTtlWithRoute;
    old.weight = 1;
    old.routes.clear();
    add(old, 1);
    add(flow(Kind::kTtlWithoutRoute, "Ethernet1"), static_cast<uint8_t>(i % 2));
    add(flow(Kind::kNonMulticast, kOffIntf));
    Flow unicast = flow(Kind::kUnicast, "Ethernet2");
    unicast.group = address("192.0", "2001:db8:2", i);
    add(unicast);
    Flow local = flow(Kind::kLinkLocal, "Ethernet1");
    local.group = ipv4() ? "224.0.0.5" : "ff02::5";
    add(local);
    Flow cut = flow(Kind::kCutOff, "Ethernet2");
    addPacket(cut, pattern(15 + i));  // shorter than an IP header and what may be before it
    Flow noOifs = flow(Kind::kNoOifs, "Ethernet1");
    noOifs.routes = {{noOifs.source, noOifs.group, noOifs.intf}};
    add(noOifs);
    if (settings_.ethernetMode) {
      Flow gate = flow(Kind::kGate, "Ethernet2");
      gate.gateSelect = 1;
      gate.routes = {{gate.source, gate.group, gate.intf, oifs(2, 3)}};
      add(gate);
    }
  }
}

void Builder::tunnelled() {
  for (unsigned i = 0; i < kOddFlows; ++i) {
    Flow tunnelled = flow(Kind::kRegister, "Register0");
    tunnelled.routes = {{tunnelled.source, tunnelled.group, "Ethernet1", oifs(i, 2), true}};
    addPacket(tunnelled, tunnelledPacket(tunnelled, 0));
    Flow volatileOne = flow(Kind::kVolatileRegister, "Register0");
    volatileOne.routes = {{volatileOne.source, volatileOne.group, "Ethernet1", oifs(i, 2), true}};
    addPacket(volatileOne, tunnelledPacket(volatileOne, 0));
    Flow refused = flow(Kind::kNotRegister, "Register0");
    refused.routes = {{refused.source, refused.group, "Ethernet1", oifs(i, 1)}};
    addPacket(refused, tunnelledPacket(refused, 0));
    Flow empty = flow(Kind::kNullRegister, "Register0");
    addPacket(empty, tunnelledPacket(empty, kNullRegisterFlag));
  }
}

}  // namespace

std::vector<Flow> makeFlows(const FlowSettings& settings) {
  Builder builder(settings);
  builder.forwarded();  // first: dropped() sends packets of its first flows
  builder.unresolved();
  builder.dropped();
  builder.tunnelled();
  return builder.take();
}

uint32_t flowOf(const bess::Packet* packet) {
  uint32_t index = 0;
  const void* last =
      rte_pktmbuf_read(packet->mbuf(), packet->totalLen() - sizeof(index), sizeof(index), &index);
  if (last != nullptr && last != &index) {
    std::memcpy(&index, last, sizeof(index));
  }
  return index;
}

}  // namespace soak
