// What the parts of a configuration say about each other.

#include <algorithm>
#include <map>

#include "Nynet/IntfId.h"
#include "sfectl/Arguments.h"
#include "sfectl/config/ConfigFields.h"
#include "sfectl/config/ConfigParser.h"

namespace Sfectl {
namespace {

std::string inLine(Place place) {
  return "line " + std::to_string(place.line);
}

class Checker {
 public:
  Checker(const Config& config, Problems& problems, Problems& warnings)
      : config_(config), problems_(problems), warnings_(warnings) {}

  void check() {
    ports();
    interfaces();
    vrfs();
    routes();
  }

 private:
  void ports() {
    std::map<std::string, const PortConfig*> devices;
    for (const PortConfig& port : config_.ports) {
      portNames_.push_back(port.name);
      workersOf(port);
      // Two drivers' arguments differ behind the comma; the device is the word before it.
      const std::string device = port.devargs.substr(0, port.devargs.find(','));
      const auto [first, isNew] = devices.emplace(device, &port);
      if (!isNew && !device.empty()) {
        problems_.add(port.place, "ports " + inQuotes(first->second->name) + " and " +
                                      inQuotes(port.name) + " have one device " + inQuotes(device) +
                                      "; expected a device for each, such as " +
                                      "net_af_packet1,... and net_af_packet2,...");
      }
    }
  }

  void workersOf(const PortConfig& port) {
    if (!port.workers.has_value()) {
      return;
    }
    const size_t queues = port.rxq.value_or(1);
    if (port.workers->size() > 1 && port.workers->size() != queues) {
      problems_.add(port.place, "port " + inQuotes(port.name) + " has " + std::to_string(queues) +
                                    " receive queues and " + std::to_string(port.workers->size()) +
                                    " workers; expected one worker, or one for each queue");
    }
    for (const int worker : *port.workers) {
      workerExists(worker, "port " + inQuotes(port.name), port.place);
    }
  }

  void workerExists(int worker, const std::string& what, Place place) {
    if (worker == kNoWorker || !config_.workers.has_value()) {
      return;
    }
    const bool known =
        std::any_of(config_.workers->begin(), config_.workers->end(),
                    [&](const auto& other) { return other.id == static_cast<uint32_t>(worker); });
    if (!known) {
      problems_.add(place, what + " wants worker " + std::to_string(worker) +
                               ", which 'workers' does not have");
    }
  }

  // The message for a name that is not there.
  static std::string unknown(const std::string& kind,
                             const std::string& name,
                             const std::vector<std::string>& known,
                             const std::string& section) {
    const std::string nearest = nearestWord(name, known);
    return "unknown " + kind + " " + inQuotes(name) + "; " +
           (!nearest.empty()
                ? "did you mean '" + nearest + "'?"
                : "expected one of '" + section + "'" +
                      (known.empty() || known.size() > kMaxShown ? std::string()
                                                                 : ": " + alternatives(known)));
  }

  const VrfConfig* findVrf(const std::string& name) const {
    for (const VrfConfig& vrf : config_.vrfs) {
      if (vrf.name == name) {
        return &vrf;
      }
    }
    return nullptr;
  }

  void interfaces() {
    std::map<std::pair<std::string, uint32_t>, const IntfConfig*> places;
    for (const IntfConfig& intf : config_.interfaces) {
      const auto id = Nynet::IntfId::parse(intf.name);
      if (id.has_value()) {
        byId_.emplace(id->value(), &intf);
        intfNames_.push_back(intf.name);
      }
      if (findVrf(intf.vrf) == nullptr) {
        problems_.add(intf.vrfPlace, unknownVrf(intf.vrf));
      }
      if (intf.port.empty() || !ConfigFields::canHavePort(intf.name)) {
        continue;
      }
      if (std::find(portNames_.begin(), portNames_.end(), intf.port) == portNames_.end()) {
        problems_.add(intf.portPlace, unknown("port", intf.port, portNames_, "ports"));
      }
      const auto [first, isNew] = places.emplace(std::make_pair(intf.port, intf.vlan), &intf);
      if (!isNew) {
        const std::string where =
            intf.vlan == 0 ? "untagged" : "of VLAN " + std::to_string(intf.vlan);
        problems_.add(intf.place, "interfaces " + inQuotes(first->second->name) + " (" +
                                      inLine(first->second->place) + ") and " +
                                      inQuotes(intf.name) + " are both " + where + " on port " +
                                      inQuotes(intf.port) +
                                      "; expected one interface for each port and VLAN");
      }
    }
  }

  std::string unknownVrf(const std::string& name) const {
    std::vector<std::string> names;
    for (const VrfConfig& vrf : config_.vrfs) {
      names.push_back(vrf.name);
    }
    return unknown("VRF", name, names, "vrfs");
  }

  void vrfs() {
    std::map<uint32_t, const VrfConfig*> ids;
    for (const VrfConfig& vrf : config_.vrfs) {
      if (vrf.id.has_value()) {
        const auto [first, isNew] = ids.emplace(*vrf.id, &vrf);
        if (!isNew) {
          problems_.add(vrf.place, "VRFs " + inQuotes(first->second->name) + " and " +
                                       inQuotes(vrf.name) + " have one id " +
                                       std::to_string(*vrf.id) + "; expected an id for each");
        }
      }
      for (const auto& [family, instance] : vrf.families) {
        if (instance.worker.has_value()) {
          workerExists(*instance.worker, "VRF " + inQuotes(vrf.name), vrf.place);
        }
      }
    }
  }

  void routes() {
    std::map<std::pair<std::string, RouteKey>, const VrfRoute*> seen;
    for (const VrfRoute& route : config_.routes) {
      const std::string name = routeText(route.route.key);
      const auto [first, isNew] = seen.emplace(std::make_pair(route.vrf, route.route.key), &route);
      if (!isNew) {
        problems_.add(route.place, "route " + name + " appears twice, first in " +
                                       inLine(first->second->place) +
                                       "; expected one route with all its oifs");
      }
      const VrfConfig* vrf = findVrf(route.vrf);
      if (vrf == nullptr) {
        problems_.add(route.vrfPlace, unknownVrf(route.vrf));
      } else if (!vrf->families.contains(route.route.key.family())) {
        problems_.add(route.place, "route " + name + " is " +
                                       familyTitle(route.route.key.family()) + "; VRF " +
                                       inQuotes(vrf->name) + " does not serve that family");
      }
      for (const IntfReference& reference : route.interfaces) {
        intfOfRoute(route, reference);
      }
    }
  }

  void intfOfRoute(const VrfRoute& route, const IntfReference& reference) {
    const auto found = byId_.find(reference.intf);
    const std::string name = intfText(reference.intf);
    if (found == byId_.end()) {
      if (ConfigFields::canHavePort(name)) {
        problems_.add(reference.place, unknown("interface", name, intfNames_, "interfaces"));
      }
      return;
    }
    if (reference.what == "oifs" && reference.intf == route.route.iif) {
      problems_.add(reference.place, inQuotes(name) + " is the incoming interface of " +
                                         routeText(route.route.key) +
                                         " as well; a packet does not leave where it came from");
    }
    if (reference.what == "iif" && found->second->vrf != route.vrf) {
      warnings_.add(reference.place, "warning: " + inQuotes(name) + " is in VRF " +
                                         inQuotes(found->second->vrf) + " and the route in VRF " +
                                         inQuotes(route.vrf) + ": no packet will take it");
    }
  }

  static constexpr size_t kMaxShown = 8;

  const Config& config_;
  Problems& problems_;
  Problems& warnings_;
  std::vector<std::string> portNames_;
  std::vector<std::string> intfNames_;
  std::map<uint64_t, const IntfConfig*> byId_;
};

}  // namespace

void checkConfig(const Config& config, Problems& problems, Problems& warnings) {
  Checker(config, problems, warnings).check();
}

}  // namespace Sfectl
