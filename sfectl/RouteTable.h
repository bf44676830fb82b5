// The routes of multicast modules, joined with their counters and with the keys that wait for one.
//
// Ownership  : a table owns the texts that its routes' views point into.
// Errors     : RuntimeError of the daemon. Counters that cannot be read are no error: the routes
//              then have none, and fault() says why.
// Cost       : sorting by address; 100,000 routes take some 100 ms.
// Invariants :
//   (1) routes are in the order of group and source; of one group the (*,G) route is the first.
//   (2) a (*,G) route counts what its own record counts and what the records of sources without a
//       route of their own count: the module counts each packet under its own source.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Nynet/Address.h"
#include "Sfe/Multicast/MrouteCounter.h"
#include "sfectl/Instances.h"
#include "sfectl/StateText.h"

namespace Sfectl {

struct RouteCount {
  uint64_t packets = 0;
  uint64_t bytes = 0;
  uint64_t wrongIf = 0;
  uint64_t queued = 0;
  uint64_t dropped = 0;

  RouteCount& operator+=(const RouteCount& other);
  friend bool operator==(const RouteCount&, const RouteCount&) = default;
};

struct Route {
  Nynet::IpGenAddr sourceAddress;
  Nynet::IpGenAddr groupAddress;
  std::string_view source;
  std::string_view group;
  std::string_view iif;
  std::string_view iifFrr;
  std::string_view notify;
  std::string_view fastdrop;
  std::string_view flags;  // "to_cpu,oif_register"
  std::string_view oifs;   // "Ethernet2:1,Ethernet3:1"
  bool resolved = true;    // else a key that waits for a route, with what it holds:
  uint64_t heldPackets = 0;
  uint64_t heldMs = 0;
  std::optional<RouteCount> count;

  bool isAnySource() const;
};

// What is to be seen of the routes; nothing is everything.
struct RouteFilter {
  std::optional<Nynet::IpGenAddr> source{};
  std::optional<Nynet::IpGenAddr> group{};
  bool anySource = false;  // only (*,G)

  bool passes(const Route& route) const;
};

class RouteTable {
 public:
  struct Texts {
    StateText routes;
    StateText cache;
  };

  // Joins what was read. `counters` in any order; nothing when there are none to be had.
  RouteTable(Instance instance,
             Texts texts,
             std::optional<std::vector<Sfe::Multicast::MrouteCounter>> counters,
             const RouteFilter& filter);

  // Asks the module, and reads its counters from shared memory when they are wanted.
  static RouteTable load(Client& client,
                         const Instance& instance,
                         bool withCounters,
                         const RouteFilter& filter = {});

  const Instance& instance() const { return instance_; }
  const std::vector<Route>& routes() const { return routes_; }
  // Empty, or why there are no counters.
  const std::string& fault() const { return fault_; }

 private:
  void addRoutes(const RouteFilter& filter);
  void addWaiting(const RouteFilter& filter);
  void addCounts(std::vector<Sfe::Multicast::MrouteCounter> counters);

  Instance instance_;
  Texts texts_;
  std::vector<Route> routes_;
  std::string fault_;
};

}  // namespace Sfectl
