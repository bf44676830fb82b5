#include "sfectl/RouteText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sfectl/Arguments.h"
#include "sfectl/Errors.h"

namespace Sfectl {
namespace {

using Nynet::AddressFamily;
using Nynet::IpGenAddr;
using Sfe::Multicast::MrouteCounter;

constexpr const char* kRouteColumns =
    "source\tgroup\tiif\tiif_frr\tnotify\tfastdrop\tflags\toifs\n";
constexpr const char* kCacheColumns = "source\tgroup\tiif\tpackets\toldest_age_ms\tstate\n";

StateText made(const std::string& text) {
  return {"test", std::vector<char>(text.begin(), text.end())};
}

IpGenAddr address(const std::string& text) {
  const Address parsed = parseAddress(text, "address");
  return {parsed.isIpv4() ? AddressFamily::kIpv4 : AddressFamily::kIpv6,
          reinterpret_cast<const uint8_t*>(parsed.bytes.data())};
}

MrouteCounter counter(const std::string& source,
                      const std::string& group,
                      uint64_t packets,
                      uint64_t wrongIf = 0) {
  const IpGenAddr from = address(source);
  const auto bits = static_cast<uint8_t>(from.length() * 8);
  MrouteCounter record({{from, bits}, {address(group), bits}});
  record.pktsInInc(packets);
  record.bytesInInc(packets * 128);
  record.wrongVifInc(wrongIf);
  record.pktsQueuedInc(2);
  record.pktsDroppedInc(3);
  return record;
}

using Counters = std::optional<std::vector<MrouteCounter>>;

RouteTable table(const std::string& routes,
                 const std::string& cache = "",
                 Counters counters = std::nullopt,
                 const RouteFilter& filter = {}) {
  return {{"mfib4", "default", AddressFamily::kIpv4},
          {made(kRouteColumns + routes), made(kCacheColumns + cache)},
          std::move(counters),
          filter};
}

std::string textOf(const RouteTable& table, const RouteStyle& style = {}) {
  std::string text;
  for (const Route& route : table.routes()) {
    appendRouteText(text, table.instance(), route, style);
  }
  return text;
}

constexpr const char* kTwoOifs =
    "10.0.0.2\t239.1.1.1\teth0\t\t\t\tto_cpu,oif_register\teth1:1,eth2:3\n";

// The expected lines are those of iproute2 6.1 for the same routes in the kernel.
TEST(RouteText, isTheLineOfTheUsualTool) {
  EXPECT_EQ(textOf(table(kTwoOifs)),
            "(10.0.0.2,239.1.1.1)             Iif: eth0       Oifs: eth1 eth2  State: resolved\n");
  EXPECT_EQ(textOf(table("10.0.0.2\t239.9.9.9\teth0\t\t\t\t\t\n")),
            "(10.0.0.2,239.9.9.9)             Iif: eth0        State: resolved\n");
  EXPECT_EQ(textOf(table("", "10.0.0.2\t239.1.1.1\teth0\t3\t200\twaiting\n")),
            "(10.0.0.2,239.1.1.1)             Iif: unresolved  State: unresolved\n");
}

TEST(RouteText, hasTheStatisticsLineOfTheUsualTool) {
  const auto withWrongIf = table(kTwoOifs, "", {{counter("10.0.0.2", "239.1.1.1", 5, 1)}});
  EXPECT_EQ(textOf(withWrongIf, {.stats = true}),
            "(10.0.0.2,239.1.1.1)             Iif: eth0       Oifs: eth1 eth2  State: resolved\n"
            "  5 packets, 640 bytes, 1 arrived on wrong iif.\n");
  const auto quiet = table(kTwoOifs, "", Counters(std::in_place));
  EXPECT_EQ(textOf(quiet, {.stats = true, .table = true}),
            "(10.0.0.2,239.1.1.1)             Iif: eth0       Oifs: eth1 eth2  State: resolved\n"
            "  0 packets, 0 bytes Table: default\n");
}

TEST(RouteText, hasTheJsonKeysOfTheUsualToolAndMore) {
  std::string json;
  const auto routes = table(kTwoOifs, "", {{counter("10.0.0.2", "239.1.1.1", 5, 1)}});
  appendRouteJson(json, routes.instance(), routes.routes()[0]);
  EXPECT_EQ(json,
            R"({"src":"10.0.0.2","dst":"239.1.1.1","iif":"eth0",)"
            R"("multipath":[{"oif":"eth1","gate":1},{"oif":"eth2","gate":3}],"state":"resolved",)"
            R"("packets":5,"bytes":640,"wrong_if":1,"queued":2,"dropped":3,)"
            R"("flags":["to_cpu","oif_register"],)"
            R"("vrf":"default","family":"ipv4","module":"mfib4"})");
  json.clear();
  const auto waiting = table("", "10.0.0.2\t239.1.1.1\teth0\t3\t200\twaiting\n");
  appendRouteJson(json, waiting.instance(), waiting.routes()[0]);
  EXPECT_EQ(json, R"({"src":"10.0.0.2","dst":"239.1.1.1","iif":"unresolved","state":"unresolved",)"
                  R"("held_packets":3,"held_ms":200,)"
                  R"("vrf":"default","family":"ipv4","module":"mfib4"})");
}

TEST(RouteText, letsNoControlCharacterThrough) {
  const auto routes = table("10.0.0.2\t239.1.1.1\tevil\x1b[31m\t\t\t\t\ta\"b:1\n");
  EXPECT_EQ(textOf(routes),
            "(10.0.0.2,239.1.1.1)             Iif: evil?[31m  Oifs: a\"b  State: resolved\n");
  std::string json;
  appendRouteJson(json, routes.instance(), routes.routes()[0]);
  EXPECT_EQ(Json::parse(json)["iif"], "evil\x1b[31m");
  EXPECT_EQ(Json::parse(json)["multipath"][0]["oif"], "a\"b");
}

constexpr const char* kSeveral =
    "10.0.0.9\t239.1.1.1\teth0\t\t\t\t\teth1:1\n"
    "10.0.0.10\t239.1.1.1\teth0\t\t\t\t\teth1:1\n"
    "0.0.0.0\t239.1.1.1\teth0\t\t\t\t\teth1:1\n"
    "10.0.0.2\t224.9.1.1\teth0\t\t\t\t\teth1:1\n";

std::string keysOf(const RouteTable& table) {
  std::string keys;
  for (const Route& route : table.routes()) {
    keys += std::string(route.source) + "," + std::string(route.group) + " ";
  }
  return keys;
}

TEST(RouteTable, isInTheOrderOfAddressesAsNumbers) {
  EXPECT_EQ(keysOf(table(kSeveral)),
            "10.0.0.2,224.9.1.1 0.0.0.0,239.1.1.1 10.0.0.9,239.1.1.1 10.0.0.10,239.1.1.1 ");
}

TEST(RouteTable, showsWhatWasAskedFor) {
  const auto keys = [](const RouteFilter& filter) {
    return keysOf(table(kSeveral, "10.0.0.9\t224.9.1.1\teth0\t3\t200\twaiting\n", {}, filter));
  };
  EXPECT_EQ(keys({.group = address("224.9.1.1")}), "10.0.0.2,224.9.1.1 10.0.0.9,224.9.1.1 ");
  EXPECT_EQ(keys({.source = address("10.0.0.9")}), "10.0.0.9,224.9.1.1 10.0.0.9,239.1.1.1 ");
  EXPECT_EQ(keys({.anySource = true}), "0.0.0.0,239.1.1.1 ");
  EXPECT_EQ(keys({.source = address("10.0.0.2"), .group = address("239.1.1.1")}), "");
}

TEST(RouteTable, leavesOutWaitingKeysThatHaveARoute) {
  EXPECT_EQ(keysOf(table(kTwoOifs,
                         "10.0.0.2\t239.1.1.1\teth0\t3\t200\twaiting\n"
                         "10.0.0.3\t239.1.1.1\teth0\t3\t200\tresolved\n")),
            "10.0.0.2,239.1.1.1 ");
}

TEST(RouteTable, givesAnAnySourceRouteTheCountsOfSourcesWithoutTheirOwn) {
  const auto routes =
      table(kSeveral, "10.0.0.77\t239.1.1.1\teth3\t1\t1\twaiting\n",
            {{counter("10.0.0.9", "239.1.1.1", 5), counter("10.0.0.77", "239.1.1.1", 1000),
              counter("10.0.0.1", "239.1.1.1", 20), counter("10.0.0.200", "239.1.1.1", 300),
              counter("0.0.0.0", "239.1.1.1", 4000), counter("10.0.0.1", "239.7.7.7", 7)}});
  std::string counts;
  for (const Route& route : routes.routes()) {
    counts += route.count ? std::to_string(route.count->packets) + " " : "- ";
  }
  EXPECT_EQ(counts, "0 4320 5 0 - ");
  // A filter does not change what a route counts.
  const auto wanted = table(
      kSeveral, "", {{counter("10.0.0.9", "239.1.1.1", 5), counter("10.0.0.1", "239.1.1.1", 2)}},
      {.source = address("0.0.0.0")});
  ASSERT_EQ(wanted.routes().size(), 1U);
  EXPECT_EQ(wanted.routes()[0].count->packets, 2U);
}

TEST(RouteTable, refusesWhatIsNoAddress) {
  EXPECT_THROW(table("10.0.0\t239.1.1.1\teth0\t\t\t\t\t\n"), RuntimeError);
  EXPECT_THROW(table(std::string(100, '1') + "\t239.1.1.1\teth0\t\t\t\t\t\n"), RuntimeError);
}

}  // namespace
}  // namespace Sfectl
