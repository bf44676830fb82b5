#include "sfectl/Instances.h"

#include <algorithm>
#include <tuple>

#include "protocol/sfe.pb.h"
#include "sfectl/Errors.h"
#include "sfectl/Report.h"

namespace Sfectl {
namespace {

using Nynet::AddressFamily;

constexpr uint32_t kAfIpv4 = 1;

auto orderOf(const Instance& instance) {
  return std::make_tuple(instance.vrf != kDefaultVrf, std::ref(instance.vrf), instance.af,
                         std::ref(instance.module));
}

}  // namespace

const char* familyText(AddressFamily af) {
  return af == AddressFamily::kIpv4 ? "ipv4" : "ipv6";
}

std::vector<Instance> multicastInstances(Client& client, const CounterFilter& filter) {
  std::vector<Instance> result;
  bool vrfServed = !filter.vrf;
  for (const auto& module : client.modulesOf(kMulticastClass)) {
    sfe::pb::MfibArg arg;
    if (!module.arg().UnpackTo(&arg) || (filter.vrf && *filter.vrf != arg.vrfname())) {
      continue;
    }
    vrfServed = true;
    const auto af = arg.af() == kAfIpv4 ? AddressFamily::kIpv4 : AddressFamily::kIpv6;
    if (!filter.af || *filter.af == af) {
      result.push_back({module.name(), arg.vrfname(), af});
    }
  }
  if (!vrfServed) {
    throw RuntimeError("no module of class Mfib serves VRF " + printable(*filter.vrf));
  }
  std::sort(result.begin(), result.end(),
            [](const Instance& a, const Instance& b) { return orderOf(a) < orderOf(b); });
  return result;
}

}  // namespace Sfectl
