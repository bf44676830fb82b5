// Routes as `ip mroute show` and `ip -json mroute show` print them, so that the two can be compared
// line by line. Appends to a text, since a table may have a hundred thousand of them.
//
// Invariants :
//   (1) text holds no control characters; JSON is valid UTF-8, whatever the daemon answered.
#pragma once

#include <string>

#include "sfectl/RouteTable.h"

namespace Sfectl {

struct RouteStyle {
  bool stats = false;  // the second line, with the counters
  bool table = false;  // the VRF, for a list of several
};

// "(10.0.0.2,239.1.1.1)             Iif: Ethernet1  Oifs: Ethernet2 Ethernet3  State: resolved",
// then "  5 packets, 640 bytes, 1 arrived on wrong iif."; an age, which `ip` shows there, is not
// known.
void appendRouteText(std::string& out,
                     const Instance& instance,
                     const Route& route,
                     const RouteStyle& style);

// The keys of iproute2: src, dst, iif, multipath[].oif, state, packets, bytes, wrong_if; then our
// own: multipath[].gate, queued, dropped, iif_frr, notify, fastdrop, flags, held_packets, held_ms,
// vrf, family, module.
void appendRouteJson(std::string& out, const Instance& instance, const Route& route);

}  // namespace Sfectl
