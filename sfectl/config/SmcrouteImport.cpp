#include "sfectl/config/SmcrouteImport.h"

#include <glob.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>

#include "Nynet/IntfId.h"
#include "sfectl/Arguments.h"
#include "sfectl/Errors.h"
#include "sfectl/Report.h"
#include "sfectl/config/ConfigParser.h"
#include "sfectl/config/ConfigWriter.h"
#include "sfectl/config/Problems.h"

namespace Sfectl {
namespace {

using Words = std::vector<std::string>;

// A line that cannot be expressed; the text says why and what would be right.
class LineError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

Words wordsOf(const std::string& line) {
  std::istringstream stream(line.substr(0, line.find('#')));
  return {std::istream_iterator<std::string>(stream), std::istream_iterator<std::string>()};
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  if (!file || std::filesystem::is_directory(path)) {
    throw RuntimeError("cannot read " + printable(path) + ": " +
                       (file ? "it is a directory" : std::strerror(errno)));
  }
  text << file.rdbuf();
  return text.str();
}

class Importer {
 public:
  ImportResult result;

  void file(const std::string& path, int depth) {
    std::error_code ignored;
    const auto real = std::filesystem::weakly_canonical(path, ignored).string();
    if (!seen_.insert(real).second) {
      return;  // included twice, or by itself
    }
    text(readFile(path), path, depth);
  }

  void text(const std::string& content, const std::string& path, int depth) {
    std::istringstream stream(content);
    int number = 0;
    for (std::string line; std::getline(stream, line);) {
      ++number;
      file_ = path;
      line_ = number;
      const Words words = wordsOf(line);
      if (words.empty()) {
        continue;
      }
      try {
        command(words, path, depth);
      } catch (const LineError& error) {
        result.problems.push_back(where() + error.what());
      }
    }
  }

  void finish() {
    VrfConfig vrf;
    vrf.name = kDefaultVrfName;
    vrf.families = {{Family::kIpv4, {}}, {Family::kIpv6, {}}};
    result.config.vrfs.push_back(vrf);
  }

 private:
  std::string where() const { return printable(file_) + ":" + std::to_string(line_) + ": "; }

  void warn(const std::string& text) { result.warnings.push_back(where() + "warning: " + text); }

  void command(const Words& words, const std::string& path, int depth) {
    if (words[0] == "phyint") {
      phyint(words);
    } else if (words[0] == "mroute") {
      mroute(words);
    } else if (words[0] == "mgroup") {
      warn(
          "mgroup is not for us: a port takes every multicast packet, and nothing is joined; where "
          "a "
          "switch or router in front forwards by membership, let a host on this machine join");
    } else if (words[0] == "include") {
      include(words, path, depth);
    } else {
      const std::string nearest = nearestWord(words[0], {"phyint", "mroute", "mgroup", "include"});
      throw LineError("unknown word " + inQuotes(words[0]) + "; " +
                      (nearest.empty() ? "expected phyint, mroute, mgroup or include"
                                       : "did you mean '" + nearest + "'?"));
    }
  }

  void phyint(const Words& words) {
    if (words.size() < 3 || (words[2] != "enable" && words[2] != "disable")) {
      throw LineError("expected phyint IFNAME enable|disable [ttl-threshold N]");
    }
    IntfConfig& intf = interface(words[1]);
    if (words[2] == "disable") {
      intf.multicast.clear();
    }
    for (size_t i = 3; i < words.size(); ++i) {
      if ((words[i] == "ttl-threshold" || words[i] == "threshold") && i + 1 < words.size()) {
        const uint32_t threshold = ttl(words[++i]);
        if (threshold > 1) {
          warn("ttl-threshold " + words[i] +
               " has no counterpart: every packet whose TTL is above 1 leaves");
        }
      } else if (words[i] != "mrdisc" && words[i] != "igmpv2" && words[i] != "igmpv3") {
        throw LineError("unexpected " + inQuotes(words[i]) +
                        "; expected phyint IFNAME enable|disable [ttl-threshold N]");
      }
    }
  }

  static uint32_t ttl(const std::string& word) {
    constexpr uint32_t kMaxTtl = 255;
    try {
      return parseNumber(word, "ttl-threshold", kMaxTtl);
    } catch (const UsageError& error) {
      throw LineError(error.what());
    }
  }

  void mroute(const Words& words) {
    constexpr const char* kForm =
        "expected mroute from IFNAME [source ADDRESS] group ADDRESS to IFNAME [IFNAME ...]";
    VrfRoute route;
    size_t at = 1;
    const auto next = [&](const char* word) {
      if (at + 1 >= words.size() || words[at] != word) {
        return std::string();
      }
      at += 2;
      return words[at - 1];
    };
    const std::string iif = next("from");
    const std::string source = next("source");
    const std::string group = next("group");
    if (iif.empty() || group.empty() || at >= words.size() || words[at] != "to" ||
        at + 1 == words.size()) {
      throw LineError(kForm);
    }
    route.route.key = key(source, group);
    checkName(iif);
    for (size_t i = at + 1; i < words.size(); ++i) {
      checkName(words[i]);
      if (words[i] == iif) {
        throw LineError(inQuotes(iif) +
                        " is incoming and outgoing; a packet does not leave where it came from");
      }
    }
    checkNew(route.route.key);
    route.route.iif = idOf(iif);
    for (size_t i = at + 1; i < words.size(); ++i) {
      route.route.oifs.emplace(idOf(words[i]), kRouteGate);
    }
    result.config.routes.push_back(route);
  }

  void checkNew(const RouteKey& key) {
    const auto [first, isNew] = routes_.emplace(key, where());
    if (!isNew) {
      throw LineError("route " + routeText(key) + " appears twice, first in " +
                      first->second.substr(0, first->second.size() - 2) +
                      "; expected one line with all outgoing interfaces");
    }
  }

  // The address before a prefix length, which must be `full`, or 0 where `anyIsPossible`.
  struct Prefix {
    Address address;
    bool any = false;
  };
  static Prefix prefix(const std::string& word, const char* what) {
    const size_t slash = word.find('/');
    Prefix result;
    try {
      result.address = parseAddress(word.substr(0, slash), what);
    } catch (const UsageError& error) {
      throw LineError(error.what());
    }
    if (slash == std::string::npos) {
      return result;
    }
    const uint32_t full = result.address.isIpv4() ? 32 : 128;
    uint32_t length = 0;
    try {
      length = parseNumber(word.substr(slash + 1), "prefix length", full);
    } catch (const UsageError& error) {
      throw LineError(error.what());
    }
    result.any = length == 0 && result.address.isAny();
    if (length != full && !result.any) {
      throw LineError(std::string(what) + " " + inQuotes(word) +
                      " is a range, which a route cannot have: expected one " + what +
                      (std::strcmp(what, "source") == 0 ? ", or none for any source"
                                                        : "; write a line for each"));
    }
    return result;
  }

  static RouteKey key(const std::string& source, const std::string& group) {
    const Prefix to = prefix(group, "group");
    if (to.any || !to.address.isMulticast()) {
      throw LineError("group " + inQuotes(group) +
                      " is not multicast; expected an address of 224.0.0.0/4 or ff00::/8");
    }
    RouteKey key;
    key.group = to.address.bytes;
    key.source.assign(key.group.size(), '\0');
    if (source.empty()) {
      return key;
    }
    const Prefix from = prefix(source, "source");
    if (from.address.bytes.size() != key.group.size()) {
      throw LineError("source " + inQuotes(source) + " and group " + inQuotes(group) +
                      " are of different families");
    }
    if (from.address.isMulticast()) {
      throw LineError("source " + inQuotes(source) + " is multicast; expected a sender's address");
    }
    key.source = from.address.bytes;
    return key;
  }

  void include(const Words& words, const std::string& path, int depth) {
    constexpr int kMaxDepth = 16;
    if (words.size() != 2) {
      throw LineError("expected include FILES, one pattern");
    }
    if (depth >= kMaxDepth) {
      throw LineError("more than " + std::to_string(kMaxDepth) + " files include each other");
    }
    const std::string pattern =
        words[1].starts_with('/') ? words[1]
                                  : (std::filesystem::path(path).parent_path() / words[1]).string();
    glob_t found{};
    const int status = ::glob(pattern.c_str(), 0, nullptr, &found);
    const std::vector<std::string> files(found.gl_pathv, found.gl_pathv + found.gl_pathc);
    ::globfree(&found);
    if (status == GLOB_NOMATCH) {
      warn("no file fits " + inQuotes(pattern));
      return;
    }
    if (status != 0) {
      throw LineError("cannot look for " + inQuotes(pattern));
    }
    const std::string before = file_;
    const int line = line_;
    for (const std::string& name : files) {
      file_ = before;
      line_ = line;
      try {
        file(name, depth + 1);
      } catch (const RuntimeError& error) {
        throw LineError(error.what());
      }
    }
  }

  static void checkName(const std::string& name) {
    constexpr size_t kMaxKernelName = 15;
    if (name.find('+') != std::string::npos || name.find('*') != std::string::npos) {
      throw LineError("interface " + inQuotes(name) +
                      " is a pattern, which has no counterpart; write each interface");
    }
    if (name.size() > kMaxKernelName || !nameFault(portName(name), kMaxPortName).empty()) {
      throw LineError(inQuotes(name) + " is not the name of a kernel interface");
    }
  }

  // "eth0.100" -> "eth0" and 100; 0: no VLAN.
  static std::pair<std::string, uint32_t> parent(const std::string& name) {
    constexpr uint32_t kMaxVlan = 4094;
    const size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0) {
      return {name, 0};
    }
    try {
      const uint32_t vlan = parseNumber(name.substr(dot + 1), "VLAN", kMaxVlan);
      return vlan == 0 ? std::make_pair(name, 0u) : std::make_pair(name.substr(0, dot), vlan);
    } catch (const UsageError&) {
      return {name, 0};
    }
  }

  // Kernel names may have letters that a port's name does not.
  static std::string portName(const std::string& device) {
    std::string name = device;
    std::replace_if(
        name.begin(), name.end(),
        [](char c) { return !nameFault(std::string(1, c), 1).empty() && c > ' ' && c <= '~'; },
        '_');
    return name == "none" ? "port_none" : name;
  }

  // The interface's number, and a port for it at its first appearance.
  size_t numberOf(const std::string& device) {
    const auto [found, isNew] = devices_.emplace(device, devices_.size() + 1);
    if (isNew) {
      PortConfig port;
      port.name = portName(device);
      const auto taken = [&](const PortConfig& other) { return other.name == port.name; };
      if (std::any_of(result.config.ports.begin(), result.config.ports.end(), taken)) {
        port.name += "-" + std::to_string(found->second);
      }
      port.devargs = "net_af_packet" + std::to_string(found->second) + ",iface=" + device;
      result.config.ports.push_back(port);
      ports_[device] = port.name;
    }
    return found->second;
  }

  IntfConfig& interface(const std::string& name) {
    checkName(name);
    const auto [device, vlan] = parent(name);
    IntfConfig intf;
    intf.name = "Ethernet" + std::to_string(numberOf(device)) +
                (vlan == 0 ? "" : "." + std::to_string(vlan));
    for (IntfConfig& known : result.config.interfaces) {
      if (known.name == intf.name) {
        return known;
      }
    }
    intf.port = ports_[device];
    intf.vlan = vlan;
    result.interfaces.emplace_back(name, intf.name);
    result.config.interfaces.push_back(intf);
    return result.config.interfaces.back();
  }

  uint64_t idOf(const std::string& name) {
    return Nynet::IntfId::fromName(interface(name).name).value();
  }

  std::string file_;
  int line_ = 0;
  std::set<std::string> seen_;
  std::map<std::string, size_t> devices_;     // kernel devices and their numbers
  std::map<std::string, std::string> ports_;  // of devices
  std::map<RouteKey, std::string> routes_;    // and where they were
};

}  // namespace

ImportResult importSmcroute(const std::vector<std::string>& files) {
  Importer importer;
  for (const std::string& path : files) {
    importer.file(path, 0);
  }
  importer.finish();
  return std::move(importer.result);
}

ImportResult importSmcrouteText(const std::string& text, const std::string& file) {
  Importer importer;
  importer.text(text, file, 0);
  importer.finish();
  return std::move(importer.result);
}

std::string importText(const ImportResult& result) {
  std::string text =
      "# Static routes of an SMCRoute configuration. Each kernel interface is a port on a packet "
      "socket here:\n";
  for (const auto& [kernel, ours] : result.interfaces) {
    text += "#   " + kernel + " -> " + ours + "\n";
  }
  text +=
      "# For more speed replace the ports' devices: net_af_xdp0,iface=eth0, a PCI address, ...\n\n";
  return text + writeConfig(result.config);
}

}  // namespace Sfectl
