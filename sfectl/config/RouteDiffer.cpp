#include "sfectl/config/RouteDiffer.h"

#include "Nynet/IntfId.h"
#include "sfectl/Arguments.h"

namespace Sfectl {

std::string routeDetail(const RouteConfig& route) {
  std::string text = "iif " + intfText(route.iif) + ", oifs ";
  std::string oifs;
  for (const auto& [intf, gate] : route.oifs) {
    oifs += (oifs.empty() ? "" : " ") + intfText(intf) +
            (gate == kRouteGate ? "" : ":" + std::to_string(gate));
  }
  text += oifs.empty() ? "none" : oifs;
  const auto intf = [&](const char* key, uint64_t id) {
    text += id == 0 ? "" : std::string(", ") + key + " " + intfText(id);
  };
  intf("iif_frr", route.iifFrr);
  intf("notify", route.notify);
  intf("fastdrop", route.fastdrop);
  text += route.toCpu ? ", to_cpu" : "";
  text += route.iifRegister ? ", iif_register" : "";
  text += route.oifRegister ? ", oif_register" : "";
  return text;
}

sfe::pb::MfibRouteArg routeMessage(const RouteConfig& route) {
  sfe::pb::MfibRouteArg arg;
  arg.set_source(route.key.source);
  arg.set_group(route.key.group);
  arg.set_iif(route.iif);
  arg.set_iif_frr(route.iifFrr);
  arg.set_notify(route.notify);
  arg.set_fastdrop(route.fastdrop);
  arg.set_to_cpu(route.toCpu);
  arg.set_iif_register(route.iifRegister);
  arg.set_oif_register(route.oifRegister);
  for (const auto& [intf, gate] : route.oifs) {
    auto* oif = arg.add_oifs();
    oif->set_intf_id(intf);
    oif->set_gate(gate);
  }
  return arg;
}

RouteDiffer::RouteDiffer(const Config& config, DifferSteps& steps) : steps_(steps) {
  for (const VrfConfig& vrf : config.vrfs) {
    for (const auto& [family, instance] : vrf.families) {
      Wanted& wanted = wanted_[{vrf.name, family}];
      wanted.exclusive = vrf.exclusiveRoutes;
      for (const std::string& name : instance.extraInterfaces) {
        wanted.interfaces.insert(Nynet::IntfId::fromName(name).value());
      }
    }
  }
  for (const IntfConfig& intf : config.interfaces) {
    for (const Family family : intf.multicast) {
      const auto found = wanted_.find({intf.vrf, family});
      if (found != wanted_.end()) {
        found->second.interfaces.insert(Nynet::IntfId::fromName(intf.name).value());
      }
    }
  }
  for (const VrfRoute& route : config.routes) {
    wanted_[{route.vrf, route.route.key.family()}].routes[route.route.key] = &route.route;
  }
}

void RouteDiffer::interfaceStep(Change change, const std::string& module, uint64_t intf) {
  sfe::pb::MulticastIntfArg arg;
  arg.add_intf_ids(intf);
  steps_.command({change, "multicast", intfText(intf), "of " + module, nullptr, std::nullopt},
                 module, change == Change::kAdd ? "addMulticastIntfs" : "deleteMulticastIntfs",
                 arg);
}

void RouteDiffer::routeStep(Change change, const std::string& module, const RouteConfig& route) {
  const bool gone = change == Change::kRemove;
  steps_.command({change, "route", routeText(route.key),
                  "of " + module + (gone ? "" : ": " + routeDetail(route)), nullptr, std::nullopt},
                 module, gone ? "deleteMroute" : "addMroute", routeMessage(route));
}

void RouteDiffer::remove() {
  const Roles roles(steps_.now);
  for (const auto& [key, wanted] : wanted_) {
    const std::string module = roles.instance(key.first, key.second);
    if (module.empty()) {
      continue;
    }
    const RunningInstance& now = steps_.now.instances[module];
    for (const auto& [routeKey, route] : now.routes) {
      if (wanted.exclusive && !wanted.routes.contains(routeKey)) {
        routeStep(Change::kRemove, module, route);
      }
    }
    for (const uint64_t intf : now.interfaces) {
      if (!wanted.interfaces.contains(intf)) {
        interfaceStep(Change::kRemove, module, intf);
      }
    }
  }
}

void RouteDiffer::add() {
  const Roles roles(steps_.now);
  for (const auto& [key, wanted] : wanted_) {
    const std::string module = roles.instance(key.first, key.second);
    const RunningInstance& now = steps_.now.instances[module];
    for (const uint64_t intf : wanted.interfaces) {
      if (!now.interfaces.contains(intf)) {
        interfaceStep(Change::kAdd, module, intf);
      }
    }
    for (const auto& [routeKey, route] : wanted.routes) {
      const auto found = now.routes.find(routeKey);
      if (found == now.routes.end()) {
        routeStep(Change::kAdd, module, *route);
      } else if (!(found->second == *route)) {
        routeStep(Change::kChange, module, *route);
      }
    }
  }
}

}  // namespace Sfectl
