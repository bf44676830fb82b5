#include "sfectl/config/ConfigWriter.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

#include "sfectl/Arguments.h"

namespace Sfectl {
namespace {

bool isLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

std::string escaped(const std::string& text) {
  std::string result = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      result += '\\';
    }
    if (static_cast<unsigned char>(c) < ' ') {
      char code[5];
      std::snprintf(code, sizeof(code), "\\x%02x", static_cast<unsigned char>(c));
      result += code;
    } else {
      result += c;
    }
  }
  return result + "\"";
}

std::string address(const std::string& bytes) {
  const std::string text = addressText(bytes);
  return bytes.size() == 4 ? text : escaped(text);
}

std::string macWord(const std::string& bytes) {
  return escaped(macText(bytes));
}

std::string workerWord(int worker) {
  return worker == kNoWorker ? "none" : std::to_string(worker);
}

std::string flowList(const std::vector<std::string>& items) {
  std::string text;
  for (const std::string& item : items) {
    text += (text.empty() ? "" : ", ") + item;
  }
  return "[" + text + "]";
}

// Keys and values of one entry, on one line or on several.
class Keys {
 public:
  void add(const std::string& key, const std::string& value) { all_.emplace_back(key, value); }
  void number(const std::string& key, const std::optional<uint32_t>& value) {
    if (value.has_value()) {
      add(key, std::to_string(*value));
    }
  }
  void boolean(const std::string& key, const std::optional<bool>& value) {
    if (value.has_value()) {
      add(key, *value ? "true" : "false");
    }
  }
  void unless(const std::string& key, uint32_t value, uint32_t usual) {
    if (value != usual) {
      add(key, std::to_string(value));
    }
  }
  bool empty() const { return all_.empty(); }
  std::string flow() const {
    std::string text;
    for (const auto& [key, value] : all_) {
      text += (text.empty() ? "" : ", ") + key + ": " + value;
    }
    return "{" + text + "}";
  }
  const std::vector<std::pair<std::string, std::string>>& all() const { return all_; }

 private:
  std::vector<std::pair<std::string, std::string>> all_;
};

class Writer {
 public:
  explicit Writer(const Config& config) : config_(config) {}

  std::string write() {
    workers();
    if (config_.publishPeriod.has_value()) {
      out_ << "publish_period: " << *config_.publishPeriod << "\n";
    }
    if (!config_.ethernetMode) {
      out_ << "ethernet_mode: false\n";
    }
    commonMac();
    ports();
    interfaces();
    vrfs();
    routes();
    if (!config_.toggles.empty()) {
      out_ << "\ntoggles:\n";
      for (const auto& [name, on] : config_.toggles) {
        out_ << "  " << yamlText(name) << ": " << (on ? "true" : "false") << "\n";
      }
    }
    const std::string text = out_.str();
    return text.empty() ? "{}\n" : text.starts_with('\n') ? text.substr(1) : text;
  }

 private:
  void workers() {
    if (!config_.workers.has_value()) {
      return;
    }
    bool plain = true;    // without cores
    bool inOrder = true;  // 0, 1, 2, ...
    std::vector<std::string> items;
    for (const WorkerConfig& worker : *config_.workers) {
      plain = plain && !worker.core.has_value();
      inOrder = inOrder && worker.id == items.size();
      Keys keys;
      keys.number("id", worker.id);
      keys.number("core", worker.core);
      items.push_back(keys.flow());
    }
    if (plain && inOrder && !items.empty()) {
      out_ << "workers: " << items.size() << "\n";
      return;
    }
    out_ << "workers: " << flowList(items) << "\n";
  }

  // The address that every instance has, said once.
  void commonMac() {
    std::set<std::optional<std::string>> macs;
    for (const VrfConfig& vrf : config_.vrfs) {
      for (const auto& [family, instance] : vrf.families) {
        macs.insert(instance.bridgeMac);
      }
    }
    if (macs.size() == 1 && macs.begin()->has_value()) {
      commonMac_ = *macs.begin();
      out_ << "bridge_mac: " << macWord(**macs.begin()) << "\n";
    }
  }

  void ports() {
    if (!config_.ports.empty()) {
      out_ << "\nports:\n";
    }
    for (const PortConfig& port : config_.ports) {
      Keys keys;
      keys.number("rxq", port.rxq);
      keys.number("txq", port.txq);
      keys.number("queue_size", port.queueSize);
      keys.number("mtu", port.mtu);
      keys.boolean("promiscuous", port.promiscuous);
      keys.boolean("allmulticast", port.allMulticast);
      if (port.workers.has_value()) {
        std::vector<std::string> items;
        for (const int worker : *port.workers) {
          items.push_back(workerWord(worker));
        }
        keys.add("worker", items.size() == 1 ? items[0] : flowList(items));
      }
      out_ << "  " << yamlText(port.name) << ":";
      if (keys.empty()) {
        out_ << " " << yamlText(port.devargs) << "\n";
        continue;
      }
      out_ << "\n    devargs: " << yamlText(port.devargs) << "\n";
      for (const auto& [key, value] : keys.all()) {
        out_ << "    " << key << ": " << value << "\n";
      }
    }
  }

  void interfaces() {
    if (!config_.interfaces.empty()) {
      out_ << "\ninterfaces:\n";
    }
    for (const IntfConfig& intf : config_.interfaces) {
      Keys keys;
      keys.add("port", intf.port.empty() ? "none" : yamlText(intf.port));
      if (intf.mac.has_value()) {
        keys.add("mac", macWord(*intf.mac));
      }
      if (intf.vrf != kDefaultVrfName) {
        keys.add("vrf", yamlText(intf.vrf));
      }
      if (intf.multicast.size() != 2) {
        keys.add("multicast",
                 intf.multicast.empty() ? "false" : familyWord(*intf.multicast.begin()));
      }
      const bool onePort = keys.all().size() == 1;
      out_ << "  " << intf.name << ": " << (onePort ? keys.all()[0].second : keys.flow()) << "\n";
    }
  }

  Keys settings(const InstanceConfig& instance) const {
    const InstanceConfig usual;
    Keys keys;
    if (instance.bridgeMac != commonMac_ && instance.bridgeMac.has_value()) {
      keys.add("bridge_mac", macWord(*instance.bridgeMac));
    }
    keys.unless("suppression_timer", instance.suppressionTimer, usual.suppressionTimer);
    keys.unless("cache_entries", instance.cacheEntries, usual.cacheEntries);
    keys.unless("cache_packets", instance.cachePackets, usual.cachePackets);
    keys.unless("cache_expiry", instance.cacheExpiry, usual.cacheExpiry);
    keys.unless("max_routes", instance.maxRoutes, usual.maxRoutes);
    keys.unless("cleanup_rate", instance.cleanupRate, usual.cleanupRate);
    if (instance.worker.has_value()) {
      keys.add("worker", workerWord(*instance.worker));
    }
    if (!instance.extraInterfaces.empty()) {
      keys.add("extra_interfaces", flowList(instance.extraInterfaces));
    }
    return keys;
  }

  Keys vrfKeys(const VrfConfig& vrf) const {
    Keys keys;
    keys.number("id", vrf.id);
    if (!vrf.exclusiveRoutes) {
      keys.add("exclusive_routes", "false");
    }
    std::vector<std::string> families;
    std::vector<Keys> own;
    for (const auto& [family, instance] : vrf.families) {
      families.emplace_back(familyWord(family));
      own.push_back(settings(instance));
    }
    if (families.size() == 1) {
      keys.add("families", flowList(families));
    }
    // What both families have is said once.
    const bool same = own.size() == 1 || (own.size() == 2 && own[0].all() == own[1].all());
    for (size_t i = 0; i < own.size(); ++i) {
      if (!same && !own[i].empty()) {
        keys.add(families[i], own[i].flow());
      }
    }
    if (same) {
      for (const auto& [key, value] : own[0].all()) {
        keys.add(key, value);
      }
    }
    return keys;
  }

  void vrfs() {
    std::vector<std::pair<std::string, Keys>> entries;
    for (const VrfConfig& vrf : config_.vrfs) {
      entries.emplace_back(vrf.name, vrfKeys(vrf));
    }
    const bool usual =
        entries.size() == 1 && entries[0].first == kDefaultVrfName && entries[0].second.empty();
    if (usual) {
      return;
    }
    out_ << "\nvrfs:" << (entries.empty() ? " {}" : "") << "\n";
    for (const auto& [name, keys] : entries) {
      out_ << "  " << yamlText(name) << ":" << (keys.empty() ? " {}" : "") << "\n";
      for (const auto& [key, value] : keys.all()) {
        out_ << "    " << key << ": " << value << "\n";
      }
    }
  }

  void routes() {
    if (!config_.routes.empty()) {
      out_ << "\nroutes:\n";
    }
    for (const VrfRoute& entry : config_.routes) {
      out_ << "  - " << routeKeys(entry).flow() << "\n";
    }
  }

  static Keys routeKeys(const VrfRoute& entry) {
    const RouteConfig& route = entry.route;
    Keys keys;
    if (route.key.source.find_first_not_of('\0') != std::string::npos) {
      keys.add("source", address(route.key.source));
    }
    keys.add("group", address(route.key.group));
    if (entry.vrf != kDefaultVrfName) {
      keys.add("vrf", yamlText(entry.vrf));
    }
    keys.add("iif", intfText(route.iif));
    std::vector<std::string> oifs;
    for (const auto& [intf, gate] : route.oifs) {
      const std::string name = intfText(intf);
      oifs.push_back(gate == kRouteGate ? name : escaped(name + ":" + std::to_string(gate)));
    }
    keys.add("oifs", flowList(oifs));
    const auto intf = [&](const char* key, uint64_t id) {
      if (id != 0) {
        keys.add(key, intfText(id));
      }
    };
    intf("iif_frr", route.iifFrr);
    intf("notify", route.notify);
    intf("fastdrop", route.fastdrop);
    std::vector<std::string> flags;
    const auto flag = [&](const char* name, bool set) {
      if (set) {
        flags.emplace_back(name);
      }
    };
    flag("to_cpu", route.toCpu);
    flag("iif_register", route.iifRegister);
    flag("oif_register", route.oifRegister);
    if (!flags.empty()) {
      keys.add("flags", flowList(flags));
    }
    return keys;
  }

  const Config& config_;
  std::optional<std::string> commonMac_;
  std::ostringstream out_;
};

}  // namespace

std::string writeConfig(const Config& config) {
  return Writer(config).write();
}

std::string yamlText(const std::string& text) {
  static const std::set<std::string> kWords{"true", "false", "null", "yes", "no",
                                            "on",   "off",   "y",    "n"};
  std::string lower = text;
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
  const bool plain =
      !text.empty() && isLetter(text[0]) && !kWords.contains(lower) &&
      std::all_of(text.begin(), text.end(), [](char c) {
        return isLetter(c) || isDigit(c) || std::string("_./=,-").find(c) != std::string::npos;
      });
  return plain ? text : escaped(text);
}

}  // namespace Sfectl
