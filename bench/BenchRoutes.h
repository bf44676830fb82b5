// The routes of the control plane's benchmarks: as many as wanted, four outgoing interfaces each.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "Nynet/IntfId.h"
#include "protocol/bess.pb.h"
#include "protocol/sfe.pb.h"

namespace bench {

inline constexpr uint32_t kOifs = 4;

inline sfe::pb::MfibRouteArg benchRoute(uint32_t n) {
  static const std::array<uint64_t, 1 + kOifs> kIds = [] {
    std::array<uint64_t, 1 + kOifs> ids{};
    for (size_t i = 0; i < ids.size(); ++i) {
      ids[i] = Nynet::IntfId::fromName("Ethernet" + std::to_string(i + 1)).value();
    }
    return ids;
  }();
  const auto byte = [](uint32_t value) { return static_cast<char>(value & 0xff); };
  sfe::pb::MfibRouteArg route;
  route.set_source({10, 0, 0, 2});
  route.set_group({byte(239), byte(n >> 16), byte(n >> 8), byte(n)});
  route.set_iif(kIds[0]);
  for (uint32_t i = 1; i <= kOifs; ++i) {
    sfe::pb::OifArg* oif = route.add_oifs();
    oif->set_intf_id(kIds[i]);
    oif->set_gate(i);
  }
  return route;
}

inline bess::pb::ModuleCommandRequest routeCommand(const std::string& module,
                                                   const std::string& command,
                                                   uint32_t n) {
  bess::pb::ModuleCommandRequest request;
  request.set_module(module);
  request.set_command(command);
  request.mutable_arg()->PackFrom(benchRoute(n));
  return request;
}

}  // namespace bench
