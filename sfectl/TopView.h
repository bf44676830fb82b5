// What `sfectl top` shows: rates out of two samples, sorted, as lines of text. Knows no terminal.
//
// Invariants :
//   (1) lines hold no control characters, and none is longer than it has to be.
//   (2) a counter that went backwards was started anew; it gives no negative rate.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Sfectl {

// Ethernet2 before Ethernet10.
struct IntfNameOrder {
  bool operator()(const std::string& a, const std::string& b) const;
};

// The counters of a moment.
struct TopSample {
  struct Intf {
    uint64_t rxPackets = 0;
    uint64_t rxBytes = 0;
    uint64_t txPackets = 0;
    uint64_t txBytes = 0;
    uint64_t queued = 0;
    uint64_t dropped = 0;
  };
  struct RouteKey {
    std::string vrf;
    std::string group;
    std::string source;
    friend auto operator<=>(const RouteKey&, const RouteKey&) = default;
  };
  struct Route {
    std::string iif;
    size_t oifs = 0;
    uint64_t packets = 0;
    uint64_t bytes = 0;
    uint64_t wrongIf = 0;
    uint64_t queued = 0;
    uint64_t dropped = 0;
  };

  std::chrono::steady_clock::time_point time;
  std::string daemon;  // one line about the daemon as a whole
  std::map<std::string, Intf, IntfNameOrder> interfaces;
  std::map<RouteKey, Route> routes;
};

enum class TopOrder { kPackets, kBits, kDrops, kName };
const char* nameOf(TopOrder order);
TopOrder next(TopOrder order);

struct TopLine {
  enum class Style { kPlain, kTitle, kAlarm };  // an alarm loses packets now
  std::string text;
  Style style = Style::kPlain;
};

// The lines of the two tables, each with its title first.
struct TopTables {
  std::vector<TopLine> interfaces;
  std::vector<TopLine> routes;
};

TopTables topTables(const TopSample& before, const TopSample& now, TopOrder order);

// What fits on a screen of so many lines: head, both tables, and the keys in the last line. Routes
// begin with number `skip`.
std::vector<TopLine> topScreen(const TopSample& now,
                               const TopTables& tables,
                               TopOrder order,
                               size_t lines,
                               size_t skip);

// Everything, for a pipe.
std::string topText(const TopSample& now, const TopTables& tables, TopOrder order);

}  // namespace Sfectl
