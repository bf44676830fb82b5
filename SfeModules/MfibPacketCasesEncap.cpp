// Rows of packets in packets: PIM Registers, register routes, VXLAN, and whole packets for the
// control plane.

#include <algorithm>

#include "SfeModules/MfibPacketCases.h"

namespace SfeModules::frames {

namespace {

constexpr size_t kPortInUdp = 2;

// `bytes` cut or filled up with zeroes.
Bytes sized(Bytes bytes, size_t size) {
  bytes.resize(size);
  return bytes;
}

void addRegisterTtlRows(const Flow& flow, Rows& rows) {
  const Ip inner = flow.ip();
  // IPv4 goes by the inner TTL, IPv6 by the outer hop limit; the inner one is what changes.
  struct Ttls {
    uint8_t outer, inner;
  };
  for (const Ttls ttls : {Ttls{1, 64}, {0, 64}, {64, 1}, {64, 0}, {2, 2}, {255, 3}}) {
    Ip ip = inner;
    ip.ttl = ttls.inner;
    PacketCase row = flow.unpacks(
        "unpacksRegisterWithTtl" + std::to_string(ttls.outer) + "And" + std::to_string(ttls.inner),
        ip, ttls.outer);
    if ((flow.kind.isIpv4() ? ttls.inner : ttls.outer) <= 1) {
      expectDrop(row, 0, Fate::kDropTtl);
    }
    rows.push_back(row);
  }
}

void addPimRows(const Flow& flow, Rows& rows) {
  const Ip inner = flow.ip();
  struct Pim {
    const char* name;
    uint8_t type, flags;
    bool taken;
  };
  for (const Pim& pim :
       {Pim{"dropsNullRegister", 0x21, 0x40, false},
        Pim{"dropsNullRegisterWithBorder", 0x21, 0xc0, false},
        Pim{"unpacksBorderRegister", 0x21, 0x80, true},
        Pim{"unpacksRegisterOfAnyVersion", 0xf1, 0xbf, true}, Pim{"dropsPimHello", 0x20, 0, false},
        Pim{"dropsPimRegisterStop", 0x22, 0, false}, Pim{"dropsPimJoin", 0x23, 0, false},
        Pim{"dropsPimTypeWithHighBits", 0x29, 0, false}}) {
    PacketCase row = flow.unpacks(pim.name, inner);
    Ip outer = flow.registerOf(inner);
    outer.payload = pimRegister(pim.type, pim.flags) + ipPacket(inner);
    row.input = flow.in(outer);
    if (!pim.taken) {
      row.matched = false;
      expectDrop(row, 0, Fate::kDropPim);
    }
    rows.push_back(row);
  }
  if (flow.kind.isIpv4()) {
    // The Register is looked for behind 20 bytes, where the options are.
    PacketCase shifted = flow.unpacks("dropsRegisterBehindOptions", inner);
    Ip outer = flow.registerOf(inner);
    outer.ihl = 7;
    shifted.input = flow.in(outer);
    shifted.matched = false;
    expectDrop(shifted, 0, Fate::kDropPim);
    rows.push_back(shifted);
  }
}

}  // namespace

void addRegisterRows(const Kind& kind, Rows& rows) {
  const Flow flow(kind);
  const Ip inner = flow.ip();
  rows.push_back(flow.unpacks("unpacksRegister", inner));
  PacketCase fanOut = flow.unpacks("unpacksRegisterForThree", inner);
  fanOut.routes[0].oifs = {{"Ethernet1", 1}, {"Ethernet2", 2}, {"Vlan5", 3}};
  expectOnAll(fanOut, flow.out(inner));
  fanOut.sent[2].vlan = 5;
  rows.push_back(fanOut);
  PacketCase chained = renamed(fanOut, "unpacksRegisterOfSegments");
  chained.arrival.segments = {chained.headerBytes + 3};
  rows.push_back(chained);
  PacketCase own = flow.unpacks("unpacksRegisterOnTheRoutesInterface", inner);
  own.enabled = {"Ethernet0"};
  own.routes[0].iif = "Ethernet0";
  rows.push_back(own);
  PacketCase unflagged = flow.unpacks("dropsRegisterOfNativeRoute", inner);
  unflagged.routes[0].iifRegister = false;
  unflagged.routes[0].iif = "Ethernet0";
  expectDrop(unflagged, 1, Fate::kDropNotRegister);
  rows.push_back(unflagged);
  PacketCase empty = flow.unpacks("dropsRegisterWithoutOutgoingInterface", inner);
  empty.routes[0].oifs.clear();
  expectDrop(empty, 1, Fate::kDropNoOifs);
  rows.push_back(empty);

  addRegisterTtlRows(flow, rows);
  addPimRows(flow, rows);
  if (kind.isIpv4()) {
    Ip optioned = inner;
    optioned.ihl = 8;
    rows.push_back(flow.unpacks("unpacksRegisterOfIpv4Options", optioned));
  }
  Ip toUnicast = inner;
  toUnicast.group = kind.isIpv4() ? "10.7.7.7" : "2001:db8::7";
  PacketCase unicast = flow.passes("passesRegisterOfUnicast", flow.registerOf(toUnicast));
  unicast.headerBytes += kRegisterBytes + inner.headerBytes();
  rows.push_back(unicast);
}

void addRegisterRouteRows(const Kind& kind, Rows& rows) {
  const Flow flow(kind);
  // Native on a register route: with a link header in front refused, without one sent and told.
  PacketCase native = flow.forwards("alertsOfNativeOnRegisterRoute", flow.ip());
  native.routes[0].iifRegister = true;
  native.notes = {flow.note(kWrongVif)};
  PacketCase bare = renamed(native, "alertsOfNativeOnRegisterRouteWithoutInterfaces");
  bare.routes[0].oifs.clear();
  expectDrop(bare, 1, kind.ethernetMode ? Fate::kDropWrongIntf : Fate::kDropNoOifs);
  PacketCase wrong = renamed(native, "dropsNativeOfRegisterRouteFromWrongInterface");
  wrong.routes[0].iif = "Register0";
  expectDrop(wrong, 1, Fate::kDropWrongIntf);
  PacketCase last = renamed(native, "dropsLastHopOnRegisterRoute");
  Ip expiring = flow.ip();
  expiring.ttl = 1;
  last.input = flow.in(expiring);
  if (kind.ethernetMode) {
    expectDrop(native, 1, Fate::kDropWrongIntf);
    expectDrop(last, 1, Fate::kDropWrongIntf);
  } else {
    expectDrop(last, 0, Fate::kDropTtl);
    last.notes.clear();
  }
  PacketCase whole = renamed(native, "tellsWholePacketBeforeWrongInterface");
  whole.routes[0].oifRegister = true;
  if (!kind.ethernetMode) {
    Note note = flow.note(kWholePkt);
    note.whole = ipPacket(flow.ip());
    whole.notes.insert(whole.notes.begin(), note);
  }
  rows.insert(rows.end(), {native, bare, wrong, last, whole});

  // No route: the inner (S,G) is told and held; with a wildcard route its interface must fit.
  PacketCase unrouted = flow.unpacks("holdsRegisterWithoutRoute", flow.ip());
  unrouted.routes.clear();
  unrouted.sent.clear();
  unrouted.fate = PacketFate::kHeld;
  unrouted.matched = false;
  unrouted.headerBytes = 0;
  unrouted.notes = {flow.note(kNoCache)};
  rows.push_back(unrouted);
  PacketCase wildcard = flow.unpacks("unpacksRegisterByWildcardRoute", flow.ip());
  wildcard.routes[0].source = "*";
  wildcard.routes[0].iif = "Ethernet0";
  wildcard.notes = {flow.note(kNoCache)};
  rows.push_back(wildcard);
  PacketCase hops = flow.unpacks("tellsTtlOneOfRegisterWithoutRoute", flow.ip(), 1);
  hops.routes.clear();
  hops.sent.clear();
  hops.matched = false;
  hops.headerBytes = 0;
  hops.notes = {flow.note(kNoCache)};
  hops.drop = Fate::kDropTtl;
  hops.fate = kind.isIpv4() ? PacketFate::kHeld
                            : PacketFate::kDropped;  // the outer hop limit, the inner TTL
  rows.push_back(hops);
}

void addVxlanRows(const Kind& kind, Rows& rows) {
  const Flow flow(kind);
  // The port is looked for at one place of the packet, counted as if a link header were there.
  const size_t portAt = kEtherBytes + (kind.isIpv4() ? kIpv4Bytes : kIpv6Bytes) + kPortInUdp;
  Ip ip = flow.ip();
  ip.payload = udp(kind.hasLink() ? kVxlan : kSomePort, 40);
  Bytes input = flow.in(ip);
  auto portIs = [portAt](Bytes bytes) {
    bytes[portAt] = kVxlan >> 8;
    bytes[portAt + 1] = kVxlan & 0xff;
    return bytes;
  };
  PacketCase taken = flow.forwards("sendsVxlanFromAnyInterface", ip);
  taken.enabled.clear();
  taken.input = portIs(taken.input);
  expectOnAll(taken, portIs(flow.out(ip)));
  taken.headerBytes = 0;
  rows.push_back(taken);
  PacketCase routed = renamed(taken, "dropsVxlanFromWrongInterface");
  routed.routes[0].iif = "Ethernet2";
  expectDrop(routed, 1, Fate::kDropWrongIntf);
  routed.notes = {flow.note(kWrongVif)};
  rows.push_back(routed);
  PacketCase held = renamed(taken, "holdsVxlanWithoutRoute");
  held.routes.clear();
  held.sent.clear();
  held.fate = PacketFate::kHeld;
  held.matched = false;
  held.notes = {flow.note(kNoCache)};
  rows.push_back(held);

  auto refused = [&](const std::string& name, const Ip& packet, Bytes bytes) {
    PacketCase row = flow.drops(name, packet, Fate::kDropNonMulticastIntf);
    row.enabled.clear();
    row.input = std::move(bytes);
    row.nonMulticastIntf = true;
    row.headerBytes = 0;
    rows.push_back(row);
  };
  Ip tcp = ip;
  tcp.protocol = kProtocolTcp;
  refused("takesNoTcpForVxlan", tcp, portIs(flow.in(tcp)));
  Bytes nextPort = portIs(input);
  nextPort[portAt + 1] ^= 1;
  refused("takesNoOtherPortForVxlan", ip, nextPort);
  Bytes swapped = portIs(input);
  std::swap(swapped[portAt], swapped[portAt + 1]);
  refused("takesNoSwappedPortForVxlan", ip, swapped);
  refused("readsNoPortPastTheEnd", ip, sized(portIs(input), portAt + 1));
  Ip bare = ip;
  bare.payload.clear();
  refused("readsNoPortWithoutPayload", bare, flow.in(bare));
  if (!kind.hasLink()) {
    Ip real = ip;
    real.payload = udp(kVxlan, 40);
    refused("takesNoVxlanWherePortsReallyAre", real, flow.in(real));
  }
  if (kind.isIpv4()) {
    Ip optioned = ip;
    optioned.ihl = 6;
    optioned.payload = udp(kVxlan, 40);
    refused("takesNoVxlanBehindOptions", optioned, flow.in(optioned));
  }
}

void addWholePacketRows(const Kind& kind, Rows& rows) {
  const Flow flow(kind);
  auto whole = [&](const std::string& name, const Ip& ip, size_t size) {
    PacketCase row = flow.forwards(name, ip);
    row.routes[0].oifRegister = true;
    Note note = flow.note(kWholePkt);
    note.whole = sized(ipPacket(ip), size);
    row.notes = {note};
    row.headerBytes = 0;
    return row;
  };
  constexpr size_t kMostCarried = 65531;
  const Ip ip = flow.ip();
  const size_t full = ipPacket(ip).size();
  // What a length field stands for in bytes from the header on.
  auto claimed = [&](size_t length) { return length + (kind.isIpv4() ? 0 : kIpv6Bytes); };
  rows.push_back(whole("tellsWholePacket", ip, full));
  for (const size_t length : {size_t{0}, size_t{7}, size_t{30}, size_t{2000}, size_t{65535}}) {
    Ip lying = ip;
    lying.length = static_cast<uint16_t>(length);
    rows.push_back(whole("tellsLengthOf" + std::to_string(length), lying,
                         std::min(claimed(length), kMostCarried)));
  }
  PacketCase none = whole("tellsWholePacketWithoutOutgoingInterface", ip, full);
  none.routes[0].oifs.clear();
  expectDrop(none, 1, Fate::kDropNoOifs);
  rows.push_back(none);
  Ip big = ip;
  big.payload = udp(kSomePort, 1400);
  PacketCase chained = whole("tellsWholePacketOfSegments", big, ipPacket(big).size());
  chained.arrival.segments = {kind.linkBytes() + big.headerBytes(), 3, 0, 700};
  rows.push_back(chained);
  Ip lyingBig = big;
  lyingBig.length = 4000;
  PacketCase lyingChain = whole("tellsLengthBeyondSegments", lyingBig, claimed(4000));
  lyingChain.arrival.segments = chained.arrival.segments;
  rows.push_back(lyingChain);

  PacketCase wildcard = whole("tellsWholePacketByWildcardRoute", ip, full);
  wildcard.routes[0].source = "*";
  wildcard.notes.insert(wildcard.notes.begin(), flow.note(kNoCache));
  rows.push_back(wildcard);

  PacketCase unpacked = flow.unpacks("tellsInnerPacketOfRegister", ip);
  unpacked.routes[0].oifRegister = true;
  Note inner = flow.note(kWholePkt);
  inner.whole = ipPacket(ip);
  unpacked.notes = {inner};
  rows.push_back(unpacked);
  PacketCase cut = flow.unpacks("tellsInnerPacketPaddedToItsLength", ip);
  cut.routes[0].oifRegister = true;
  cut.input.resize(cut.input.size() - 20);
  cut.sent[0].bytes.resize(cut.sent[0].bytes.size() - 20);
  inner.whole = sized(sized(ipPacket(ip), full - 20), full);
  cut.notes = {inner};
  rows.push_back(cut);
}

}  // namespace SfeModules::frames
