// What is added: the second half of GraphDiffer.

#include <algorithm>

#include "protocol/modules.pb.h"
#include "sfectl/Arguments.h"
#include "sfectl/Client.h"
#include "sfectl/config/GraphDiffer.h"

namespace Sfectl {
namespace {

using Stub = Client::Stub;

constexpr uint32_t kAfIpv4 = 1;
constexpr uint32_t kAfIpv6 = 2;
constexpr uint32_t kNotMineGate = 0;
constexpr uint32_t kHostGate = 2;

uint32_t gateOf(Family family) {
  return family == Family::kIpv4 ? 0 : 1;
}

}  // namespace

void GraphDiffer::add() {
  for (const PortConfig& port : config_.ports) {
    if (!steps_.now.ports.contains(port.name)) {
      addPort(port);
    }
  }
  if (config_.ports.empty() && config_.vrfs.empty()) {
    return;  // nothing of a graph
  }
  addModules();
  addConnections();
  addInterfaces();
  for (const VrfConfig& vrf : config_.vrfs) {
    for (const auto& [family, wanted] : vrf.families) {
      settings(vrf, family, wanted);
    }
  }
}

void GraphDiffer::addPort(const PortConfig& port) {
  bess::pb::CreatePortRequest request;
  request.set_name(port.name);
  request.set_devargs(port.devargs);
  request.set_rxq(port.rxq.value_or(1));
  // A worker without a queue of its own could not send.
  const size_t workers =
      config_.workers.has_value() ? config_.workers->size() : steps_.now.workers.size();
  request.set_txq(port.txq.value_or(std::max<uint32_t>(1, static_cast<uint32_t>(workers))));
  if (port.queueSize.has_value()) {
    request.set_queue_size(*port.queueSize);
  }
  if (port.mtu.has_value()) {
    request.set_mtu(*port.mtu);
  }
  if (port.promiscuous.has_value()) {
    request.set_promiscuous(*port.promiscuous);
  }
  if (port.allMulticast.has_value()) {
    request.set_allmulticast(*port.allMulticast);
  }
  steps_.add(Change::kAdd, "port", port.name, port.devargs,
             [request](Executor& executor) { executor.client().call(&Stub::CreatePort, request); });
}

void GraphDiffer::addModules() {
  const Roles roles(steps_.now);
  if (roles.in().empty()) {
    sfe::pb::IntfInArg arg;
    arg.set_strip_ipv4(!config_.ethernetMode);
    steps_.addModule("IntfIn", Roles::kIn, arg, "");
  }
  if (roles.out().empty()) {
    steps_.addModule("IntfOut", Roles::kOut, sfe::pb::IntfOutArg(), "");
  }
  if (roles.sink().empty()) {
    steps_.addModule("Sink", Roles::kSink, bess::pb::SinkArg(), "");
  }
  for (const VrfConfig& vrf : config_.vrfs) {
    for (const auto& [family, wanted] : vrf.families) {
      if (roles.instance(vrf.name, family).empty()) {
        addInstance(vrf, family);
      }
    }
  }
  for (const PortConfig& port : config_.ports) {
    if (roles.reader(port.name).empty()) {
      bess::pb::PortIncArg arg;
      arg.set_port(port.name);
      steps_.addModule("PortInc", Roles::rxName(port.name), arg, "port " + port.name);
    }
    if (roles.sender(port.name).empty()) {
      bess::pb::PortOutArg arg;
      arg.set_port(port.name);
      steps_.addModule("PortOut", Roles::txName(port.name), arg, "port " + port.name);
    }
  }
}

void GraphDiffer::addInstance(const VrfConfig& vrf, Family family) {
  sfe::pb::MfibArg arg;
  arg.set_vrfname(vrf.name);
  arg.set_af(family == Family::kIpv4 ? kAfIpv4 : kAfIpv6);
  arg.set_ethernet_mode(config_.ethernetMode);
  arg.set_max_mroute(vrf.families.at(family).maxRoutes);
  arg.set_vrfid(vrf.id.value_or(freeVrfId(vrf.name)));
  const std::string name = Roles::instanceName(vrf.name, family);
  steps_.addModule("Mfib", name, arg, "VRF " + vrf.name + ", " + familyTitle(family));
  steps_.now.instances[name] = {};
}

// An id that the file leaves open: 0 for the default VRF, else the id of the VRF's other family,
// else the first that nobody has.
uint32_t GraphDiffer::freeVrfId(const std::string& vrf) const {
  if (vrf == kDefaultVrfName) {
    return 0;
  }
  std::set<uint32_t> taken{0};
  for (const VrfConfig& other : config_.vrfs) {
    taken.insert(other.id.value_or(0));
  }
  for (const auto& [name, module] : steps_.now.modules) {
    sfe::pb::MfibArg arg;
    if (module.arg.UnpackTo(&arg)) {
      if (arg.vrfname() == vrf) {
        return arg.vrfid();
      }
      taken.insert(arg.vrfid());
    }
  }
  uint32_t id = 1;
  while (taken.contains(id)) {
    ++id;
  }
  return id;
}

// True for a module that is a part of the graph of the configuration.
bool GraphDiffer::isPart(const std::string& module) const {
  const Roles roles(steps_.now);
  const std::string port = roles.portOf(module);
  return roles.isOwn(module) || module == roles.in() || module == roles.out() ||
         module == roles.sink() || (!port.empty() && portConfig(port) != nullptr) ||
         isConfigured(module);
}

void GraphDiffer::connect(const GateName& from, const GateName& to) {
  const auto found = steps_.now.connections.find(from);
  if (found != steps_.now.connections.end()) {
    if (found->second == to || !isPart(found->second.first)) {
      return;  // what somebody put in between stays
    }
    steps_.disconnect(from);
  }
  steps_.connect(from, to);
}

void GraphDiffer::addConnections() {
  const Roles roles(steps_.now);
  const std::string in = roles.in();
  const std::string out = roles.out();
  const std::string sink = roles.sink();
  for (const VrfConfig& vrf : config_.vrfs) {
    const uint32_t base = gateBases_[vrf.name];
    for (const Family family : kFamilies) {
      const bool served = vrf.families.contains(family);
      const std::string instance = served ? roles.instance(vrf.name, family) : sink;
      connect({in, base + gateOf(family)}, {instance, 0});
      if (served) {
        connect({instance, kNotMineGate}, {sink, 0});
        connect({instance, kRouteGate}, {out, 0});
      }
    }
    connect({in, base + kHostGate}, {sink, 0});
  }
  for (const PortConfig& port : config_.ports) {
    connect({roles.reader(port.name), 0}, {in, 0});
    const auto running = steps_.now.ports.find(port.name);
    if (running == steps_.now.ports.end()) {
      steps_.connectPort(out, port.name, roles.sender(port.name));
    } else {
      connect({out, running->second.id}, {roles.sender(port.name), 0});
    }
  }
}

void GraphDiffer::addInterfaces() {
  const Roles roles(steps_.now);
  // Out first: when packets arrive, everything can send.
  for (const std::string& module : {roles.out(), roles.in()}) {
    for (const IntfConfig& intf : config_.interfaces) {
      if (!intf.port.empty() && !steps_.now.edges[module].contains(intf.name)) {
        addInterface(module, intf);
      }
    }
  }
}

void GraphDiffer::addInterface(const std::string& module, const IntfConfig& intf) {
  sfe::pb::IntfArg arg;
  arg.set_name(intf.name);
  arg.set_vlan(intf.vlan);
  const bool in = steps_.now.modules.at(module).className == "IntfIn";
  if (in) {
    arg.set_gate_base(gateBases_[intf.vrf]);
  }
  arg.set_mac(intf.mac.value_or(""));
  const std::string detail = "to " + module + ", port " + intf.port +
                             (intf.vlan == 0 ? "" : ", VLAN " + std::to_string(intf.vlan));
  steps_.add(Change::kAdd, "interface", intf.name, detail,
             [module, arg, port = intf.port](Executor& executor) mutable {
               const bess::pb::PortInfo info = executor.port(port);
               arg.set_port(info.id());
               if (arg.mac().empty()) {
                 arg.set_mac(info.mac());
               }
               executor.command(module, "addIntf", arg);
             });
}

void GraphDiffer::bridgeMac(const std::string& module, const InstanceConfig& wanted) {
  const std::optional<std::string>& now = steps_.now.instances[module].settings.bridgeMac;
  if (wanted.bridgeMac.has_value() ? now == wanted.bridgeMac
                                   : now.has_value() || config_.ports.empty()) {
    return;
  }
  const std::string port = config_.ports.empty() ? "" : config_.ports.front().name;
  const std::string detail =
      "bridge_mac " +
      (wanted.bridgeMac.has_value() ? macText(*wanted.bridgeMac) : "of port " + port);
  steps_.add(Change::kChange, "settings", module, detail,
             [module, port, mac = wanted.bridgeMac](Executor& executor) {
               sfe::pb::EthernetConfigArg arg;
               arg.set_mac(mac.has_value() ? *mac : executor.port(port).mac());
               executor.command(module, "setBridgeMacAddr", arg);
             });
}

void GraphDiffer::settings(const VrfConfig& vrf, Family family, const InstanceConfig& wanted) {
  const std::string module = Roles(steps_.now).instance(vrf.name, family);
  const InstanceConfig now = steps_.now.instances[module].settings;
  counterIds(module);
  bridgeMac(module, wanted);
  const auto number = [&](const char* key, const char* command, uint32_t is, uint32_t to) {
    if (is == to) {
      return;
    }
    sfe::pb::SizeArg arg;
    arg.set_value(to);
    steps_.command(
        {Change::kChange, "settings", module,
         key + (" " + std::to_string(is)) + " -> " + std::to_string(to), nullptr, std::nullopt},
        module, command, arg);
  };
  number("suppression_timer", "setNoCacheSuppressionTimer", now.suppressionTimer,
         wanted.suppressionTimer);
  number("cache_entries", "setMaxUnresolvedCacheEntries", now.cacheEntries, wanted.cacheEntries);
  number("cache_packets", "setMaxUnresolvedPktBuffers", now.cachePackets, wanted.cachePackets);
  number("cache_expiry", "setCacheExpiryTimer", now.cacheExpiry, wanted.cacheExpiry);
}

void GraphDiffer::counterIds(const std::string& module) {
  std::vector<uint32_t> ids;
  for (const CounterName& counter : kCounterNames) {
    const auto found = steps_.now.counters.find(module + "." + counter.name);
    if (found != steps_.now.counters.end()) {
      ids.push_back(found->second);
    }
  }
  if (ids.size() == kCounterNames.size() && ids == steps_.now.instances[module].counterIds) {
    return;
  }
  steps_.add(Change::kChange, "settings", module, "ids of its event counters",
             [module](Executor& executor) {
               sfe::pb::MfibCounterIdArg arg;
               for (const CounterName& counter : kCounterNames) {
                 bess::pb::NameRequest request;
                 request.set_name(module + "." + counter.name);
                 (arg.*counter.set)(executor.client().call(&Stub::CounterId, request).id());
               }
               executor.command(module, "setCounterIds", arg);
             });
}

}  // namespace Sfectl
