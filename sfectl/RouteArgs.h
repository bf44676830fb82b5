// The route of `sfectl mroute` as words of the command line, and the message that they make.
//
// Errors     : UsageError, saying which word is wrong and what is expected.
// Invariants :
//   (1) source and group of a message are of one family and have 4 or 16 bytes; an any-source is
//   all zero. (2) a message names every pair of interface and gate once, and at most kMaxOifs of
//   them.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "protocol/sfe.pb.h"

namespace Sfectl {

inline constexpr size_t kMaxOifs = 1000;

struct RouteWords {
  std::string source;  // an address, or "*"
  std::string group;
  std::string iif;
  std::vector<std::string> oifs;  // INTF or INTF:GATE, the gate is 1 when it is left out
  std::string iifFrr;
  std::string notify;
  std::string fastdrop;
  bool toCpu = false;
  bool registerIn = false;
  bool registerOut = false;
};

// Source and group alone, as a delete needs them.
sfe::pb::MfibRouteArg routeKey(const std::string& source, const std::string& group);
sfe::pb::MfibRouteArg routeArg(const RouteWords& words);

inline bool isIpv4(const sfe::pb::MfibRouteArg& route) {
  return route.group().size() == 4;
}

}  // namespace Sfectl
