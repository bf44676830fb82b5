// Rows of groups, incoming interfaces, missing and wildcard routes, gate selection and segments.

#include "SfeModules/MfibPacketCases.h"

namespace SfeModules::frames {

void addGroupRows(const Kind& kind, Rows& rows) {
  const Flow flow(kind);
  auto to = [&](const std::string& group) {
    Ip ip = flow.ip();
    ip.group = group;
    return ip;
  };
  using List = std::vector<std::string>;
  const bool v4 = kind.isIpv4();
  int number = 0;
  for (const std::string& group :
       v4 ? List{"10.1.1.1", "223.255.255.255", "240.0.0.1", "255.255.255.255", "0.0.0.0"}
          : List{"2001:db8::9", "fe80::1", "ff02::5", "ff32::8000:1", "fff2::1", "::"}) {
    rows.push_back(flow.passes("passesForeignGroup" + std::to_string(++number), to(group)));
  }
  PacketCase elsewhere =
      flow.passes("passesForeignGroupOfAnyInterface", to(v4 ? "10.9.9.9" : "ff02::2"));
  elsewhere.arrival.intf = "Ethernet9";
  rows.push_back(elsewhere);
  Ip dead = to(v4 ? "10.9.9.9" : "ff02::2");
  dead.ttl = 0;
  rows.push_back(flow.passes("passesForeignGroupWithTtlZero", dead));
  PacketCase again = flow.passes("passesForeignGroupReinjected", dead);
  again.reinjected = true;
  rows.push_back(again);

  number = 0;
  for (const std::string& group :
       v4 ? List{"224.0.1.0", "224.1.0.0", "239.255.255.255", "232.1.1.1"}
          : List{"ff05::1:3", "ff01::1", "ff0f::1", "ff33::1", "ff20::"}) {
    rows.push_back(flow.forwards("sendsGroup" + std::to_string(++number), to(group)));
  }
  if (v4) {
    number = 0;
    for (const std::string& group : List{"224.0.0.0", "224.0.0.5", "224.0.0.255"}) {
      rows.push_back(flow.drops("dropsLinkLocalGroup" + std::to_string(++number), to(group),
                                Fate::kDropLinkLocal));
    }
    // Not counted as arrived on an interface without multicast.
    PacketCase row =
        flow.drops("dropsLinkLocalGroupOfAnyInterface", to("224.0.0.13"), Fate::kDropLinkLocal);
    row.arrival.intf = "Ethernet9";
    rows.push_back(row);
  }
}

void addInterfaceRows(const Kind& kind, Rows& rows) {
  const Flow flow(kind);
  const Ip ip = flow.ip();
  PacketCase foreign =
      flow.drops("dropsFromNonMulticastInterface", ip, Fate::kDropNonMulticastIntf);
  foreign.arrival.intf = "Ethernet9";
  foreign.routes[0].iif = "Ethernet9";
  foreign.nonMulticastIntf = true;
  foreign.headerBytes = 0;  // an incomplete one is dropped without being counted there
  rows.push_back(foreign);
  PacketCase nowhere = renamed(foreign, "dropsFromInterfaceZero");
  nowhere.arrival = {.intf = "Ethernet0", .hasInIntf = false};
  rows.push_back(nowhere);

  PacketCase wrong = flow.row("dropsFromWrongInterface", ip);
  wrong.routes[0].iif = "Ethernet2";
  expectDrop(wrong, 1, Fate::kDropWrongIntf);
  wrong.notes = {flow.note(kWrongVif)};
  rows.push_back(wrong);
  PacketCase expired = flow.row("alertsOfWrongInterfaceAtAnyTtl",
                                {.source = flow.source, .group = flow.group, .ttl = 0});
  expired.routes = wrong.routes;
  expectDrop(expired, 1, Fate::kDropWrongIntf);
  expired.notes = wrong.notes;
  rows.push_back(expired);
  PacketCase fastReroute = renamed(wrong, "takesNoSecondInterface");
  fastReroute.routes[0].iifFrr = "Ethernet0";
  fastReroute.routes[0].notify = "Ethernet0";
  rows.push_back(fastReroute);
  PacketCase wholeWrong = renamed(wrong, "sendsNoWholePacketFromWrongInterface");
  wholeWrong.routes[0].oifRegister = true;
  rows.push_back(wholeWrong);
  PacketCase again = renamed(wrong, "alertsOfWrongInterfaceWhenReinjected");
  again.reinjected = true;
  rows.push_back(again);

  PacketCase more = flow.forwards("heedsNoOtherRouteFields", ip);
  more.routes[0].iifFrr = "Ethernet2";
  more.routes[0].notify = "Ethernet2";
  more.routes[0].fastdrop = "Ethernet0";
  more.routes[0].toCpu = true;
  rows.push_back(more);
}

void addMissingRouteRows(const Kind& kind, Rows& rows) {
  const Flow flow(kind);
  auto missing = [&](const std::string& name, int ttl, Fate drop, bool alert) {
    Ip ip = flow.ip();
    ip.ttl = static_cast<uint8_t>(ttl);
    PacketCase row = flow.drops(name, ip, drop);
    row.routes[0].source = kind.isIpv4() ? "10.0.0.3" : "2001:db8::3";
    if (drop == Fate::kHeld) {
      row.fate = PacketFate::kHeld;
    }
    row.headerBytes = 0;
    if (alert) {
      row.notes = {flow.note(kNoCache)};
    }
    return row;
  };
  rows.push_back(missing("holdsWithoutRoute", 64, Fate::kHeld, true));
  rows.push_back(missing("holdsTtlTwoWithoutRoute", 2, Fate::kHeld, true));
  rows.push_back(missing("dropsTtlOneWithoutRoute", 1, Fate::kDropTtl, true));
  rows.push_back(missing("dropsTtlZeroWithoutRoute", 0, Fate::kDropTtl, false));

  PacketCase again = missing("dropsReinjectedWithoutRoute", 64, Fate::kDropNoRoute, false);
  again.reinjected = true;
  rows.push_back(again);
  PacketCase againLast = missing("dropsReinjectedTtlOneWithoutRoute", 1, Fate::kDropTtl, true);
  againLast.reinjected = true;
  rows.push_back(againLast);

  PacketCase unbuffered = missing("dropsWithoutRouteWhenNoneIsHeld", 64, Fate::kDropNoRoute, true);
  unbuffered.heldPerRoute = 0;
  rows.push_back(unbuffered);
  PacketCase unbufferedOnce = missing("alertsTtlOneOnceWhenNoneIsHeld", 1, Fate::kDropTtl, true);
  unbufferedOnce.heldPerRoute = 0;
  rows.push_back(unbufferedOnce);
  PacketCase unbufferedAgain =
      missing("dropsReinjectedWithoutRouteWhenNoneIsHeld", 64, Fate::kDropNoRoute, false);
  unbufferedAgain.heldPerRoute = 0;
  unbufferedAgain.reinjected = true;
  rows.push_back(unbufferedAgain);
  PacketCase full = missing("dropsWithoutRouteWhenTheCacheIsFull", 64, Fate::kDropCacheFull, false);
  full.heldRoutes = 0;
  rows.push_back(full);
}

void addWildcardRows(const Kind& kind, Rows& rows) {
  const Flow flow(kind);
  PacketCase used = flow.forwards("sendsByWildcardRoute", flow.ip());
  used.routes[0].source = "*";
  used.routes[0].oifs = {{"Ethernet1", 1}, {"Ethernet3", 2}};
  expectOnAll(used, flow.out(flow.ip()));
  used.notes = {flow.note(kNoCache)};
  rows.push_back(used);

  PacketCase last = renamed(used, "alertsAndDropsTtlOneByWildcardRoute");
  Ip expiring = flow.ip();
  expiring.ttl = 1;
  last.input = flow.in(expiring);
  expectDrop(last, 0, Fate::kDropTtl);
  rows.push_back(last);

  PacketCase none = renamed(used, "alertsAndDropsByWildcardRouteWithoutInterfaces");
  none.routes[0].oifs.clear();
  expectDrop(none, 1, Fate::kDropNoOifs);
  rows.push_back(none);

  PacketCase elsewhere = renamed(used, "holdsWhenTheWildcardRouteIsOfAnotherInterface");
  elsewhere.routes[0].iif = "Ethernet2";
  elsewhere.fate = PacketFate::kHeld;
  elsewhere.sent.clear();
  elsewhere.matched = false;
  elsewhere.headerBytes = 0;
  rows.push_back(elsewhere);

  PacketCase both = renamed(used, "prefersTheSourceRoute");
  both.routes = {flow.route(), used.routes[0]};
  both.notes.clear();
  expectOnAll(both, flow.out(flow.ip()));
  rows.push_back(both);

  PacketCase wrong = renamed(both, "prefersTheSourceRouteOfAnotherInterface");
  wrong.routes[0].iif = "Ethernet2";
  expectDrop(wrong, 1, Fate::kDropWrongIntf);
  wrong.notes = {flow.note(kWrongVif)};
  rows.push_back(wrong);

  // The packet's own source is told, and counted under, although the route has none.
  PacketCase native = renamed(used, "alertsWithOwnSourceByWildcardRegisterRoute");
  native.routes[0].iifRegister = true;
  native.notes = {flow.note(kNoCache), flow.note(kWrongVif)};
  if (kind.ethernetMode) {
    expectDrop(native, 1, Fate::kDropWrongIntf);
  }
  rows.push_back(native);
}

void addGateSelectRows(const Kind& kind, Rows& rows) {
  const Flow flow(kind);
  const Bytes out = flow.out(flow.ip());
  auto select = [&](const std::string& name, std::optional<uint8_t> value,
                    const std::vector<uint32_t>& gates) {
    PacketCase row = flow.row(name, flow.ip());
    row.arrival.gateSelect = value;
    row.routes[0].oifs.clear();
    for (const uint32_t gate : gates) {
      row.routes[0].oifs.push_back({"Ethernet1/" + std::to_string(gate), gate});
    }
    expectOnAll(row, out);
    return row;
  };
  rows.push_back(select("sendsByAllGatesUnselected", {}, {0, 1, 2, 3, 4}));
  rows.push_back(select("sendsByAllGatesSelectedZero", uint8_t{0}, {4, 3, 2, 1, 0}));
  rows.push_back(select("sendsBySelectedGates", uint8_t{1}, {1, 2}));
  for (const int value : {1, 255}) {
    const std::string suffix = std::to_string(value);
    PacketCase some =
        select("skipsUnselectedGates" + suffix, static_cast<uint8_t>(value), {1, 0, 3, 2, 4});
    PacketCase first =
        select("dropsOriginalOfUnselectedGate" + suffix, static_cast<uint8_t>(value), {3, 1, 0, 2});
    PacketCase all =
        select("dropsWithoutSelectedGate" + suffix, static_cast<uint8_t>(value), {3, 0, 4});
    if (kind.ethernetMode) {
      some.sent = {some.sent[0], some.sent[3]};
      first.sent = {first.sent[1], first.sent[3]};
      first.fate = PacketFate::kDropped;
      first.drop = Fate::kDropGate;
      expectDrop(all, 0, Fate::kDropGate);
      all.reachesOifs = true;
    }
    rows.insert(rows.end(), {some, first, all});
  }
}

void addSegmentRows(const Kind& kind, Rows& rows) {
  const Flow flow(kind);
  Ip ip = flow.ip();
  ip.payload = udp(kSomePort, 600);
  const size_t header = kind.linkBytes() + ip.headerBytes();
  auto split = [&](const std::string& name, const std::vector<size_t>& segments) {
    PacketCase row = flow.row(name, ip);
    row.arrival.segments = segments;
    row.routes[0].oifs = {{"Ethernet1", 1}, {"Vlan9", 2}, {"Ethernet2", 1}};
    expectOnAll(row, flow.out(ip));
    row.sent[1].vlan = 9;
    return row;
  };
  rows.push_back(split("clonesTwoSegments", {header + 8}));
  rows.push_back(split("clonesBareHeaderSegment", {header}));
  rows.push_back(split("clonesManySegments", {header + 30, 1, 100, 200}));
  rows.push_back(split("clonesEmptySegments", {header + 30, 0, 100}));

  PacketCase carrying = split("clonesWithCarriedWords", {header, 100});
  carrying.arrival.carriedByte = uint8_t{9};
  carrying.arrival.carriedWord1 = 0xabcdef01;
  rows.push_back(carrying);

  // A header that goes on in the next segment counts as cut off.
  for (const size_t held : {header - 1, kind.linkBytes() + 1, size_t{0}}) {
    PacketCase cut = split("dropsHeaderOverSegmentsOf" + std::to_string(held), {held});
    cut.matched = false;
    expectDrop(cut, 0, Fate::kDropCutOff);
    rows.push_back(cut);
  }
  PacketCase foreign = renamed(split("", {header}), "passesSegments");
  Ip unicast = ip;
  unicast.group = kind.isIpv4() ? "10.1.2.3" : "2001:db8::77";
  foreign.input = flow.in(unicast);
  foreign.matched = false;
  foreign.fate = PacketFate::kUnchanged;
  foreign.sent = {{0, "", foreign.input}};
  rows.push_back(foreign);
}

}  // namespace SfeModules::frames
