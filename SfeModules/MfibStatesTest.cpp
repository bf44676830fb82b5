// The state texts of an instance, except `explain` and `metrics`.
#include "SfeModules/MfibStates.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <system_error>

#include "SfeModules/Testing/MfibFixture.h"
#include "SfeModules/Testing/PacketBuilder.h"

namespace SfeModules {
namespace {

class MfibStatesTest : public MfibFixture {
 protected:
  std::string state(const std::string& name, const std::string& arg = "") {
    const bess::State* found = bess::findState(mfib_->states(), name);
    return found == nullptr ? "no state" : found->text(arg);
  }
  std::map<std::string, std::string> settings() {
    std::map<std::string, std::string> values;
    std::istringstream text(state("settings"));
    for (std::string name, value; std::getline(text, name, '\t') && std::getline(text, value);) {
      values[name] = value;
    }
    return values;
  }
  static sfe::pb::SizeArg size(uint32_t value) {
    sfe::pb::SizeArg arg;
    arg.set_value(value);
    return arg;
  }
};

TEST_F(MfibStatesTest, areSixAndTakeNoSenselessArgument) {
  createInstance();
  EXPECT_EQ(bess::stateNames(mfib_->states()),
            "routes, interfaces, settings, cache, explain, metrics");
  for (const bess::State& each : mfib_->states()) {
    EXPECT_THROW(each.text("senseless words"), std::system_error) << each.name;
  }
}

TEST_F(MfibStatesTest, showRoutes) {
  createInstance();
  EXPECT_EQ(state("routes"), "source\tgroup\tiif\tiif_frr\tnotify\tfastdrop\tflags\toifs\n");
  addRoute({.source = "10.0.0.2",
            .group = "239.1.1.1",
            .iif = "Ethernet0",
            .oifs = {{"Ethernet1", 1}, {"Vlan100", 8191}},
            .iifRegister = true,
            .oifRegister = true,
            .iifFrr = "Ethernet5",
            .notify = "Ethernet6/2",
            .fastdrop = "Loopback0",
            .toCpu = true});
  EXPECT_EQ(state("routes"),
            "source\tgroup\tiif\tiif_frr\tnotify\tfastdrop\tflags\toifs\n"
            "10.0.0.2\t239.1.1.1\tEthernet0\tEthernet5\tEthernet6/2\tLoopback0\t"
            "to_cpu,iif_register,oif_register\tEthernet1:1,Vlan100:8191\n");
  deleteRoute("10.0.0.2", "239.1.1.1");
  addRoute({.source = "*", .group = "239.1.1.2", .iif = "Ethernet0", .toCpu = true});
  EXPECT_EQ(state("routes"),
            "source\tgroup\tiif\tiif_frr\tnotify\tfastdrop\tflags\toifs\n"
            "0.0.0.0\t239.1.1.2\tEthernet0\t\t\t\tto_cpu\t\n");
}

TEST_F(MfibStatesTest, showIpv6RoutesShortened) {
  createInstance({.af = 2});
  addRoute({.source = "2001:db8::1", .group = "ff3e::5:1", .iif = "Ethernet0"});
  addRoute({.source = "*", .group = "ff3e::5:1", .iif = "Ethernet0"});
  const std::string text = state("routes");
  EXPECT_NE(text.find("\n2001:db8::1\tff3e::5:1\tEthernet0\t"), std::string::npos) << text;
  EXPECT_NE(text.find("\n::\tff3e::5:1\tEthernet0\t"), std::string::npos) << text;
}

TEST_F(MfibStatesTest, showEveryRouteOnce) {
  createInstance();
  constexpr int kRoutes = 1000;
  for (int n = 0; n < kRoutes; ++n) {
    addRoute({.source = "10.0.0.2",
              .group = "239.1." + std::to_string(n / 250) + "." + std::to_string(n % 250),
              .iif = "Ethernet0",
              .oifs = {{"Ethernet1", 1}}});
  }
  const std::string text = state("routes");
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), kRoutes + 1);
}

TEST_F(MfibStatesTest, showInterfacesInOrder) {
  createInstance();
  EXPECT_EQ(state("interfaces"), "intf\n");
  enable({"Ethernet10", "Vlan5", "Ethernet2"});
  EXPECT_EQ(state("interfaces"), "intf\nEthernet2\nEthernet10\nVlan5\n");
  disable({"Ethernet10"});
  EXPECT_EQ(state("interfaces"), "intf\nEthernet2\nVlan5\n");
}

TEST_F(MfibStatesTest, showSettings) {
  createInstance({.af = kAfIpv4, .ethernetMode = true, .vrf = "red", .vrfId = 9});
  auto values = settings();
  EXPECT_EQ(values["vrf"], "red");
  EXPECT_EQ(values["vrfid"], "9");
  EXPECT_EQ(values["family"], "4");
  EXPECT_EQ(values["ethernet_mode"], "1");
  EXPECT_EQ(values["bridge_mac"], "00:00:00:00:00:00");
  EXPECT_EQ(values["cache_expiry_timer"], "10");
  EXPECT_EQ(values["max_unresolved_entries"], "250");
  EXPECT_EQ(values["max_unresolved_packets"], "3");
  EXPECT_EQ(values["no_cache_suppression_timer"], "5");
  EXPECT_EQ(values["mfib_task"], "");
  EXPECT_EQ(values["cleanup_task"], "");
  EXPECT_EQ(values["toggle_mfawcfwd"], "1");
  setBridgeMac({0x02, 0x1c, 0x73, 0, 0xab, 0xff});
  mfib_->setCacheExpiryTimer(size(30));
  mfib_->setMaxUnresolvedCacheEntries(size(31));
  mfib_->setMaxUnresolvedPktBuffers(size(32));
  mfib_->setNoCacheSuppressionTimer(size(33));
  mfib_->regCleanupTask({});
  sfe::pb::MfibCounterIdArg ids;
  ids.set_non_mcast_iif(101);
  ids.set_wrong_vif(102);
  ids.set_whole_pkt(103);
  ids.set_no_cache(104);
  mfib_->setCounterIds(ids);
  values = settings();
  EXPECT_EQ(values["bridge_mac"], "02:1c:73:00:ab:ff");
  EXPECT_EQ(values["cache_expiry_timer"], "30");
  EXPECT_EQ(values["max_unresolved_entries"], "31");
  EXPECT_EQ(values["max_unresolved_packets"], "32");
  EXPECT_EQ(values["no_cache_suppression_timer"], "33");
  EXPECT_EQ(values["cleanup_task"], "0");
  EXPECT_EQ(values["mfib_task"], "");
  EXPECT_EQ(values["non_mcast_iif_counter"], "101");
  EXPECT_EQ(values["wrong_vif_counter"], "102");
  EXPECT_EQ(values["whole_pkt_counter"], "103");
  EXPECT_EQ(values["no_cache_counter"], "104");
}

TEST_F(MfibStatesTest, showHeldKeysOldestFirst) {
  createInstance();
  enable({"Ethernet0", "Ethernet1"});
  const std::string header = "source\tgroup\tiif\tpackets\toldest_age_ms\tstate\n";
  EXPECT_EQ(state("cache"), header);
  const auto hold = [this](const std::string& group, const std::string& intf) {
    const frames::Ip ip{.source = "10.0.0.2", .group = group};
    receive(
        frames::etherFrame("01:00:5e:01:01:01", "02:00:00:00:00:99", 0x0800, frames::ipPacket(ip)),
        intf);
  };
  hold("239.1.1.2", "Ethernet0");
  ManualClock::advance(std::chrono::milliseconds(1500));
  hold("239.1.1.1", "Ethernet1");
  hold("239.1.1.2", "Ethernet1");
  EXPECT_EQ(state("cache"), header +
                                "10.0.0.2\t239.1.1.2\tEthernet0,Ethernet1\t2\t1500\twaiting\n"
                                "10.0.0.2\t239.1.1.1\tEthernet1\t1\t0\twaiting\n");
  ManualClock::advance(std::chrono::hours(1));
  while (MfibTestPeer::cache(*mfib_)->expirePacketsFromCache()) {
  }
  EXPECT_EQ(state("cache"), header);
}

}  // namespace
}  // namespace SfeModules
