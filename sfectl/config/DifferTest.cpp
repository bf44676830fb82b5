#include "sfectl/config/Differ.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Nynet/IntfId.h"
#include "protocol/modules.pb.h"
#include "sfectl/Arguments.h"
#include "sfectl/Errors.h"
#include "sfectl/config/ConfigParser.h"
#include "sfectl/config/ConfigWriter.h"
#include "sfectl/config/RunningConfig.h"

namespace Sfectl {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

const std::string kFile = R"(bridge_mac: 02:00:00:00:00:01
ports:
  p1: net_null1
  p2: net_null2
interfaces:
  Ethernet1: p1
  Ethernet2: p2
routes:
  - {source: 10.1.0.2, group: 239.1.1.1, iif: Ethernet1, oifs: [Ethernet2]}
  - {source: 10.1.0.2, group: 239.1.1.2, iif: Ethernet1, oifs: [Ethernet2]}
)";

const std::string kMac1("\2\0\0\0\1\1", 6);
const std::string kMac2("\2\0\0\0\1\2", 6);

uint64_t intf(const char* name) {
  return Nynet::IntfId::fromName(name).value();
}

// A daemon as kFile wants it, by hand.
class Daemon {
 public:
  Running running;

  Daemon() {
    running.classes = {"IntfIn", "IntfOut", "Mfib", "PortInc", "PortOut", "Sink"};
    running.workers = {{0, -1}};
    port("p1", 4, "net_null1", kMac1);
    port("p2", 7, "net_null2", kMac2);
    module("in", "IntfIn", sfe::pb::IntfInArg());
    module("out", "IntfOut", sfe::pb::IntfOutArg());
    module("sink", "Sink", bess::pb::SinkArg());
    instance("mfib4", "default", 1, 0);
    instance("mfib6", "default", 2, 1);
    connect("in", 2, "sink");
    for (const char* edge : {"in", "out"}) {
      running.edges[edge]["Ethernet1"] = {4, 0, kMac1, 0};
      running.edges[edge]["Ethernet2"] = {7, 0, kMac2, 0};
    }
    route("mfib4", "10.1.0.2", "239.1.1.1", {"Ethernet2"});
    route("mfib4", "10.1.0.2", "239.1.1.2", {"Ethernet2"});
  }

  void port(const std::string& name, uint32_t id, const char* devargs, const std::string& mac) {
    running.ports[name] = {id, devargs, mac, 1500, 1, 1, false, true};
    bess::pb::PortIncArg in;
    in.set_port(name);
    bess::pb::PortOutArg out;
    out.set_port(name);
    module("rx." + name, "PortInc", in);
    module("tx." + name, "PortOut", out);
    connect("rx." + name, 0, "in");
    connect("out", id, "tx." + name);
    running.tasks[{"rx." + name, 0}] = {0, 0};
  }

  void module(const std::string& name,
              const std::string& className,
              const google::protobuf::Message& arg) {
    running.modules[name].className = className;
    running.modules[name].arg.PackFrom(arg);
  }

  void connect(const std::string& from, uint32_t gate, const std::string& to) {
    running.connections[{from, gate}] = {to, 0};
  }

  void instance(const std::string& name, const std::string& vrf, uint32_t af, uint32_t gate) {
    sfe::pb::MfibArg arg;
    arg.set_vrfname(vrf);
    arg.set_af(af);
    arg.set_ethernet_mode(true);
    module(name, "Mfib", arg);
    connect("in", gate, name);
    connect(name, 0, "sink");
    connect(name, 1, "out");
    RunningInstance& made = running.instances[name];
    made.settings.bridgeMac = parseMac("02:00:00:00:00:01");
    made.resolveTask = 0;
    made.cleanupTask = 1;
    made.interfaces = {intf("Ethernet1"), intf("Ethernet2")};
    running.tasks[{name, 0}] = {0, 0};
    running.tasks[{name, 1}] = {0, 1};
    for (const CounterName& counter : kCounterNames) {
      const auto id = static_cast<uint32_t>(running.counters.size());
      running.counters[name + "." + counter.name] = id;
      made.counterIds.push_back(id);
    }
  }

  void route(const std::string& module,
             const char* source,
             const char* group,
             std::initializer_list<const char*> oifs) {
    RouteConfig made;
    made.key = {parseAddress(source, "").bytes, parseAddress(group, "").bytes};
    made.iif = intf("Ethernet1");
    for (const char* oif : oifs) {
      made.oifs.emplace(intf(oif), 1);
    }
    running.instances[module].routes[made.key] = made;
  }
};

std::vector<std::string> steps(const std::string& file, const Running& running) {
  std::vector<std::string> texts;
  for (const Step& step : makePlan(parseConfig(file, "f").config, running).steps) {
    texts.push_back(step.text());
  }
  return texts;
}

std::string replaced(const std::string& from, const std::string& to) {
  std::string text = kFile;
  const size_t at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  return text.replace(at, from.size(), to);
}

TEST(Differ, hasNoStepsForADaemonThatIsAsTheFileSays) {
  EXPECT_THAT(steps(kFile, Daemon().running), IsEmpty());
}

TEST(Differ, buildsEverythingInAnEmptyDaemon) {
  const std::string small = R"(ports: {p1: net_null1}
interfaces: {Ethernet1: p1}
vrfs: {default: {families: [ipv4], cache_packets: 7}}
routes: [{group: 239.1.1.1, iif: Ethernet1, flags: [to_cpu]}]
)";
  Running empty;
  empty.classes = {"PortInc", "PortOut", "Sink"};
  EXPECT_THAT(
      steps(small, empty),
      ElementsAre(
          "+ plug-in libSfeIntf.so", "+ plug-in libMfib.so", "+ worker 0", "+ port p1: net_null1",
          "+ module in: IntfIn", "+ module out: IntfOut", "+ module sink: Sink",
          "+ module mfib4: Mfib, VRF default, IPv4", "+ module rx.p1: PortInc, port p1",
          "+ module tx.p1: PortOut, port p1", "+ connection in:0: to mfib4",
          "+ connection mfib4:0: to sink", "+ connection mfib4:1: to out",
          "+ connection in:1: to sink", "+ connection in:2: to sink", "+ connection rx.p1:0: to in",
          "+ connection out: gate of port p1 to tx.p1", "+ interface Ethernet1: to out, port p1",
          "+ interface Ethernet1: to in, port p1", "~ settings mfib4: ids of its event counters",
          "~ settings mfib4: bridge_mac of port p1", "~ settings mfib4: cache_packets 3 -> 7",
          "+ multicast Ethernet1: of mfib4",
          "+ route (*,239.1.1.1): of mfib4: iif Ethernet1, oifs none, to_cpu",
          "+ task mfib4, held packets: worker 0",
          "+ task mfib4, clean-up: worker 0, 1 runs a second", "+ task rx.p1: worker 0"));
}

TEST(Differ, makesNothingOfAFileThatSaysNothing) {
  EXPECT_THAT(steps("{}", Running()),
              ElementsAre("+ plug-in libSfeIntf.so", "+ plug-in libMfib.so"));
}

TEST(Differ, touchesOnlyTheRouteThatDiffers) {
  EXPECT_THAT(steps(kFile + "  - {group: 239.1.1.3, iif: Ethernet1}\n", Daemon().running),
              ElementsAre("+ route (*,239.1.1.3): of mfib4: iif Ethernet1, oifs none"));
  EXPECT_THAT(steps(replaced("239.1.1.2, iif: Ethernet1, oifs: [Ethernet2]",
                             "239.1.1.2, iif: Ethernet2, oifs: [Ethernet1]"),
                    Daemon().running),
              ElementsAre("~ route (10.1.0.2,239.1.1.2): of mfib4: iif Ethernet2, oifs Ethernet1"));
  EXPECT_THAT(steps(replaced("239.1.1.2", "239.1.1.9"), Daemon().running),
              ElementsAre("- route (10.1.0.2,239.1.1.2): of mfib4",
                          "+ route (10.1.0.2,239.1.1.9): of mfib4: iif Ethernet1, oifs Ethernet2"));
}

TEST(Differ, leavesTheRoutesOfADaemonOfRoutingWhereTheFileSaysSo) {
  Daemon daemon;
  daemon.route("mfib4", "10.9.9.9", "239.9.9.9", {"Ethernet2"});
  daemon.route("mfib4", "10.1.0.2", "239.1.1.1", {});
  EXPECT_THAT(steps(kFile + "vrfs: {default: {exclusive_routes: false}}\n", daemon.running),
              ElementsAre("~ route (10.1.0.2,239.1.1.1): of mfib4: iif Ethernet1, oifs Ethernet2"));
}

TEST(Differ, changesSettingsInPlace) {
  EXPECT_THAT(steps(kFile + "vrfs: {default: {cache_expiry: 11, ipv6: {suppression_timer: 0}}}\n",
                    Daemon().running),
              ElementsAre("~ settings mfib4: cache_expiry 10 -> 11",
                          "~ settings mfib6: suppression_timer 5 -> 0",
                          "~ settings mfib6: cache_expiry 10 -> 11"));
  EXPECT_THAT(steps(replaced("02:00:00:00:00:01", "02:00:00:00:00:02"), Daemon().running),
              ElementsAre("~ settings mfib4: bridge_mac 02:00:00:00:00:02",
                          "~ settings mfib6: bridge_mac 02:00:00:00:00:02"));
  EXPECT_THAT(steps(replaced("bridge_mac: 02:00:00:00:00:01\n", ""), Daemon().running), IsEmpty());
}

TEST(Differ, makesAPortAnewWithEverythingOnIt) {
  EXPECT_THAT(
      steps(replaced("net_null2", "net_null2,size=64"), Daemon().running),
      ElementsAre("- interface Ethernet2: of in", "- interface Ethernet2: of out", "- module rx.p2",
                  "- module tx.p2", "- port p2: to be made anew with other settings",
                  "+ port p2: net_null2,size=64", "+ module rx.p2: PortInc, port p2",
                  "+ module tx.p2: PortOut, port p2", "+ connection rx.p2:0: to in",
                  "+ connection out: gate of port p2 to tx.p2",
                  "+ interface Ethernet2: to out, port p2", "+ interface Ethernet2: to in, port p2",
                  "+ task rx.p2: worker 0"));
}

TEST(Differ, keepsWhatTheFileLeavesOpen) {
  Daemon daemon;
  daemon.running.ports["p1"].mtu = 9000;
  daemon.running.ports["p1"].txq = 4;
  daemon.running.ports["p1"].promiscuous = true;
  EXPECT_THAT(steps(kFile, daemon.running), IsEmpty());
  EXPECT_THAT(steps(replaced("p1: net_null1", "p1: {devargs: net_null1, mtu: 9000, txq: 4}"),
                    daemon.running),
              IsEmpty());
  EXPECT_THAT(
      steps(replaced("p1: net_null1", "p1: {devargs: net_null1, mtu: 1500}"), daemon.running),
      ::testing::Contains("- port p1: to be made anew with other settings"));
}

TEST(Differ, makesAPortAnewForAnotherQueueSize) {
  Daemon daemon;
  daemon.running.ports["p1"].queueSize = 512;
  EXPECT_THAT(steps(kFile, daemon.running), IsEmpty());
  EXPECT_THAT(
      steps(replaced("p1: net_null1", "p1: {devargs: net_null1, queue_size: 512}"), daemon.running),
      IsEmpty());
  EXPECT_THAT(
      steps(replaced("p1: net_null1", "p1: {devargs: net_null1, queue_size: 256}"), daemon.running),
      ::testing::Contains("- port p1: to be made anew with other settings"));
}

TEST(Differ, setsThePublicationPeriodThatTheFileSays) {
  Daemon daemon;
  daemon.running.publishPeriod = 200;
  EXPECT_THAT(steps(kFile, daemon.running), IsEmpty());
  EXPECT_THAT(steps("publish_period: 200\n" + kFile, daemon.running), IsEmpty());
  EXPECT_THAT(steps("publish_period: 1000\n" + kFile, daemon.running),
              ElementsAre("~ publication period 1000 ms: from 200 ms"));
}

TEST(Differ, removesWhatIsItsOwnAndLeavesWhatSomebodyMade) {
  Daemon daemon;
  daemon.port("p3", 9, "net_null3", kMac1);
  daemon.running.ports["other"] = {11, "net_null9", kMac1, 1500, 1, 1, false, true};
  daemon.module("mine", "Source", bess::pb::SourceArg());
  daemon.connect("mine", 0, "in");
  EXPECT_THAT(steps(kFile, daemon.running),
              ElementsAre("- module rx.p3", "- module tx.p3", "- port p3"));
}

TEST(Differ, usesModulesThatStandThereUnderOtherNames) {
  Daemon daemon;
  auto node = daemon.running.modules.extract("rx.p1");
  node.key() = "reader";
  daemon.running.modules.insert(std::move(node));
  daemon.running.connections.erase({"rx.p1", 0});
  daemon.connect("reader", 0, "in");
  daemon.running.tasks.erase({"rx.p1", 0});
  daemon.running.tasks[{"reader", 0}] = {0, 0};
  EXPECT_THAT(steps(kFile, daemon.running), IsEmpty());
}

TEST(Differ, leavesWhatSomebodyPutBetweenTwoModules) {
  Daemon daemon;
  daemon.module("probe", "Probe", bess::pb::SinkArg());
  daemon.connect("mfib4", 1, "probe");
  daemon.connect("probe", 0, "out");
  EXPECT_THAT(steps(kFile, daemon.running), IsEmpty());
  daemon.connect("mfib4", 1, "sink");
  EXPECT_THAT(steps(kFile, daemon.running),
              ElementsAre("- connection mfib4:1: to sink", "+ connection mfib4:1: to out"));
}

TEST(Differ, givesEachVrfGatesOfItsOwn) {
  const std::string file =
      replaced("  Ethernet2: p2\n", "  Ethernet2: p2\n  Vlan7: {port: p1, vrf: red}\n") +
      "vrfs: {default: {}, red: {families: [ipv4]}}\n";
  EXPECT_THAT(
      steps(file, Daemon().running),
      ElementsAre("+ module mfib4.red: Mfib, VRF red, IPv4", "+ connection in:3: to mfib4.red",
                  "+ connection mfib4.red:0: to sink", "+ connection mfib4.red:1: to out",
                  "+ connection in:4: to sink", "+ connection in:5: to sink",
                  "+ interface Vlan7: to out, port p1, VLAN 7",
                  "+ interface Vlan7: to in, port p1, VLAN 7",
                  "~ settings mfib4.red: ids of its event counters",
                  "~ settings mfib4.red: bridge_mac 02:00:00:00:00:01",
                  "+ multicast Vlan7: of mfib4.red", "+ task mfib4.red, held packets: worker 0",
                  "+ task mfib4.red, clean-up: worker 0, 1 runs a second"));
}

TEST(Differ, takesAVrfAwayWithItsGates) {
  Daemon daemon;
  daemon.instance("mfib4.red", "red", 1, 3);
  daemon.connect("in", 4, "sink");
  daemon.connect("in", 5, "sink");
  daemon.running.edges["in"]["Vlan7"] = {4, 7, kMac1, 3};
  daemon.running.edges["out"]["Vlan7"] = {4, 7, kMac1, 0};
  EXPECT_THAT(steps(kFile, daemon.running),
              ElementsAre("- interface Vlan7: of in", "- interface Vlan7: of out",
                          "- connection in:4: to sink", "- connection in:5: to sink",
                          "- module mfib4.red"));
}

TEST(Differ, movesTasksOnlyWhenTheirWorkerGoes) {
  Daemon daemon;
  daemon.running.workers = {{0, -1}, {1, -1}};
  EXPECT_THAT(steps(kFile, daemon.running), IsEmpty());
  EXPECT_THAT(steps("workers: 1\n" + kFile, daemon.running), ElementsAre("- worker 1"));
  daemon.running.tasks[{"rx.p2", 0}] = {1, 0};
  EXPECT_THAT(steps("workers: 1\n" + kFile, daemon.running),
              ElementsAre("~ task rx.p2: worker 0", "- worker 1"));
  daemon.running.tasks[{"mine", 0}] = {1, 0};
  EXPECT_THAT(steps("workers: 1\n" + kFile, daemon.running), ElementsAre("~ task rx.p2: worker 0"));
  EXPECT_THAT(steps("workers: 3\n" + kFile, daemon.running), ElementsAre("+ worker 2"));
  EXPECT_THAT(
      steps(replaced("p2: net_null2", "p2: {devargs: net_null2, worker: none}"), Daemon().running),
      ElementsAre("~ task rx.p2: no worker"));
}

TEST(Differ, startsNoWorkerThatHasNoQueueToSendBy) {
  Daemon daemon;
  daemon.running.workers = {{0, -1}, {1, -1}};
  daemon.running.tasks[{"rx.p2", 0}] = {kNoWorker, 0};
  EXPECT_THAT(steps(kFile, daemon.running), ElementsAre("+ task rx.p2: worker 0"));
  daemon.running.ports["p1"].txq = daemon.running.ports["p2"].txq = 2;
  EXPECT_THAT(steps(kFile, daemon.running), ElementsAre("+ task rx.p2: worker 1"));
}

TEST(Differ, refusesToMoveAWorker) {
  Daemon daemon;
  daemon.running.workers[0] = 3;
  EXPECT_THAT(steps("workers: [3]\n" + kFile, daemon.running), IsEmpty());
  EXPECT_THROW(steps("workers: [4]\n" + kFile, daemon.running), RuntimeError);
}

TEST(Differ, comparesTogglesWithThoseOfTheDaemon) {
  const auto check = [](const std::string& file) {
    return checkToggles(parseConfig(file, "f").config, {{"MfaWcFwd", true}});
  };
  EXPECT_THAT(check("toggles: {MfaWcFwd: true}"), IsEmpty());
  EXPECT_THAT(check("toggles: {Other: false}"), ElementsAre("Other"));
  try {
    check("toggles: {MfaWcFwd: false}");
    FAIL();
  } catch (const RuntimeError& error) {
    EXPECT_THAT(error.what(), HasSubstr("toggle MfaWcFwd is on in the daemon and the file says"));
  }
}

// --- save

// What apply does with what save writes.
std::vector<std::string> savedSteps(const Running& running) {
  return steps(writeConfig(configOf(running)), running);
}

TEST(RunningConfig, isTheFileThatMadeIt) {
  EXPECT_EQ(writeConfig(configOf(Daemon().running)),
            R"(workers: 1
bridge_mac: "02:00:00:00:00:01"

ports:
  p1: net_null1
  p2: net_null2

interfaces:
  Ethernet1: p1
  Ethernet2: p2

routes:
  - {source: 10.1.0.2, group: 239.1.1.1, iif: Ethernet1, oifs: [Ethernet2]}
  - {source: 10.1.0.2, group: 239.1.1.2, iif: Ethernet1, oifs: [Ethernet2]}
)");
  EXPECT_THAT(savedSteps(Daemon().running), IsEmpty());
}

TEST(RunningConfig, saysWhateverSingleCommandsChanged) {
  Daemon daemon;
  Running& running = daemon.running;
  running.workers = {{0, 2}, {3, -1}};
  running.ports["p1"] = {4, "net_null1", kMac1, 9000, 2, 5, true, true, 512};
  running.publishPeriod = 50;
  running.tasks[{"rx.p1", 1}] = {3, 0};
  running.tasks[{"rx.p2", 0}] = {kNoWorker, 0};
  running.tasks[{"mfib6", 1}] = {0, 9};
  running.edges["in"]["Ethernet1"].mac = kMac2;
  running.edges["out"]["Ethernet1"].mac = kMac2;
  running.instances["mfib4"].interfaces.erase(intf("Ethernet2"));
  running.instances["mfib6"].interfaces.insert(intf("Register0"));
  running.instances["mfib6"].settings.cacheEntries = 0;
  running.instances["mfib4"].settings.bridgeMac = kMac1;
  daemon.instance("mfib6.red", "red", 2, 4);
  running.instances["mfib6.red"].interfaces = {intf("Vlan9"), intf("Ethernet1")};
  running.edges["in"]["Vlan9"] = {7, 9, kMac2, 3};
  running.edges["out"]["Vlan9"] = {7, 9, kMac2, 0};
  daemon.connect("in", 3, "sink");
  daemon.connect("in", 5, "sink");
  daemon.route("mfib4", "0.0.0.0", "239.3.3.3", {"Ethernet77", "Tunnel5"});
  daemon.route("mfib6.red", "2001:db8::1", "ff15::1", {"Vlan9"});
  RouteConfig& route = running.instances["mfib4"].routes.begin()->second;
  route.oifs.emplace(intf("Ethernet2"), 2);
  route.toCpu = route.iifRegister = route.oifRegister = true;
  route.iifFrr = route.notify = route.fastdrop = intf("Ethernet2");
  EXPECT_EQ(configOf(running).ports[0].queueSize, 512u);
  EXPECT_EQ(configOf(running).publishPeriod, 50u);
  EXPECT_THAT(savedSteps(running), IsEmpty()) << writeConfig(configOf(running));
}

}  // namespace
}  // namespace Sfectl
