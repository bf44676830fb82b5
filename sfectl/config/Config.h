// The configuration of a forwarder as its file says it: ports, interfaces, VRFs, routes. Everything
// of the packet graph follows from it (Differ.h).
//
// Ownership  : values; nothing here refers to the file's text.
// Invariants : of a configuration that ConfigParser returned
//   (1) names are unique, and every name that is referred to is there.
//   (2) addresses have 4 or 16 bytes in network order, hardware addresses 6.
//   (3) what is absent is left to the engine: it is chosen when the thing is made, and a thing that
//       is there keeps what it has.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace Sfectl {

inline constexpr const char* kDefaultVrfName = "default";
inline constexpr uint32_t kRouteGate = 1;  // of an instance, to IntfOut

// Where something stands in the file; line 0: nowhere.
struct Place {
  int line = 0;
  int column = 0;
};

struct WorkerConfig {
  uint32_t id = 0;
  std::optional<uint32_t> core;  // absent: not pinned
};

// The worker that runs a task.
inline constexpr int kNoWorker = -1;

struct PortConfig {
  std::string name;
  std::string devargs;
  std::optional<uint32_t> rxq;
  std::optional<uint32_t> txq;
  std::optional<uint32_t> queueSize;
  std::optional<uint32_t> mtu;
  std::optional<bool> promiscuous;
  std::optional<bool> allMulticast;
  std::optional<std::vector<int>> workers;  // of the receive queues in their order
  Place place;
};

enum class Family : uint8_t { kIpv4 = 4, kIpv6 = 6 };
inline constexpr Family kFamilies[] = {Family::kIpv4, Family::kIpv6};

struct IntfConfig {
  std::string name;
  std::string port;  // empty: on no port, such as Register0
  uint32_t vlan = 0;
  std::optional<std::string> mac;  // absent: the port's
  std::string vrf = kDefaultVrfName;
  std::set<Family> multicast{Family::kIpv4, Family::kIpv6};
  Place place;
  Place portPlace;
  Place vrfPlace;
};

// One family of one VRF: one instance of the multicast module.
struct InstanceConfig {
  std::optional<std::string> bridgeMac;  // absent: the first port's
  uint32_t suppressionTimer = 5;         // seconds
  uint32_t cacheEntries = 250;
  uint32_t cachePackets = 3;
  uint32_t cacheExpiry = 10;  // seconds
  uint32_t maxRoutes = 0;
  uint32_t cleanupRate = 1;  // runs per second
  std::optional<int> worker;
  std::vector<std::string> extraInterfaces;
};

struct VrfConfig {
  std::string name;
  std::optional<uint32_t> id;
  std::map<Family, InstanceConfig> families;
  bool exclusiveRoutes = true;  // routes that the file does not have are removed
  Place place;
};

struct RouteKey {
  std::string source;  // all zero: (*,G)
  std::string group;
  auto operator<=>(const RouteKey&) const = default;
  Family family() const { return group.size() == 4 ? Family::kIpv4 : Family::kIpv6; }
};

struct RouteConfig {
  RouteKey key;
  uint64_t iif = 0;
  uint64_t iifFrr = 0;
  uint64_t notify = 0;
  uint64_t fastdrop = 0;
  bool toCpu = false;
  bool iifRegister = false;
  bool oifRegister = false;
  std::set<std::pair<uint64_t, uint32_t>> oifs;  // interface and gate
  bool operator==(const RouteConfig&) const = default;
};

struct IntfReference {
  uint64_t intf;
  std::string what;  // the key
  Place place;
};

struct VrfRoute {
  std::string vrf = kDefaultVrfName;
  RouteConfig route;
  Place place;
  Place vrfPlace;
  std::vector<IntfReference> interfaces;
};

inline constexpr uint32_t kUsualPublishPeriod = 1000;  // of a daemon that nobody told otherwise

struct Config {
  std::optional<uint32_t> publishPeriod;  // milliseconds; absent: as it is
  std::optional<std::vector<WorkerConfig>> workers;
  bool ethernetMode = true;
  std::vector<PortConfig> ports;
  std::vector<IntfConfig> interfaces;
  std::vector<VrfConfig> vrfs;
  std::vector<VrfRoute> routes;
  std::map<std::string, bool> toggles;
};

// "IPv4", "ipv4".
const char* familyTitle(Family family);
const char* familyWord(Family family);

// "(10.0.0.2,239.1.1.1)", "(*,239.1.1.1)".
std::string routeText(const RouteKey& key);

}  // namespace Sfectl
