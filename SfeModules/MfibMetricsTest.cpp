// The metrics of an instance: names, labels, values, and totals that never fall.
#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>

#include "SfeModules/MfibStates.h"
#include "SfeModules/Testing/MfibFixture.h"
#include "SfeModules/Testing/PacketBuilder.h"

namespace SfeModules {
namespace {

TEST(MonotoneTotals, goOnWhereACountBeganAgain) {
  MonotoneTotals totals;
  EXPECT_EQ(totals.total({1, 1}, 0), 0U);
  EXPECT_EQ(totals.total({1, 1}, 10), 10U);
  EXPECT_EQ(totals.total({1, 1}, 10), 10U);
  EXPECT_EQ(totals.total({1, 1}, 4), 14U);
  EXPECT_EQ(totals.total({1, 1}, 0), 14U);
  EXPECT_EQ(totals.total({1, 1}, 1), 15U);
  EXPECT_EQ(totals.total({1, 2}, 5), 5U);
}

class MfibMetricsTest : public MfibFixture {
 protected:
  // The value of each series, by name and labels.
  std::map<std::string, uint64_t> metrics(const std::string& arg = "") {
    std::istringstream text(MfibMetrics::text(*mfib_, arg));
    std::string line;
    std::getline(text, line);
    EXPECT_EQ(line, "type\tname\thelp\tlabels\tvalue");
    std::map<std::string, uint64_t> values;
    while (std::getline(text, line)) {
      std::istringstream fields(line);
      std::string type;
      std::string name;
      std::string help;
      std::string labels;
      std::string value;
      std::getline(fields, type, '\t');
      std::getline(fields, name, '\t');
      std::getline(fields, help, '\t');
      std::getline(fields, labels, '\t');
      std::getline(fields, value, '\t');
      EXPECT_EQ(type, name.ends_with("_total") ? "counter" : "gauge") << line;
      EXPECT_NE(help, "") << line;
      EXPECT_TRUE(values.emplace(name + "{" + labels + "}", std::stoull(value)).second) << line;
    }
    return values;
  }

  void offer(const std::string& group, uint8_t ttl = 64) {
    const frames::Ip ip{.source = "10.0.0.2", .group = group, .ttl = ttl};
    receive(
        frames::etherFrame("01:00:5e:01:01:01", "02:00:00:00:00:99", 0x0800, frames::ipPacket(ip)),
        "Ethernet0");
  }
};

constexpr const char* kLabels = R"(vrf="default",family="ipv4")";

std::string series(const std::string& name, const std::string& labels = "") {
  return name + "{" + kLabels + (labels.empty() ? "" : "," + labels) + "}";
}

TEST_F(MfibMetricsTest, countRoutesByTypeAlsoWhenReplaced) {
  createInstance();
  enable({"Ethernet0"});
  for (int n = 0; n < 3; ++n) {
    addRoute({.source = "10.0.0.2", .group = "239.1.1.1", .iif = "Ethernet0"});
  }
  addRoute({.source = "*", .group = "239.1.1.1", .iif = "Ethernet0"});
  addRoute({.source = "*", .group = "239.1.1.2", .iif = "Ethernet0"});
  auto values = metrics();
  EXPECT_EQ(values[series("mfib_routes", "type=\"sg\"")], 1U);
  EXPECT_EQ(values[series("mfib_routes", "type=\"starg\"")], 2U);
  EXPECT_EQ(values[series("mfib_interfaces")], 1U);
  deleteRoute("*", "239.1.1.1");
  deleteRoute("*", "239.1.1.9");
  EXPECT_EQ(metrics()[series("mfib_routes", "type=\"starg\"")], 1U);
}

TEST_F(MfibMetricsTest, countPacketsDropsAndNotifications) {
  createInstance();
  enable({"Ethernet0"});
  addRoute({.source = "10.0.0.2",
            .group = "239.1.1.1",
            .iif = "Ethernet0",
            .oifs = {{"Ethernet1", 1}, {"Ethernet2", 2}}});
  auto before = metrics();
  offer("239.1.1.1");
  offer("239.1.1.1", 1);
  for (int n = 0; n < 4; ++n) {
    offer("239.1.1.9");
  }
  publishCountersNow();
  auto values = metrics("routes=10");
  const auto grown = [&](const std::string& name) { return values[name] - before[name]; };
  EXPECT_EQ(grown(series("mfib_forwarded_packets_total")), 1U);
  EXPECT_EQ(grown(series("mfib_copied_packets_total")), 1U);
  EXPECT_EQ(grown(series("mfib_dropped_packets_total", "reason=\"ttl\"")), 1U);
  EXPECT_EQ(grown(series("mfib_dropped_packets_total", "reason=\"cache_full\"")), 1U);
  EXPECT_EQ(grown(series("mfib_cache_rejected_packets_total")), 1U);
  EXPECT_EQ(grown(series("mfib_cache_held_packets_total")), 3U);
  EXPECT_EQ(grown(series("mfib_notifications_total", "type=\"nocache\"")), 3U);
  EXPECT_EQ(values[series("mfib_cache_entries")], 1U);
  EXPECT_EQ(values[series("mfib_cache_packets")], 3U);
  EXPECT_EQ(values[series("mfib_cache_limit_packets")], 3U);
  EXPECT_EQ(values[series("mfib_cache_limit_entries")], 250U);
  EXPECT_EQ(values[series("mfib_interface_receive_packets_total", "interface=\"Ethernet0\"")], 6U);
  EXPECT_EQ(values[series("mfib_interface_transmit_packets_total", "interface=\"Ethernet2\"")], 1U);
  EXPECT_EQ(values[series("mfib_route_packets_total", "source=\"10.0.0.2\",group=\"239.1.1.1\"")],
            2U);
}

TEST_F(MfibMetricsTest, neverFallWhenAnInterfaceOrAWorkerComesBack) {
  createInstance();
  enable({"Ethernet0"});
  offer("239.1.1.1", 1);
  publishCountersNow();
  const std::string received =
      series("mfib_interface_receive_packets_total", "interface=\"Ethernet0\"");
  const std::string dropped = series("mfib_dropped_packets_total", "reason=\"ttl\"");
  const auto first = metrics();
  EXPECT_EQ(first.at(received), 1U);
  disable({"Ethernet0"});
  EXPECT_FALSE(metrics().contains(received));
  enable({"Ethernet0"});
  destroyCounterRow(harness_.wid());
  EXPECT_EQ(metrics().at(received), 1U);
  EXPECT_EQ(metrics().at(dropped), first.at(dropped));
  createCounterRow(harness_.wid());
  offer("239.1.1.1", 1);
  publishCountersNow();
  EXPECT_EQ(metrics().at(received), 2U);
  EXPECT_EQ(metrics().at(dropped), first.at(dropped) + 1);
}

TEST_F(MfibMetricsTest, showAsManyRoutesAsAskedFor) {
  createInstance();
  for (int n = 0; n < 10; ++n) {
    addRoute({.source = "10.0.0.2", .group = "239.1.1." + std::to_string(n), .iif = "Ethernet0"});
  }
  const auto routes = [this](const std::string& arg) {
    const auto values = metrics(arg);
    return std::count_if(values.begin(), values.end(), [](const auto& value) {
      return value.first.starts_with("mfib_route_packets_total");
    });
  };
  EXPECT_EQ(routes(""), 0);
  EXPECT_EQ(routes("routes=3"), 3);
  EXPECT_EQ(routes("routes=100"), 10);
  EXPECT_THROW(MfibMetrics::text(*mfib_, "routes=many"), std::system_error);
}

}  // namespace
}  // namespace SfeModules
