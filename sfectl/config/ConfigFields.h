// The parts of a configuration file that are not lists: addresses, interface names, settings of an
// instance, a route.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "sfectl/config/Config.h"
#include "sfectl/config/YamlReader.h"

namespace Sfectl {

// Of a port: no port. Of a worker: no worker.
inline constexpr const char* kNoneWord = "none";
inline constexpr uint32_t kMaxWorkerId = 35;
inline constexpr uint32_t kMaxVlan = 4094;
inline constexpr uint32_t kMaxNumber = 4294967295;

class ConfigFields {
 public:
  explicit ConfigFields(YamlReader& reader) : reader_(reader) {}

  std::optional<std::string> mac(const YAML::Node& node);
  std::string devargs(const YAML::Node& node);
  // One worker for all receive queues, or a list with one for each.
  std::vector<int> workers(const YAML::Node& node);
  // true, false, ipv4, ipv6.
  std::set<Family> families(const YAML::Node& node);
  std::set<Family> familyList(const YAML::Node& node);
  std::optional<uint64_t> intfId(const YAML::Node& node,
                                 const std::string& what,
                                 const std::string& name);
  // Takes the keys of an instance's settings.
  void instance(KeyReader& keys, InstanceConfig& out);
  // Returns: false after a problem that leaves nothing to check further.
  bool route(const YAML::Node& node, VrfRoute& out);

  // 0: untagged.
  static uint32_t vlanOf(uint64_t intf);
  static bool canHavePort(const std::string& name);

 private:
  std::optional<int> worker(const YAML::Node& node);
  std::optional<std::string> source(const YAML::Node& node);
  std::optional<std::string> group(const YAML::Node& node);
  void oif(const YAML::Node& node, VrfRoute& out);
  void flags(const YAML::Node& node, RouteConfig& out);
  bool checkKey(const YAML::Node& node, const std::optional<std::string>& group, RouteConfig& out);

  YamlReader& reader_;
};

}  // namespace Sfectl
