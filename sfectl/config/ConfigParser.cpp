#include "sfectl/config/ConfigParser.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include "sfectl/Errors.h"
#include "sfectl/Report.h"
#include "sfectl/config/ConfigFields.h"
#include "sfectl/config/YamlReader.h"

namespace Sfectl {
namespace {

constexpr size_t kMaxFileBytes = 64 << 20;
constexpr uint32_t kMaxCore = 1023;
constexpr uint32_t kMaxPublishPeriod = 3'600'000;  // milliseconds

using Node = YAML::Node;

class Parser {
 public:
  explicit Parser(Problems& problems) : reader_(problems), fields_(reader_) {}

  Config parse(const Node& root) {
    KeyReader keys(reader_, root, "the file");
    keys.take("workers", [this](const Node& node) { workers(node); });
    keys.take("publish_period", [this](const Node& node) {
      config_.publishPeriod = reader_.number(node, "publish_period", 1, kMaxPublishPeriod);
    });
    keys.take("ethernet_mode", [this](const Node& node) {
      config_.ethernetMode = reader_.boolean(node, "ethernet_mode").value_or(true);
    });
    keys.take("bridge_mac", [this](const Node& node) { shared_.bridgeMac = fields_.mac(node); });
    keys.take("ports", [this](const Node& node) { ports(node); });
    keys.take("interfaces", [this](const Node& node) { interfaces(node); });
    bool hasVrfs = false;
    keys.take("vrfs", [&](const Node& node) {
      hasVrfs = true;
      vrfs(node);
    });
    keys.take("routes", [this](const Node& node) {
      reader_.list(node, "routes", [this](const Node& item) { route(item); });
    });
    // A file that says nothing asks for no VRF either.
    if (!hasVrfs &&
        (!config_.ports.empty() || !config_.interfaces.empty() || !config_.routes.empty())) {
      VrfConfig vrf;
      vrf.name = kDefaultVrfName;
      vrf.families = {{Family::kIpv4, shared_}, {Family::kIpv6, shared_}};
      config_.vrfs.push_back(vrf);
    }
    keys.take("toggles", [this](const Node& node) { toggles(node); });
    keys.finish();
    return std::move(config_);
  }

 private:
  void workers(const Node& node) {
    if (node.IsNull()) {
      return;
    }
    config_.workers.emplace();
    if (node.IsScalar()) {
      const uint32_t count = reader_.number(node, "workers", 1, kMaxWorkerId + 1).value_or(0);
      for (uint32_t id = 0; id < count; ++id) {
        config_.workers->push_back({id, std::nullopt});
      }
      return;
    }
    reader_.list(node, "workers", [this](const Node& item) { worker(item); });
    if (node.IsSequence() && node.size() == 0) {
      reader_.wrong(node, "workers is an empty list; expected a core for each worker");
    }
  }

  void worker(const Node& node) {
    WorkerConfig worker;
    worker.id = static_cast<uint32_t>(config_.workers->size());
    if (node.IsScalar()) {
      worker.core = reader_.number(node, "a worker's core", 0, kMaxCore);
    } else {
      KeyReader keys(reader_, node, "a worker");
      keys.take("id", [&](const Node& value) {
        worker.id = reader_.number(value, "id", 0, kMaxWorkerId).value_or(worker.id);
      });
      keys.take("core", [&](const Node& value) {
        worker.core = reader_.number(value, "core", 0, kMaxCore);
      });
      keys.finish();
    }
    if (worker.id > kMaxWorkerId) {
      reader_.wrong(node, "more than " + std::to_string(kMaxWorkerId + 1) + " workers");
    }
    for (const WorkerConfig& other : *config_.workers) {
      if (other.id == worker.id) {
        reader_.wrong(
            node, "worker " + std::to_string(worker.id) + " appears twice; expected each id once");
      } else if (worker.core.has_value() && other.core == worker.core) {
        reader_.wrong(node, "core " + std::to_string(*worker.core) + " has worker " +
                                std::to_string(other.id) +
                                " already; expected a core for each worker");
      }
    }
    config_.workers->push_back(worker);
  }

  void ports(const Node& node) {
    reader_.named(node, "ports",
                  [this](const std::string& name, const Node& key, const Node& value) {
                    PortConfig port;
                    port.name = name;
                    port.place = placeOf(key);
                    std::string fault = nameFault(name, kMaxPortName);
                    if (name == kNoneWord) {
                      fault = "is kept for interfaces on no port; expected another name";
                    }
                    if (!fault.empty()) {
                      reader_.wrong(key, "the port's name " + inQuotes(name) + " " + fault);
                    }
                    if (value.IsScalar()) {
                      port.devargs = fields_.devargs(value);
                    } else {
                      portKeys(value, port);
                    }
                    config_.ports.push_back(port);
                  });
  }

  void portKeys(const Node& node, PortConfig& port) {
    constexpr uint32_t kMaxQueues = 1024;
    constexpr uint32_t kMaxQueueSize = 65535;
    constexpr uint32_t kMinMtu = 68;
    constexpr uint32_t kMaxMtu = 16000;
    KeyReader keys(reader_, node, "a port");
    keys.need("devargs", "devargs: DEVICE, such as net_af_packet0,iface=eth0",
              [&](const Node& value) { port.devargs = fields_.devargs(value); });
    const auto number = [&](const char* key, std::optional<uint32_t>& out, uint32_t low,
                            uint32_t high) {
      keys.take(key, [&](const Node& value) { out = reader_.number(value, key, low, high); });
    };
    number("rxq", port.rxq, 1, kMaxQueues);
    number("txq", port.txq, 1, kMaxQueues);
    number("queue_size", port.queueSize, 1, kMaxQueueSize);
    number("mtu", port.mtu, kMinMtu, kMaxMtu);
    keys.take("promiscuous",
              [&](const Node& value) { port.promiscuous = reader_.boolean(value, "promiscuous"); });
    keys.take("allmulticast", [&](const Node& value) {
      port.allMulticast = reader_.boolean(value, "allmulticast");
    });
    keys.take("worker", [&](const Node& value) { port.workers = fields_.workers(value); });
    keys.finish();
  }

  void interfaces(const Node& node) {
    reader_.named(node, "interfaces",
                  [this](const std::string& name, const Node& key, const Node& value) {
                    interface(name, key, value);
                  });
  }

  void interface(const std::string& name, const Node& key, const Node& value) {
    IntfConfig intf;
    intf.name = name;
    intf.place = intf.portPlace = intf.vrfPlace = placeOf(key);
    const std::optional<uint64_t> id = fields_.intfId(key, "the interface's name", name);
    std::optional<uint32_t> vlan;
    Place vlanPlace;
    const auto port = [&](const Node& node) {
      intf.portPlace = placeOf(node);
      const auto word = reader_.text(node, "port");
      intf.port = !word.has_value() || *word == kNoneWord ? "" : *word;
    };
    if (value.IsScalar()) {
      port(value);
    } else {
      KeyReader keys(reader_, value, "interface " + inQuotes(name));
      keys.need("port", "port: NAME, or port: none for an interface that lies on no port", port);
      keys.take("vlan", [&](const Node& node) {
        vlan = reader_.number(node, "vlan", 1, kMaxVlan);
        vlanPlace = placeOf(node);
      });
      keys.take("mac", [&](const Node& node) { intf.mac = fields_.mac(node); });
      keys.take("vrf", [&](const Node& node) {
        intf.vrfPlace = placeOf(node);
        intf.vrf = reader_.text(node, "vrf").value_or(kDefaultVrfName);
      });
      keys.take("multicast", [&](const Node& node) { intf.multicast = fields_.families(node); });
      keys.finish();
    }
    if (id.has_value()) {
      intf.vlan = fields_.vlanOf(*id);
      if (vlan.has_value() && *vlan != intf.vlan) {
        reader_.wrong(vlanPlace,
                      "vlan is " + std::to_string(*vlan) + " and the name " + inQuotes(name) +
                          " says " + (intf.vlan == 0 ? "untagged" : std::to_string(intf.vlan)) +
                          "; expected the name Vlan" + std::to_string(*vlan) + ", or no vlan");
      }
      if (!intf.port.empty() && !fields_.canHavePort(name)) {
        reader_.wrong(intf.portPlace, "interface " + inQuotes(name) +
                                          " cannot lie on a port; expected port: none, or a name "
                                          "such as Ethernet3, Ethernet3.100 or Vlan100");
      }
    }
    config_.interfaces.push_back(intf);
  }

  void vrfs(const Node& node) {
    reader_.named(
        node, "vrfs", [this](const std::string& name, const Node& key, const Node& value) {
          VrfConfig vrf;
          vrf.name = name;
          vrf.place = placeOf(key);
          if (const std::string fault = nameFault(name, kMaxVrfName); !fault.empty()) {
            reader_.wrong(key, "the VRF's name " + inQuotes(name) + " " + fault);
          }
          KeyReader keys(reader_, value, "VRF " + inQuotes(name));
          keys.take("id",
                    [&](const Node& id) { vrf.id = reader_.number(id, "id", 0, kMaxNumber); });
          keys.take("exclusive_routes", [&](const Node& exclusive) {
            vrf.exclusiveRoutes = reader_.boolean(exclusive, "exclusive_routes").value_or(true);
          });
          std::set<Family> families{Family::kIpv4, Family::kIpv6};
          keys.take("families", [&](const Node& list) { families = fields_.familyList(list); });
          InstanceConfig both = shared_;
          fields_.instance(keys, both);
          for (const Family family : families) {
            vrf.families.emplace(family, both);
          }
          for (const Family family : kFamilies) {
            familyKeys(keys, family, vrf);
          }
          keys.finish();
          config_.vrfs.push_back(vrf);
        });
  }

  // What holds for one of the families only.
  void familyKeys(KeyReader& keys, Family family, VrfConfig& vrf) {
    const std::string word = familyWord(family);
    keys.take(word, [&](const Node& value) {
      InstanceConfig own = vrf.families.contains(family) ? vrf.families[family] : shared_;
      KeyReader inner(reader_, value, word + " of VRF " + inQuotes(vrf.name));
      fields_.instance(inner, own);
      inner.finish();
      if (!vrf.families.contains(family)) {
        reader_.wrong(value, "VRF " + inQuotes(vrf.name) + " does not serve " + word +
                                 "; add it to families or leave this out");
        return;
      }
      vrf.families[family] = own;
    });
  }

  void route(const Node& node) {
    VrfRoute route;
    if (fields_.route(node, route)) {
      config_.routes.push_back(std::move(route));
    }
  }

  void toggles(const Node& node) {
    reader_.named(node, "toggles", [this](const std::string& name, const Node&, const Node& value) {
      if (const auto on = reader_.boolean(value, "toggle " + inQuotes(name))) {
        config_.toggles[name] = *on;
      }
    });
  }

  YamlReader reader_;
  ConfigFields fields_;
  Config config_;
  InstanceConfig shared_;  // what the top of the file says for every instance
};

// The one document of the text; a problem and nothing when it is not YAML.
std::optional<Node> load(const std::string& text, Problems& problems) {
  if (text.size() > kMaxFileBytes) {
    problems.add({}, "more than " + std::to_string(kMaxFileBytes >> 20) + " MB");
    return std::nullopt;
  }
  if (text.find('\0') != std::string::npos) {
    problems.add({}, "a zero byte; expected YAML text");
    return std::nullopt;
  }
  try {
    const std::vector<Node> documents = YAML::LoadAll(text);
    if (documents.size() > 1) {
      problems.add(placeOf(documents[1]), "a second document; expected one");
      return std::nullopt;
    }
    if (documents.empty() || documents[0].IsNull()) {
      problems.add({1, 1},
                   "the file says nothing; expected ports, interfaces and routes (or {} "
                   "for an empty configuration)");
      return std::nullopt;
    }
    return documents[0];
  } catch (const YAML::Exception& error) {
    const bool known = !error.mark.is_null();
    problems.add(known ? Place{error.mark.line + 1, error.mark.column + 1} : Place{},
                 "this is not YAML: " + printable(error.msg));
    return std::nullopt;
  }
}

}  // namespace

std::string nameFault(const std::string& name, size_t limit) {
  const bool good = !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-' || c == '.';
  });
  if (!good || name.size() > limit) {
    return "is not possible; expected 1 to " + std::to_string(limit) +
           " letters, digits, '_', '-', '.'";
  }
  return "";
}

ParsedConfig parseConfig(const std::string& text, const std::string& file) {
  Problems problems(file);
  Problems warnings(file);
  ParsedConfig result;
  if (const std::optional<Node> root = load(text, problems)) {
    result.config = Parser(problems).parse(*root);
    checkConfig(result.config, problems, warnings);
  }
  if (!problems.empty()) {
    throw FileError(problems);
  }
  result.warnings = warnings.lines();
  return result;
}

ParsedConfig readConfigFile(const std::string& path) {
  std::ostringstream text;
  if (path == "-") {
    text << std::cin.rdbuf();
    return parseConfig(text.str(), "standard input");
  }
  std::ifstream file(path, std::ios::binary);
  if (!file || !(text << file.rdbuf())) {
    if (!file || file.bad() || file.peek() != std::char_traits<char>::eof()) {
      throw RuntimeError("cannot read " + printable(path) + ": " + std::strerror(errno));
    }
  }
  return parseConfig(text.str(), path);
}

}  // namespace Sfectl
