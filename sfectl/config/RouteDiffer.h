// Routes, and the interfaces that instances are enabled for.
#pragma once

#include <map>
#include <set>
#include <string>

#include "sfectl/config/Config.h"
#include "sfectl/config/DifferSteps.h"

namespace Sfectl {

class RouteDiffer {
 public:
  RouteDiffer(const Config& config, DifferSteps& steps);

  // Of instances that the file has.
  void remove();
  void add();

 private:
  struct Wanted {
    bool exclusive = true;
    std::set<uint64_t> interfaces;
    std::map<RouteKey, const RouteConfig*> routes;
  };
  using InstanceKey = std::pair<std::string, Family>;  // VRF and family

  void interfaceStep(Change change, const std::string& module, uint64_t intf);
  void routeStep(Change change, const std::string& module, const RouteConfig& route);

  DifferSteps& steps_;
  std::map<InstanceKey, Wanted> wanted_;
};

// "iif Ethernet1, oifs Ethernet2, Ethernet3".
std::string routeDetail(const RouteConfig& route);
sfe::pb::MfibRouteArg routeMessage(const RouteConfig& route);

}  // namespace Sfectl
