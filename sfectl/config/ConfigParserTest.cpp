#include "sfectl/config/ConfigParser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Nynet/IntfId.h"
#include "sfectl/Arguments.h"

namespace Sfectl {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

uint64_t intf(const char* name) {
  return Nynet::IntfId::fromName(name).value();
}

Config parsed(const std::string& text) {
  return parseConfig(text, "sfe.yaml").config;
}

// The message of a text that is refused; empty when it is not.
std::string refusal(const std::string& text) {
  try {
    parseConfig(text, "f");
    return "";
  } catch (const FileError& error) {
    return error.what();
  }
}

constexpr const char* kTwoPorts = R"(ports:
  p1: net_af_packet1,iface=eth1
  p2: net_af_packet2,iface=eth2
interfaces:
  Ethernet1: p1
  Ethernet2: p2
)";

TEST(ConfigParser, readsTheShortForms) {
  const Config config = parsed(std::string(kTwoPorts) + R"(routes:
  - {source: 10.1.0.2, group: 239.1.1.1, iif: Ethernet1, oifs: [Ethernet2]}
)");
  EXPECT_FALSE(config.workers.has_value());
  EXPECT_TRUE(config.ethernetMode);
  ASSERT_THAT(config.ports, SizeIs(2));
  EXPECT_EQ(config.ports[0].name, "p1");
  EXPECT_EQ(config.ports[0].devargs, "net_af_packet1,iface=eth1");
  EXPECT_FALSE(config.ports[0].rxq.has_value());
  ASSERT_THAT(config.interfaces, SizeIs(2));
  EXPECT_EQ(config.interfaces[1].name, "Ethernet2");
  EXPECT_EQ(config.interfaces[1].port, "p2");
  EXPECT_EQ(config.interfaces[1].vlan, 0u);
  EXPECT_EQ(config.interfaces[1].vrf, "default");
  EXPECT_THAT(config.interfaces[1].multicast, SizeIs(2));
  ASSERT_THAT(config.vrfs, SizeIs(1));
  EXPECT_EQ(config.vrfs[0].name, "default");
  EXPECT_THAT(config.vrfs[0].families, SizeIs(2));
  ASSERT_THAT(config.routes, SizeIs(1));
  const VrfRoute& route = config.routes[0];
  EXPECT_EQ(route.vrf, "default");
  EXPECT_EQ(routeText(route.route.key), "(10.1.0.2,239.1.1.1)");
  EXPECT_EQ(route.route.iif, intf("Ethernet1"));
  EXPECT_THAT(route.route.oifs, ElementsAre(std::make_pair(intf("Ethernet2"), 1u)));
}

TEST(ConfigParser, readsEveryKey) {
  const Config config = parsed(R"(
workers:
  - 3
  - {id: 5, core: 7}
  - {id: 6}
publish_period: 250
ethernet_mode: false
bridge_mac: 02:00:00:00:00:01
ports:
  p1:
    devargs: net_af_packet1,iface=eth1
    rxq: 2
    txq: 3
    queue_size: 512
    mtu: 9000
    promiscuous: true
    allmulticast: false
    worker: [0, none]
  p2: {devargs: 'net_null0', worker: 5}
interfaces:
  Ethernet1: p1
  Ethernet1.7: {port: p1, vlan: 7, vrf: red, mac: "02:00:00:00:00:09", multicast: ipv4}
  Vlan8: {port: p1, vrf: red, multicast: false}
  Ethernet2: {port: p2, multicast: ipv6}
  Register0: {port: none, multicast: true}
vrfs:
  default:
    families: [ipv6]
  red:
    id: 7
    exclusive_routes: false
    suppression_timer: 1
    cache_entries: 2
    cache_packets: 3
    cache_expiry: 4
    max_routes: 5
    cleanup_rate: 6
    worker: 5
    extra_interfaces: [Register0]
    ipv6: {bridge_mac: 02:00:00:00:00:02, cache_expiry: 40, worker: none}
routes:
  - group: 239.1.1.1
    vrf: red
    iif: Ethernet1.7
    oifs: [Vlan8, Vlan8:2, Tunnel5]
    iif_frr: Vlan8
    notify: Vlan8
    fastdrop: Ethernet1.7
    flags: [to_cpu, oif_register]
  - {source: "::", group: ff15::1, iif: Ethernet2}
  - {source: '*', group: ff15::2, iif: Ethernet2, oifs: }
toggles:
  MfaWcFwd: false
)");
  ASSERT_TRUE(config.workers.has_value());
  ASSERT_THAT(*config.workers, SizeIs(3));
  EXPECT_EQ((*config.workers)[0].id, 0u);
  EXPECT_EQ((*config.workers)[0].core, 3u);
  EXPECT_EQ((*config.workers)[1].id, 5u);
  EXPECT_FALSE((*config.workers)[2].core.has_value());
  EXPECT_EQ(config.publishPeriod, 250u);
  EXPECT_FALSE(config.ethernetMode);
  const PortConfig& port = config.ports[0];
  EXPECT_EQ(port.rxq, 2u);
  EXPECT_EQ(port.txq, 3u);
  EXPECT_EQ(port.queueSize, 512u);
  EXPECT_EQ(port.mtu, 9000u);
  EXPECT_EQ(port.promiscuous, true);
  EXPECT_EQ(port.allMulticast, false);
  EXPECT_THAT(*port.workers, ElementsAre(0, kNoWorker));
  EXPECT_THAT(*config.ports[1].workers, ElementsAre(5));
  const IntfConfig& tagged = config.interfaces[1];
  EXPECT_EQ(tagged.vlan, 7u);
  EXPECT_EQ(tagged.vrf, "red");
  EXPECT_EQ(macText(*tagged.mac), "02:00:00:00:00:09");
  EXPECT_THAT(tagged.multicast, ElementsAre(Family::kIpv4));
  EXPECT_EQ(config.interfaces[2].vlan, 8u);
  EXPECT_THAT(config.interfaces[2].multicast, IsEmpty());
  EXPECT_EQ(config.interfaces[4].port, "");
  ASSERT_THAT(config.vrfs, SizeIs(2));
  ASSERT_THAT(config.vrfs[0].families, SizeIs(1));
  EXPECT_EQ(macText(*config.vrfs[0].families.at(Family::kIpv6).bridgeMac), "02:00:00:00:00:01");
  const VrfConfig& red = config.vrfs[1];
  EXPECT_EQ(red.id, 7u);
  EXPECT_FALSE(red.exclusiveRoutes);
  const InstanceConfig& ipv4 = red.families.at(Family::kIpv4);
  EXPECT_EQ(ipv4.suppressionTimer, 1u);
  EXPECT_EQ(ipv4.cacheEntries, 2u);
  EXPECT_EQ(ipv4.cachePackets, 3u);
  EXPECT_EQ(ipv4.cacheExpiry, 4u);
  EXPECT_EQ(ipv4.maxRoutes, 5u);
  EXPECT_EQ(ipv4.cleanupRate, 6u);
  EXPECT_EQ(ipv4.worker, 5);
  EXPECT_THAT(ipv4.extraInterfaces, ElementsAre("Register0"));
  const InstanceConfig& ipv6 = red.families.at(Family::kIpv6);
  EXPECT_EQ(macText(*ipv6.bridgeMac), "02:00:00:00:00:02");
  EXPECT_EQ(ipv6.cacheExpiry, 40u);
  EXPECT_EQ(ipv6.suppressionTimer, 1u);
  EXPECT_EQ(ipv6.worker, kNoWorker);
  ASSERT_THAT(config.routes, SizeIs(3));
  const RouteConfig& route = config.routes[0].route;
  EXPECT_EQ(routeText(route.key), "(*,239.1.1.1)");
  EXPECT_EQ(config.routes[0].vrf, "red");
  EXPECT_THAT(route.oifs, SizeIs(3));
  EXPECT_EQ(route.iifFrr, intf("Vlan8"));
  EXPECT_EQ(route.notify, intf("Vlan8"));
  EXPECT_EQ(route.fastdrop, intf("Ethernet1.7"));
  EXPECT_TRUE(route.toCpu);
  EXPECT_FALSE(route.iifRegister);
  EXPECT_TRUE(route.oifRegister);
  EXPECT_EQ(routeText(config.routes[1].route.key), "(*,ff15::1)");
  EXPECT_EQ(routeText(config.routes[2].route.key), "(*,ff15::2)");
  EXPECT_EQ(config.toggles.at("MfaWcFwd"), false);
}

TEST(ConfigParser, takesAnEmptyMappingForNothing) {
  const Config config = parsed("{}");
  EXPECT_THAT(config.ports, IsEmpty());
  EXPECT_THAT(config.routes, IsEmpty());
  EXPECT_THAT(parsed("ports:\ninterfaces:\nroutes:\n").ports, IsEmpty());
}

TEST(ConfigParser, reportsEveryProblemInTheOrderOfTheFile) {
  EXPECT_EQ(refusal(R"(portz: {}
ports:
  p1: net_null0
interfaces:
  Ethernet1: p9
  eth0: p1
routes:
  - {group: 10.0.0.1, iif: Ethernet7}
)"),
            "f:1:1: unknown key 'portz' in the file; did you mean 'ports'?\n"
            "f:5:14: unknown port 'p9'; did you mean 'p1'?\n"
            "f:6:3: the interface's name 'eth0' is not possible; expected Ethernet3, Ethernet3/1, "
            "Ethernet3.100, Vlan100, Register0, ...\n"
            "f:8:13: group '10.0.0.1' is not multicast; expected an address of 224.0.0.0/4 or "
            "ff00::/8");
}

TEST(ConfigParser, warnsOfARouteThatNoPacketTakes) {
  const ParsedConfig result = parseConfig(std::string(kTwoPorts) + R"(vrfs: {default: , red: }
routes:
  - {vrf: red, group: 239.1.1.1, iif: Ethernet1, oifs: [Ethernet2]}
)",
                                          "f");
  EXPECT_THAT(result.warnings,
              ElementsAre("f:9:39: warning: 'Ethernet1' is in VRF 'default' and the route in VRF "
                          "'red': no packet will take it"));
}

struct Refusal {
  const char* text;  // appended to kTwoPorts when it begins with '+'
  const char* message;
};

class ConfigRefusal : public ::testing::TestWithParam<Refusal> {};

TEST_P(ConfigRefusal, saysWhereWhatAndWhatWouldBeRight) {
  const std::string text = GetParam().text;
  EXPECT_EQ(refusal(text.starts_with('+') ? kTwoPorts + text.substr(1) : text), GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(
    Shape,
    ConfigRefusal,
    ::testing::Values(
        Refusal{"",
                "f:1:1: the file says nothing; expected ports, interfaces and routes (or {} for "
                "an empty configuration)"},
        Refusal{"ports: [", "f:1:1: this is not YAML: end of sequence flow not found"},
        Refusal{"{}\n---\n{}", "f:3:1: a second document; expected one"},
        Refusal{"- a", "f:1:1: the file is a list; expected a mapping: KEY: VALUE"},
        Refusal{"workers: 0", "f:1:10: workers is '0'; expected a number of 1 to 36"},
        Refusal{"workers: many",
                "f:1:10: workers is the text 'many'; expected a number of 1 to 36"},
        Refusal{"workers: [1, 1]",
                "f:1:14: core 1 has worker 0 already; expected a core for each worker"},
        Refusal{"workers: [{id: 3}, {id: 3}]",
                "f:1:20: worker 3 appears twice; expected each id once"},
        Refusal{"workers: {a: 1}",
                "f:1:10: workers is a mapping; expected a list: [...], or lines that begin with "
                "'- '"},
        Refusal{"ethernet_mode: yes",
                "f:1:16: ethernet_mode is the text 'yes'; expected true or false"},
        Refusal{"bridge_mac: 01:00:5e:00:00:01",
                "f:1:13: '01:00:5e:00:00:01' is a group's address; expected an interface's own, "
                "such as 02:00:00:00:00:01"},
        Refusal{"bridge_mac: 2:0:0:0:0:1",
                "f:1:13: '2:0:0:0:0:1' is not a hardware address; expected a form like "
                "02:00:00:00:00:01"},
        Refusal{"ports: [p1]",
                "f:1:8: ports is a list; expected a mapping: lines of the form 'NAME: ...'"},
        Refusal{"ports: {p1: {rxq: 1}}",
                "f:1:13: a port has no 'devargs'; expected devargs: DEVICE, such as "
                "net_af_packet0,iface=eth0"},
        Refusal{"ports: {p1: {devargs: a, rxq: 1.5}}",
                "f:1:31: rxq is '1.5'; expected a number of 1 to 1024"},
        Refusal{"ports: {p1: {devargs: a, mtu: \"1500\"}}",
                "f:1:31: mtu is the text '1500'; expected a number of 68 to 16000"},
        Refusal{"ports: {p1: {devargs: a, promisc: true}}",
                "f:1:26: unknown key 'promisc' in a port; did you mean 'promiscuous'?"},
        Refusal{"ports: {p1: 7}",
                "f:1:13: devargs is the number 7; expected a text; put it into quotes if you mean "
                "\"7\""},
        Refusal{"ports: {'a b': x}",
                "f:1:9: the port's name 'a b' is not possible; expected 1 to 61 letters, digits, "
                "'_', '-', '.'"},
        Refusal{"ports: {none: x}",
                "f:1:9: the port's name 'none' is kept for interfaces on no port; expected another "
                "name"},
        Refusal{"+  Ethernet3: {}",
                "f:7:14: interface 'Ethernet3' has no 'port'; expected port: NAME, or port: none "
                "for an interface that lies on no port"},
        Refusal{"+  Register0: p1",
                "f:7:14: interface 'Register0' cannot lie on a port; expected port: none, or a "
                "name such as Ethernet3, Ethernet3.100 or Vlan100"},
        Refusal{"+  Vlan7: {port: p1, vlan: 4095}",
                "f:7:27: vlan is '4095'; expected a number of 1 to 4094"},
        Refusal{
            "+  Vlan7: {port: p1, vlan: 8}",
            "f:7:27: vlan is 8 and the name 'Vlan7' says 7; expected the name Vlan8, or no vlan"},
        Refusal{"+  Ethernet9: {port: p1, vlan: 8, multicast: maybe}",
                "f:7:3: interfaces 'Ethernet1' (line 5) and 'Ethernet9' are both untagged on port "
                "'p1'; expected one interface for each port and VLAN\n"
                "f:7:31: vlan is 8 and the name 'Ethernet9' says untagged; expected the name "
                "Vlan8, or no vlan\n"
                "f:7:45: multicast is the text 'maybe'; expected true, false, ipv4 or ipv6"},
        Refusal{"vrfs: {default: {families: []}}",
                "f:1:28: families is empty; expected ipv4, ipv6 or both"},
        Refusal{"vrfs: {default: {families: [ipv4, ipv5]}}",
                "f:1:35: a family is the text 'ipv5'; expected ipv4 or ipv6"},
        Refusal{"vrfs: {default: {families: [ipv4], ipv6: {}}}",
                "f:1:42: VRF 'default' does not serve ipv6; add it to families or leave this out"},
        Refusal{"vrfs: {default: {cache_entrys: 7}}",
                "f:1:18: unknown key 'cache_entrys' in VRF 'default'; did you mean "
                "'cache_entries'?"},
        Refusal{"toggles: {MfaWcFwd: 1}",
                "f:1:21: toggle 'MfaWcFwd' is the number 1; expected true or false"}));

INSTANTIATE_TEST_SUITE_P(
    Routes,
    ConfigRefusal,
    ::testing::Values(
        Refusal{
            "+routes: {}",
            "f:7:9: routes is a mapping; expected a list: [...], or lines that begin with '- '"},
        Refusal{"+routes: [{iif: Ethernet1}]",
                "f:7:10: a route has no 'group'; expected group: ADDRESS, such as 239.1.1.1"},
        Refusal{"+routes: [{group: 239.1.1.1}]",
                "f:7:10: a route has no 'iif'; expected iif: NAME, the interface where the packets "
                "arrive"},
        Refusal{"+routes: [{group: 239.1.1.x, iif: Ethernet1}]",
                "f:7:18: group '239.1.1.x' is not an address; expected a form like 239.1.1.1 or "
                "ff15::1"},
        Refusal{"+routes: [{source: 239.1.1.1, group: 239.1.1.1, iif: Ethernet1}]",
                "f:7:19: source '239.1.1.1' is multicast; expected a sender's address, or '*' for "
                "any"},
        Refusal{"+routes: [{source: 10.0.0.256, group: 239.1.1.1, iif: Ethernet1}]",
                "f:7:19: source '10.0.0.256' is not an address; expected a form like 10.0.0.2 or "
                "2001:db8::1, or '*' for any"},
        Refusal{"+routes: [{source: 10.0.0.1, group: ff15::1, iif: Ethernet1}]",
                "f:7:19: source 10.0.0.1 and group ff15::1 are of different families; expected two "
                "IPv4 or two IPv6 addresses"},
        Refusal{"+routes: [{group: 239.1.1.1, iif: Ethernet11}]",
                "f:7:34: unknown interface 'Ethernet11'; did you mean 'Ethernet1'?"},
        Refusal{"+routes: [{group: 239.1.1.1, iif: Ethernet1, oifs: [Ethernet1]}]",
                "f:7:52: 'Ethernet1' is the incoming interface of (*,239.1.1.1) as well; a packet "
                "does not leave where it came from"},
        Refusal{"+routes: [{group: 239.1.1.1, iif: Ethernet1, oifs: [Ethernet2, Ethernet2:1]}]",
                "f:7:63: outgoing interface 'Ethernet2:1' appears twice; expected each interface "
                "and gate once"},
        Refusal{"+routes: [{group: 239.1.1.1, iif: Ethernet1, oifs: [Ethernet2:8192]}]",
                "f:7:52: 'Ethernet2:8192' is not an outgoing interface; expected NAME or "
                "NAME:GATE, a gate of 0 to 8191"},
        Refusal{"+routes: [{group: 239.1.1.1, iif: Ethernet1, oif: [Ethernet2]}]",
                "f:7:45: unknown key 'oif' in a route; did you mean 'oifs'?"},
        Refusal{"+routes: [{group: 239.1.1.1, iif: Ethernet1, flags: [to_cpu, to_cpu, x]}]",
                "f:7:61: flag 'to_cpu' appears twice; expected each once\n"
                "f:7:69: a flag is the text 'x'; expected to_cpu, iif_register or oif_register"},
        Refusal{"+routes: [{group: 239.1.1.1, iif: Ethernet1}, {group: 239.1.1.1, iif: Ethernet2}]",
                "f:7:46: route (*,239.1.1.1) appears twice, first in line 7; expected one route "
                "with all its oifs"},
        Refusal{"+routes: [{vrf: red, group: 239.1.1.1, iif: Ethernet1}]",
                "f:7:16: unknown VRF 'red'; expected one of 'vrfs': default"},
        Refusal{"+vrfs: {default: {families: [ipv6]}}\n"
                "routes: [{group: 239.1.1.1, iif: Ethernet1}]",
                "f:8:10: route (*,239.1.1.1) is IPv4; VRF 'default' does not serve that family"}));

INSTANTIATE_TEST_SUITE_P(
    Names,
    ConfigRefusal,
    ::testing::Values(
        Refusal{"+  Ethernet1: p2",
                "f:7:3: 'Ethernet1' appears twice in interfaces, first in line 5; expected each "
                "name once"},
        Refusal{"+  Vlan7: {port: p1, vrf: blue}",
                "f:7:26: unknown VRF 'blue'; expected one of 'vrfs': default"},
        Refusal{"+vrfs: {default: {id: 1}, red: {id: 1}}",
                "f:7:26: VRFs 'default' and 'red' have one id 1; expected an id for each"},
        Refusal{"workers: 1\nports: {a: {devargs: x, worker: 1}}",
                "f:2:9: port 'a' wants worker 1, which 'workers' does not have"},
        Refusal{"ports: {a: {devargs: x, rxq: 3, worker: [0, 1]}}",
                "f:1:9: port 'a' has 3 receive queues and 2 workers; expected one worker, or one "
                "for each queue"},
        Refusal{"ports: {a: 'net_null0,a=1', b: 'net_null0,a=2'}",
                "f:1:29: ports 'a' and 'b' have one device 'net_null0'; expected a device for "
                "each, such as net_af_packet1,... and net_af_packet2,..."}));

TEST(ConfigParser, survivesHostileTexts) {
  EXPECT_NE(refusal(std::string(100000, '[')), "");
  EXPECT_NE(refusal("a: &a [*a]\nports: *b"), "");
  EXPECT_NE(refusal(std::string("ports: \0", 8)), "");
  EXPECT_NE(refusal("ports: &p {a: *p}"), "");
  EXPECT_NE(refusal("\xff\xfe\xfd"), "");
  EXPECT_NE(refusal("routes: [{group: 239.1.1.1, iif: " + std::string(1 << 20, 'E') + "}]"), "");
}

}  // namespace
}  // namespace Sfectl
