#include "sfectl/config/GraphDiffer.h"

#include <algorithm>

#include "sfectl/Client.h"

namespace Sfectl {
namespace {

using Stub = Client::Stub;

bool differs(const auto& wanted, const auto& running) {
  return wanted.has_value() && *wanted != running;
}

}  // namespace

GraphDiffer::GraphDiffer(const Config& config, DifferSteps& steps)
    : config_(config), steps_(steps) {
  for (const auto& [name, port] : steps_.now.ports) {
    const PortConfig* wanted = portConfig(name);
    const bool own = steps_.now.modules.contains(Roles::rxName(name)) ||
                     steps_.now.modules.contains(Roles::txName(name));
    if (wanted != nullptr ? !staysAsItIs(*wanted, port) : own) {
      goingPorts_.insert(name);
    }
  }
}

const PortConfig* GraphDiffer::portConfig(const std::string& name) const {
  const auto found = std::find_if(config_.ports.begin(), config_.ports.end(),
                                  [&](const PortConfig& port) { return port.name == name; });
  return found == config_.ports.end() ? nullptr : &*found;
}

const IntfConfig* GraphDiffer::intfConfig(const std::string& name) const {
  const auto found = std::find_if(config_.interfaces.begin(), config_.interfaces.end(),
                                  [&](const IntfConfig& intf) { return intf.name == name; });
  return found == config_.interfaces.end() || found->port.empty() ? nullptr : &*found;
}

bool GraphDiffer::staysAsItIs(const PortConfig& wanted, const RunningPort& port) const {
  return wanted.devargs == port.devargs && !differs(wanted.rxq, port.rxq) &&
         !differs(wanted.txq, port.txq) && !differs(wanted.mtu, port.mtu) &&
         !differs(wanted.queueSize, port.queueSize) &&
         !differs(wanted.promiscuous, port.promiscuous) &&
         !differs(wanted.allMulticast, port.allMulticast);
}

// Whether a module of the running graph may stay as it is.
bool GraphDiffer::isWanted(const std::string& module) const {
  const Roles roles(steps_.now);
  const RunningModule& running = steps_.now.modules.at(module);
  if (const std::string port = roles.portOf(module); !port.empty()) {
    return portConfig(port) != nullptr && !goingPorts_.contains(port);
  }
  if (sfe::pb::IntfInArg arg; running.arg.UnpackTo(&arg)) {
    return arg.strip_ipv4() == !config_.ethernetMode;
  }
  const auto what = roles.served(module);
  if (!what.has_value()) {
    return true;
  }
  sfe::pb::MfibArg arg;
  running.arg.UnpackTo(&arg);
  for (const VrfConfig& vrf : config_.vrfs) {
    const auto family = vrf.families.find(what->second);
    if (vrf.name == what->first && family != vrf.families.end()) {
      return arg.ethernet_mode() == config_.ethernetMode && !differs(vrf.id, arg.vrfid()) &&
             arg.max_mroute() == family->second.maxRoutes;
    }
  }
  return false;
}

// An instance of a VRF and family that the file has.
bool GraphDiffer::isConfigured(const std::string& module) const {
  const auto what = Roles(steps_.now).served(module);
  return what.has_value() &&
         std::any_of(config_.vrfs.begin(), config_.vrfs.end(), [&](const VrfConfig& vrf) {
           return vrf.name == what->first && vrf.families.contains(what->second);
         });
}

void GraphDiffer::remove() {
  chooseGates();
  removeInterfaces();
  removeConnections();
  removeModules();
  removePorts();
}

// The gates of `in` by which packets of each VRF leave: those that lead to its instances now, else
// free ones.
void GraphDiffer::chooseGates() {
  for (const VrfConfig& vrf : config_.vrfs) {
    const Roles roles(steps_.now);
    for (const auto& [from, to] : steps_.now.connections) {
      const auto what = roles.served(to.first);
      if (from.first == roles.in() && what.has_value() && what->first == vrf.name) {
        const uint32_t offset = what->second == Family::kIpv4 ? 0 : 1;
        gateBases_[vrf.name] = from.second < offset ? 0 : from.second - offset;
      }
    }
  }
  for (const VrfConfig& vrf : config_.vrfs) {
    if (!gateBases_.contains(vrf.name)) {
      uint32_t base = 0;
      while (!isFree(base)) {
        base += kGatesOfVrf;
      }
      gateBases_[vrf.name] = base;
    }
  }
}

bool GraphDiffer::isFree(uint32_t base) const {
  return std::none_of(gateBases_.begin(), gateBases_.end(), [&](const auto& vrf) {
    return vrf.second < base + kGatesOfVrf && base < vrf.second + kGatesOfVrf;
  });
}

bool GraphDiffer::sameIntf(const IntfConfig& intf, const RunningIntf& running, bool in) const {
  const auto port = steps_.now.ports.find(intf.port);
  if (port == steps_.now.ports.end() || goingPorts_.contains(intf.port)) {
    return false;
  }
  const auto base = gateBases_.find(intf.vrf);
  return running.port == port->second.id && running.vlan == intf.vlan &&
         running.mac == intf.mac.value_or(port->second.mac) &&
         (!in || base == gateBases_.end() || running.gateBase == base->second);
}

void GraphDiffer::removeInterfaces() {
  const Roles roles(steps_.now);
  for (const std::string& module : {roles.in(), roles.out()}) {
    if (module.empty() || !isWanted(module)) {
      continue;  // they go with the module
    }
    const auto entries = steps_.now.edges[module];
    for (const auto& [name, running] : entries) {
      const IntfConfig* intf = intfConfig(name);
      if (intf == nullptr || !sameIntf(*intf, running, module == roles.in())) {
        steps_.removeInterface(module, name);
      }
    }
  }
}

// Gates of VRFs that are gone.
void GraphDiffer::removeConnections() {
  const Roles roles(steps_.now);
  const auto connections = steps_.now.connections;
  for (const auto& [from, to] : connections) {
    const bool used = std::any_of(gateBases_.begin(), gateBases_.end(), [&](const auto& vrf) {
      return from.second >= vrf.second && from.second < vrf.second + kGatesOfVrf;
    });
    if (from.first == roles.in() && isWanted(from.first) && to.first == roles.sink() && !used) {
      steps_.disconnect(from);
    }
  }
}

void GraphDiffer::removeModules() {
  const auto modules = steps_.now.modules;
  for (const auto& [name, module] : modules) {
    const Roles roles(steps_.now);
    const std::string port = roles.portOf(name);
    // A port that is made anew takes everybody's module of it along; the graph's own come back.
    const bool mine = roles.isOwn(name) || (!port.empty() && goingPorts_.contains(port)) ||
                      (module.className == "IntfIn" && name == roles.in()) || isConfigured(name);
    if (mine && !isWanted(name)) {
      steps_.removeModule(name);
    }
  }
}

void GraphDiffer::removePorts() {
  for (const std::string& name : goingPorts_) {
    bess::pb::NameRequest request;
    request.set_name(name);
    const std::string detail =
        portConfig(name) != nullptr ? "to be made anew with other settings" : "";
    steps_.add(Change::kRemove, "port", name, detail, [request](Executor& executor) {
      executor.client().call(&Stub::DestroyPort, request);
    });
    steps_.now.ports.erase(name);
  }
}

}  // namespace Sfectl
