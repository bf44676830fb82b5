#include "sfectl/RouteArgs.h"

#include <gtest/gtest.h>

#include <string>

#include "Nynet/IntfId.h"
#include "sfectl/Errors.h"

namespace Sfectl {
namespace {

using namespace std::string_literals;

uint64_t id(const char* name) {
  return Nynet::IntfId::fromName(name).value();
}

RouteWords goodWords() {
  RouteWords words;
  words.source = "10.0.0.2";
  words.group = "239.1.1.1";
  words.iif = "Ethernet1";
  words.oifs = {"Ethernet2", "Vlan100:7"};
  return words;
}

// The text of the refusal of goodWords() after `change`; empty when they are taken.
template <class Change>
std::string refusal(Change&& change) {
  RouteWords words = goodWords();
  change(words);
  try {
    routeArg(words);
  } catch (const UsageError& error) {
    return error.what();
  }
  return "";
}

TEST(RouteArgs, fillEveryField) {
  RouteWords words = goodWords();
  words.iifFrr = "Ethernet3";
  words.notify = "Loopback0";
  words.fastdrop = "Tunnel5";
  words.toCpu = words.registerIn = words.registerOut = true;
  const auto route = routeArg(words);
  EXPECT_EQ(route.source(), "\x0a\0\0\x02"s);
  EXPECT_EQ(route.group(), "\xef\x01\x01\x01"s);
  EXPECT_EQ(route.iif(), id("Ethernet1"));
  EXPECT_EQ(route.iif_frr(), id("Ethernet3"));
  EXPECT_EQ(route.notify(), id("Loopback0"));
  EXPECT_EQ(route.fastdrop(), id("Tunnel5"));
  EXPECT_TRUE(route.to_cpu() && route.iif_register() && route.oif_register());
  ASSERT_EQ(route.oifs_size(), 2);
  EXPECT_EQ(route.oifs(0).intf_id(), id("Ethernet2"));
  EXPECT_EQ(route.oifs(0).gate(), 1u);
  EXPECT_EQ(route.oifs(1).intf_id(), id("Vlan100"));
  EXPECT_EQ(route.oifs(1).gate(), 7u);
}

TEST(RouteArgs, leaveOutWhatIsNotSaid) {
  const auto route = routeArg(goodWords());
  EXPECT_EQ(route.iif_frr(), 0u);
  EXPECT_EQ(route.notify(), 0u);
  EXPECT_EQ(route.fastdrop(), 0u);
  EXPECT_FALSE(route.to_cpu() || route.iif_register() || route.oif_register());
}

TEST(RouteArgs, makeAnySourceAllZeroInTheGroupsFamily) {
  EXPECT_EQ(routeKey("*", "239.1.1.1").source(), std::string(4, '\0'));
  EXPECT_TRUE(isIpv4(routeKey("*", "239.1.1.1")));
  EXPECT_EQ(routeKey("*", "ff15::1").source(), std::string(16, '\0'));
  EXPECT_FALSE(isIpv4(routeKey("*", "ff15::1")));
}

TEST(RouteArgs, refuseAGroupThatIsNotMulticast) {
  const std::string said = refusal([](RouteWords& w) { w.group = "10.1.1.1"; });
  EXPECT_NE(said.find("10.1.1.1"), std::string::npos);
  EXPECT_NE(said.find("224.0.0.0/4"), std::string::npos);
}

TEST(RouteArgs, refuseMixedFamilies) {
  const std::string said = refusal([](RouteWords& w) { w.group = "ff15::1"; });
  EXPECT_NE(said.find("different families"), std::string::npos);
}

TEST(RouteArgs, refuseAMulticastSource) {
  const std::string said = refusal([](RouteWords& w) { w.source = "239.1.1.1"; });
  EXPECT_NE(said.find("source 239.1.1.1 is multicast"), std::string::npos);
}

TEST(RouteArgs, refuseTheSameInterfaceAndGateTwice) {
  const std::string said = refusal([](RouteWords& w) {
    w.oifs = {"Ethernet2", "Ethernet3", "Ethernet2:1"};
  });
  EXPECT_NE(said.find("Ethernet2 with gate 1 appears twice"), std::string::npos) << said;
}

TEST(RouteArgs, takeTheSameInterfaceBehindTwoGates) {
  EXPECT_EQ(refusal([](RouteWords& w) { w.oifs = {"Ethernet2:1", "Ethernet2:2"}; }), "");
}

TEST(RouteArgs, refuseUnknownInterfaceNames) {
  EXPECT_NE(refusal([](RouteWords& w) { w.iif = "eth0"; }).find("--iif"), std::string::npos);
  EXPECT_NE(refusal([](RouteWords& w) { w.oifs = {"eth0:2"}; }).find("--oif"), std::string::npos);
  EXPECT_NE(refusal([](RouteWords& w) { w.notify = "eth0"; }).find("--notify"), std::string::npos);
}

TEST(RouteArgs, takeAThousandOutgoingInterfacesAndNoMore) {
  const auto fill = [](RouteWords& words, size_t count) {
    words.oifs.clear();
    for (size_t i = 0; i < count; ++i) {
      words.oifs.push_back("Ethernet" + std::to_string(i));
    }
  };
  EXPECT_EQ(refusal([&](RouteWords& w) { fill(w, kMaxOifs); }), "");
  const std::string said = refusal([&](RouteWords& w) { fill(w, kMaxOifs + 1); });
  EXPECT_NE(said.find("1001 outgoing interfaces"), std::string::npos);
  EXPECT_NE(said.find("at most 1000"), std::string::npos);
}

}  // namespace
}  // namespace Sfectl
