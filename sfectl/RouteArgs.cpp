#include "sfectl/RouteArgs.h"

#include <set>
#include <utility>

#include "sfectl/Arguments.h"
#include "sfectl/Errors.h"
#include "sfectl/Report.h"

namespace Sfectl {
namespace {

constexpr uint32_t kDefaultGate = 1;

void addOifs(const std::vector<std::string>& words, sfe::pb::MfibRouteArg& route) {
  if (words.size() > kMaxOifs) {
    throw UsageError(std::to_string(words.size()) + " outgoing interfaces; a route holds at most " +
                     std::to_string(kMaxOifs));
  }
  std::set<std::pair<uint64_t, uint32_t>> seen;
  for (const std::string& word : words) {
    const Endpoint endpoint = parseEndpoint(word, kDefaultGate);
    const uint64_t id = parseIntf(endpoint.name, "--oif");
    if (!seen.emplace(id, endpoint.gate).second) {
      throw UsageError("outgoing interface " + printable(endpoint.name) + " with gate " +
                       std::to_string(endpoint.gate) +
                       " appears twice; expected each interface and gate once");
    }
    auto* oif = route.add_oifs();
    oif->set_intf_id(id);
    oif->set_gate(endpoint.gate);
  }
}

uint64_t optionalIntf(const std::string& word, std::string_view what) {
  return word.empty() ? 0 : parseIntf(word, what);
}

}  // namespace

sfe::pb::MfibRouteArg routeKey(const std::string& source, const std::string& group) {
  const Address to = parseAddress(group, "group");
  if (!to.isMulticast()) {
    throw UsageError("group " + printable(group) +
                     " is not multicast; expected 224.0.0.0/4 or ff00::/8");
  }
  Address from{std::string(to.bytes.size(), '\0')};
  if (source != "*") {
    from = parseAddress(source, "source");
    if (from.isIpv4() != to.isIpv4()) {
      throw UsageError("source " + printable(source) + " and group " + printable(group) +
                       " are of different families; expected two IPv4 or two IPv6 addresses");
    }
    if (from.isMulticast()) {
      throw UsageError("source " + printable(source) +
                       " is multicast; expected a sender's address or '*'");
    }
  }
  sfe::pb::MfibRouteArg route;
  route.set_source(from.bytes);
  route.set_group(to.bytes);
  return route;
}

sfe::pb::MfibRouteArg routeArg(const RouteWords& words) {
  sfe::pb::MfibRouteArg route = routeKey(words.source, words.group);
  route.set_iif(parseIntf(words.iif, "--iif"));
  route.set_iif_frr(optionalIntf(words.iifFrr, "--iif-frr"));
  route.set_notify(optionalIntf(words.notify, "--notify"));
  route.set_fastdrop(optionalIntf(words.fastdrop, "--fastdrop"));
  route.set_to_cpu(words.toCpu);
  route.set_iif_register(words.registerIn);
  route.set_oif_register(words.registerOut);
  addOifs(words.oifs, route);
  return route;
}

}  // namespace Sfectl
