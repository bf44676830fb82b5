// Flows, and the rows of plain forwarding: fan-out, TTL, metadata, the IPv4 header.

#include "SfeModules/MfibPacketCases.h"

#include <utility>

namespace SfeModules::frames {

namespace {

constexpr const char* kArrivalDestination = "01:00:5e:7f:ff:fa";
constexpr const char* kArrivalSource = "02:00:00:00:00:99";

uint16_t etherTypeOf(const Ip& ip) {
  return ip.isIpv4() ? kEtherTypeIpv4 : kEtherTypeIpv6;
}

}  // namespace

Flow::Flow(const Kind& flowKind)
    : kind(flowKind),
      source(kind.isIpv4() ? "10.0.0.2" : "2001:db8::2"),
      group(kind.isIpv4() ? "239.129.1.7" : "ff0e:12::3401:203") {}

Bytes Flow::in(const Ip& ip) const {
  if (!kind.hasLink()) {
    return ipPacket(ip);
  }
  return etherFrame(kArrivalDestination, kArrivalSource, etherTypeOf(ip), ipPacket(ip));
}

Bytes Flow::out(const Ip& ip) const {
  Ip rewritten = ip;
  rewritten.ttl = static_cast<uint8_t>(ip.ttl - 1);
  rewritten.checksum.reset();
  if (!kind.hasLink()) {
    return ipPacket(rewritten);
  }
  return etherFrame(groupMac(ip.group), kBridgeMac, etherTypeOf(ip), ipPacket(rewritten));
}

Ip Flow::registerOf(const Ip& inner, uint8_t outerTtl) const {
  Ip outer;
  outer.source = kind.isIpv4() ? "192.0.2.1" : "2001:db8:1::1";
  outer.group = kind.isIpv4() ? "192.0.2.2" : "2001:db8:1::2";
  outer.ttl = outerTtl;
  outer.protocol = kProtocolPim;
  outer.payload = pimRegister() + ipPacket(inner);
  return outer;
}

MfibFixture::Route Flow::route() const {
  return {.source = source, .group = group, .iif = "Ethernet0", .oifs = {{"Ethernet1", 1}}};
}

PacketCase Flow::row(const std::string& name, const Ip& ip) const {
  PacketCase row{.name = name + "In" + kind.name, .kind = kind};
  row.routes = {route()};
  row.input = in(ip);
  row.source = source;
  row.group = group;
  row.headerBytes = kind.linkBytes() + ip.headerBytes();
  return row;
}

PacketCase Flow::forwards(const std::string& name, const Ip& ip) const {
  PacketCase result = row(name, ip);
  result.routes[0].source = result.source = ip.source;
  result.routes[0].group = result.group = ip.group;
  expectOnAll(result, out(ip));
  return result;
}

PacketCase Flow::drops(const std::string& name, const Ip& ip, Fate reason) const {
  PacketCase result = row(name, ip);
  result.matched = false;
  expectDrop(result, 0, reason);
  return result;
}

PacketCase Flow::passes(const std::string& name, const Ip& ip) const {
  PacketCase result = row(name, ip);
  result.matched = false;
  result.fate = PacketFate::kUnchanged;
  result.sent = {{0, "", result.input}};
  return result;
}

PacketCase Flow::unpacks(const std::string& name, const Ip& inner, uint8_t outerTtl) const {
  const Ip outer = registerOf(inner, outerTtl);
  PacketCase result = row(name, outer);
  result.enabled = {"Ethernet2"};
  result.routes[0].iif = "Register0";
  result.routes[0].iifRegister = true;
  result.headerBytes += kRegisterBytes + inner.headerBytes();
  expectOnAll(result, out(inner));
  return result;
}

PacketCase renamed(PacketCase row, const std::string& name) {
  row.name = name + "In" + row.kind.name;
  return row;
}

void expectOnAll(PacketCase& row, const Bytes& bytes) {
  row.fate = PacketFate::kForwarded;
  row.sent.clear();
  for (const MfibFixture::Oif& oif : row.routes[0].oifs) {
    row.sent.push_back({static_cast<gate_idx_t>(oif.gate), oif.intf, bytes, !row.sent.empty()});
  }
}

void expectDrop(PacketCase& row, uint32_t routeDropped, Fate reason) {
  row.fate = PacketFate::kDropped;
  row.routeDropped = routeDropped;
  row.drop = reason;
  row.sent.clear();
}

void addFanOutRows(const Kind& kind, Rows& rows) {
  const Flow flow(kind);
  const Ip ip = flow.ip();
  auto fanOut = [&](const std::string& name, const std::vector<MfibFixture::Oif>& oifs) {
    PacketCase row = flow.row(name, ip);
    row.routes[0].oifs = oifs;
    expectOnAll(row, flow.out(ip));
    return row;
  };
  rows.push_back(flow.forwards("sendsToOneInterface", ip));
  rows.push_back(
      fanOut("sendsToThreeInterfaces", {{"Ethernet1", 1}, {"Ethernet2", 2}, {"Ethernet3/4", 3}}));
  rows.push_back(
      fanOut("sendsToInterfacesOfOneGate", {{"Ethernet1", 1}, {"Ethernet2", 1}, {"Tunnel5", 1}}));
  rows.push_back(fanOut("sendsTwiceToOneInterface", {{"Ethernet1", 1}, {"Ethernet1", 1}}));
  rows.push_back(fanOut(
      "sendsByEveryGate",
      {{"Ethernet1", 0}, {"Ethernet2", 4}, {"Ethernet3", 3}, {"Ethernet4", 2}, {"Ethernet5", 1}}));
  rows.push_back(fanOut("sendsBackToItsOwnInterface", {{"Ethernet1", 1}, {"Ethernet0", 2}}));
  PacketCase vlans = fanOut(
      "marksVlans", {{"Vlan100", 1}, {"Ethernet3.200", 2}, {"Ethernet3", 3}, {"Vlan4094", 2}});
  vlans.sent[0].vlan = 100;
  vlans.sent[1].vlan = 200;
  vlans.sent[3].vlan = 4094;
  rows.push_back(vlans);
  PacketCase none = fanOut("hasNoOutgoingInterface", {});
  expectDrop(none, 1, Fate::kDropNoOifs);
  rows.push_back(none);
}

void addTtlRows(const Kind& kind, Rows& rows) {
  const Flow flow(kind);
  Ip ip = flow.ip();
  for (const int ttl : {2, 128, 255}) {
    ip.ttl = static_cast<uint8_t>(ttl);
    rows.push_back(flow.forwards("sendsWithTtl" + std::to_string(ttl), ip));
  }
  for (const int ttl : {0, 1}) {
    ip.ttl = static_cast<uint8_t>(ttl);
    PacketCase row = flow.row("dropsTtl" + std::to_string(ttl), ip);
    expectDrop(row, 0, Fate::kDropTtl);
    rows.push_back(row);
    row = renamed(row, "dropsTtl" + std::to_string(ttl) + "BeforeAnythingElse");
    row.routes[0].oifRegister = true;
    row.routes[0].oifs.clear();
    rows.push_back(row);
  }
  Ip bare = flow.ip();
  bare.payload.clear();
  rows.push_back(flow.forwards("sendsBareHeader", bare));
  Ip padded = flow.ip();
  padded.length = 30;
  rows.push_back(flow.forwards("sendsWhatIsBehindTheLength", padded));
  Ip boasting = flow.ip();
  boasting.length = 9000;
  rows.push_back(flow.forwards("sendsLessThanTheLength", boasting));
  Ip tcp = flow.ip();
  tcp.protocol = kProtocolTcp;
  rows.push_back(flow.forwards("sendsOtherProtocols", tcp));
  if (kind.hasLink()) {
    PacketCase odd = flow.forwards("keepsTheEtherType", flow.ip());
    odd.input[12] = odd.sent[0].bytes[12] = 0x12;
    odd.input[13] = odd.sent[0].bytes[13] = 0x34;
    rows.push_back(odd);
  }
}

void addMetadataRows(const Kind& kind, Rows& rows) {
  const Flow flow(kind);
  PacketCase row = flow.row("carriesWordsAndByte", flow.ip());
  row.routes[0].oifs = {{"Ethernet1", 1}, {"Vlan7", 2}, {"Ethernet2", 3}};
  row.arrival.carriedByte = uint8_t{0x5b};
  row.arrival.carriedWord1 = 0x11223344;
  row.arrival.carriedWord2 = 0x55667788;
  expectOnAll(row, flow.out(flow.ip()));
  row.sent[1].vlan = 7;
  rows.push_back(row);

  PacketCase one = renamed(row, "carriesOneWord");
  one.arrival.carriedByte.reset();
  one.arrival.carriedWord1.reset();
  rows.push_back(one);

  PacketCase nowhere = renamed(row, "takesAbsentInterfaceAsZero");
  nowhere.arrival = {.intf = "", .hasInIntf = false};
  nowhere.enabled = {""};
  nowhere.routes[0].iif = "";
  rows.push_back(nowhere);

  PacketCase again = renamed(row, "countsNoArrivalOfReinjected");
  again.reinjected = true;
  rows.push_back(again);
}

void addIpv4HeaderRows(const Kind& kind, Rows& rows) {
  const Flow flow(kind);
  for (unsigned ihl = 0; ihl <= 15; ++ihl) {
    Ip ip = flow.ip();
    ip.ihl = ihl;
    ip.checksum = ihl < 5 ? std::optional<uint16_t>(0x5555) : std::nullopt;
    rows.push_back(flow.forwards("sendsIhl" + std::to_string(ihl), ip));
  }
  Ip stale = flow.ip();
  stale.checksum = 0xdead;
  rows.push_back(flow.forwards("replacesStaleChecksum", stale));
  struct Mark {
    const char* name;
    std::optional<uint32_t> qosMark;
    uint8_t tos;
    uint8_t expected;  // of a packet without link header
  };
  const Mark marks[] = {{"clearsDscpWithoutMark", {}, 0xb9, 0x01},
                        {"writesDscpOfMark", 0xb80, 0x03, 0xbb},
                        {"writesDscpOfFullMark", 0xffffffff, 0x00, 0xfc},
                        {"writesNoDscpOfLowBits", 0xf000003f, 0xfe, 0x02},
                        {"writesDscpOfZeroMark", 0, 0xff, 0x03}};
  for (const Mark& mark : marks) {
    Ip ip = flow.ip();
    ip.tos = mark.tos;
    PacketCase row = flow.row(mark.name, ip);
    row.arrival.qosMark = mark.qosMark;
    row.routes[0].oifs = {{"Ethernet1", 1}, {"Ethernet2", 2}};
    Ip expected = ip;
    expected.tos = kind.ethernetMode ? mark.tos : mark.expected;
    expectOnAll(row, flow.out(expected));
    rows.push_back(row);
  }
}

Rows allRows() {
  Rows rows;
  for (const Kind& kind : {kEthernetV4, kRawV4, kEthernetV6, kRawV6, kOtherFamily}) {
    for (auto* add : {addFanOutRows, addTtlRows, addMetadataRows, addGroupRows, addInterfaceRows,
                      addMissingRouteRows, addWildcardRows, addRegisterRows, addRegisterRouteRows,
                      addVxlanRows, addWholePacketRows, addGateSelectRows, addSegmentRows}) {
      add(kind, rows);
    }
    if (kind.isIpv4()) {
      addIpv4HeaderRows(kind, rows);
    }
  }
  return rows;
}

}  // namespace SfeModules::frames
