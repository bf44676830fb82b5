#include "sfectl/config/RunningConfig.h"

#include <algorithm>

#include "Nynet/IntfId.h"
#include "sfectl/config/ConfigFields.h"

namespace Sfectl {
namespace {

constexpr uint32_t kUsualMtu = 1500;

class Saver {
 public:
  explicit Saver(const Running& running) : running_(running), roles_(running) {}

  Config save() {
    if (running_.publishPeriod != kUsualPublishPeriod) {
      config_.publishPeriod = running_.publishPeriod;
    }
    workers();
    ports();
    instances();
    ethernetMode();
    interfaces();
    for (const VrfConfig& vrf : config_.vrfs) {
      for (const auto& [family, instance] : vrf.families) {
        routes(vrf.name, family);
      }
    }
    unknownInterfaces();
    extraInterfaces();
    return std::move(config_);
  }

 private:
  void workers() {
    if (running_.workers.empty()) {
      return;
    }
    config_.workers.emplace();
    for (const auto& [id, core] : running_.workers) {
      config_.workers->push_back(
          {id, core < 0 ? std::nullopt : std::optional<uint32_t>(static_cast<uint32_t>(core))});
    }
  }

  // Said only where there is something to choose.
  std::optional<int> workerOf(const std::string& module, std::optional<uint32_t> task) const {
    const auto found =
        task.has_value() ? running_.tasks.find({module, *task}) : running_.tasks.end();
    if (found == running_.tasks.end() ||
        (running_.workers.size() <= 1 && found->second.worker != kNoWorker)) {
      return std::nullopt;
    }
    return found->second.worker;
  }

  bool isUsed(const std::string& name, uint32_t id) const {
    const auto on = [&](const std::string& module) {
      const auto edge = running_.edges.find(module);
      return edge != running_.edges.end() &&
             std::any_of(edge->second.begin(), edge->second.end(),
                         [&](const auto& intf) { return intf.second.port == id; });
    };
    return !roles_.reader(name).empty() || !roles_.sender(name).empty() || on(roles_.in()) ||
           on(roles_.out());
  }

  void ports() {
    const size_t workers = std::max<size_t>(1, running_.workers.size());
    for (const auto& [name, running] : running_.ports) {
      if (!isUsed(name, running.id)) {
        continue;
      }
      PortConfig port;
      port.name = name;
      port.devargs = running.devargs;
      const auto unless = [](uint32_t value, size_t usual) {
        return value == usual ? std::nullopt : std::optional<uint32_t>(value);
      };
      port.rxq = unless(running.rxq, 1);
      port.txq = unless(running.txq, workers);
      port.queueSize = unless(running.queueSize, 0);
      port.mtu = unless(running.mtu, kUsualMtu);
      // One of the two is what a port gets that nobody asked: the driver decides which.
      if (running.promiscuous == running.allMulticast) {
        port.promiscuous = running.promiscuous;
        port.allMulticast = running.allMulticast;
      }
      std::vector<int> pinned;
      for (uint32_t queue = 0; queue < running.rxq; ++queue) {
        if (const auto worker = workerOf(roles_.reader(name), queue)) {
          pinned.push_back(*worker);
        }
      }
      if (pinned.size() == running.rxq) {
        port.workers = pinned;
      }
      config_.ports.push_back(port);
    }
  }

  void instances() {
    std::map<std::string, VrfConfig> vrfs;
    for (const auto& [module, running] : running_.instances) {
      const auto what = roles_.served(module);
      if (!what.has_value() || roles_.instance(what->first, what->second) != module) {
        continue;
      }
      sfe::pb::MfibArg arg;
      running_.modules.at(module).arg.UnpackTo(&arg);
      VrfConfig& vrf = vrfs[what->first];
      vrf.name = what->first;
      if (arg.vrfid() != 0) {
        vrf.id = arg.vrfid();
      }
      InstanceConfig& instance = vrf.families[what->second];
      instance = running.settings;
      instance.maxRoutes = arg.max_mroute();
      instance.worker = workerOf(module, running.resolveTask);
      const auto cleanup = running_.tasks.find({module, running.cleanupTask.value_or(0)});
      if (running.cleanupTask.has_value() && cleanup != running_.tasks.end() &&
          cleanup->second.rate != 0) {
        instance.cleanupRate = static_cast<uint32_t>(cleanup->second.rate);
      }
    }
    for (auto& [name, vrf] : vrfs) {
      config_.vrfs.push_back(std::move(vrf));
    }
  }

  void ethernetMode() {
    sfe::pb::IntfInArg in;
    const auto module = running_.modules.find(roles_.in());
    if (module != running_.modules.end() && module->second.arg.UnpackTo(&in)) {
      config_.ethernetMode = !in.strip_ipv4();
    }
  }

  // The VRF whose instance the interface's packets reach.
  std::string vrfOf(const RunningIntf& intf) const {
    for (const Family family : kFamilies) {
      const uint32_t gate = intf.gateBase + (family == Family::kIpv4 ? 0 : 1);
      const auto to = running_.connections.find({roles_.in(), gate});
      const auto what =
          to == running_.connections.end() ? std::nullopt : roles_.served(to->second.first);
      if (what.has_value()) {
        return what->first;
      }
    }
    return fallbackVrf();
  }

  std::string fallbackVrf() const {
    const bool hasDefault =
        std::any_of(config_.vrfs.begin(), config_.vrfs.end(),
                    [](const VrfConfig& vrf) { return vrf.name == kDefaultVrfName; });
    return hasDefault || config_.vrfs.empty() ? kDefaultVrfName : config_.vrfs.front().name;
  }

  bool isEnabled(uint64_t intf, const std::string& vrf, Family family) const {
    const auto instance = running_.instances.find(roles_.instance(vrf, family));
    return instance != running_.instances.end() && instance->second.interfaces.contains(intf);
  }

  void interfaces() {
    std::map<std::string, RunningIntf> all;
    for (const std::string& module : {roles_.in(), roles_.out()}) {
      const auto edge = running_.edges.find(module);
      if (edge != running_.edges.end()) {
        all.insert(edge->second.begin(), edge->second.end());
      }
    }
    for (const auto& [name, running] : all) {
      IntfConfig intf;
      intf.name = name;
      intf.vlan = running.vlan;
      intf.vrf = vrfOf(running);
      intf.port = running_.portName(running.port);
      const RunningPort* port = running_.portById(running.port);
      if (port == nullptr || port->mac != running.mac) {
        intf.mac = running.mac;
      }
      intf.multicast.clear();
      for (const VrfConfig& vrf : config_.vrfs) {
        for (const auto& [family, instance] : vrf.families) {
          const uint64_t id = Nynet::IntfId::fromName(name).value();
          if (vrf.name == intf.vrf && isEnabled(id, vrf.name, family)) {
            intf.multicast.insert(family);
          }
        }
      }
      // A family that the VRF does not serve says nothing.
      if (intf.multicast == servedBy(intf.vrf)) {
        intf.multicast = {Family::kIpv4, Family::kIpv6};
      }
      config_.interfaces.push_back(intf);
    }
    // Numbers in the order of numbers.
    std::sort(config_.interfaces.begin(), config_.interfaces.end(),
              [](const IntfConfig& a, const IntfConfig& b) {
                return Nynet::IntfId::fromName(a.name) < Nynet::IntfId::fromName(b.name);
              });
  }

  std::set<Family> servedBy(const std::string& name) const {
    std::set<Family> families;
    for (const VrfConfig& vrf : config_.vrfs) {
      for (const auto& [family, instance] : vrf.families) {
        if (vrf.name == name) {
          families.insert(family);
        }
      }
    }
    return families;
  }

  void routes(const std::string& vrf, Family family) {
    const auto instance = running_.instances.find(roles_.instance(vrf, family));
    for (const auto& [key, running] : instance->second.routes) {
      VrfRoute route;
      route.vrf = vrf;
      route.route = running;
      config_.routes.push_back(route);
    }
  }

  bool isKnown(uint64_t id) const {
    const std::string name = Nynet::IntfId(id).stringValue();
    return std::any_of(config_.interfaces.begin(), config_.interfaces.end(),
                       [&](const IntfConfig& intf) { return intf.name == name; });
  }

  // A route may name an interface that nobody has made.
  void unknownInterfaces() {
    std::set<uint64_t> named;
    for (const VrfRoute& route : config_.routes) {
      named.insert({route.route.iif, route.route.iifFrr, route.route.notify, route.route.fastdrop});
      for (const auto& [intf, gate] : route.route.oifs) {
        named.insert(intf);
      }
    }
    for (const uint64_t id : named) {
      const std::string name = Nynet::IntfId(id).stringValue();
      if (ConfigFields::canHavePort(name) && !isKnown(id)) {
        IntfConfig intf;
        intf.name = name;
        intf.vlan = ConfigFields::vlanOf(id);
        intf.vrf = fallbackVrf();
        intf.multicast.clear();
        config_.interfaces.push_back(intf);
      }
    }
  }

  // What an instance is enabled for and no interface of its VRF says.
  void extraInterfaces() {
    for (VrfConfig& vrf : config_.vrfs) {
      for (auto& [family, instance] : vrf.families) {
        const auto running = running_.instances.find(roles_.instance(vrf.name, family));
        for (const uint64_t id : running->second.interfaces) {
          const std::string name = Nynet::IntfId(id).stringValue();
          const bool said = std::any_of(config_.interfaces.begin(), config_.interfaces.end(),
                                        [&, family = family](const IntfConfig& intf) {
                                          return intf.name == name && intf.vrf == vrf.name &&
                                                 intf.multicast.contains(family);
                                        });
          if (!said) {
            instance.extraInterfaces.push_back(name);
          }
        }
      }
    }
  }

  const Running& running_;
  const Roles roles_;
  Config config_;
};

}  // namespace

Config configOf(const Running& running) {
  return Saver(running).save();
}

}  // namespace Sfectl
