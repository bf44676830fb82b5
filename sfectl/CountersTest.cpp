#include "sfectl/Counters.h"

#include <gtest/gtest.h>

#include <sstream>

#include "Nynet/IntfId.h"
#include "sfectl/Arguments.h"

namespace Sfectl {
namespace {

using Nynet::AddressFamily;
using Sfe::Multicast::CounterMount;
using Sfe::Multicast::IntfCounter;
using Sfe::Multicast::MrouteCounter;

Nynet::IpGenPrefix host(const char* text) {
  const Address parsed = parseAddress(text, "address");
  return {
      Nynet::IpGenAddr(AddressFamily::kIpv4, reinterpret_cast<const uint8_t*>(parsed.bytes.data())),
      32};
}

CounterReport sample() {
  const CounterMount mount{AddressFamily::kIpv4, "default", "intf"};
  IntfCounter intf(Nynet::IntfId::fromName("Ethernet1"));
  intf.pktsInInc(5);
  intf.bytesInInc(640);
  intf.pktsOutInc(10);
  intf.bytesOutInc(1280);
  intf.pktsQueuedInc(2);
  intf.pktsDroppedInc(1);
  MrouteCounter route(Routing::Multicast::Fib::IpGenRouteKey(host("10.0.0.2"), host("239.1.1.1")));
  route.pktsInInc(5);
  route.bytesInInc(640);
  route.wrongVifInc(1);
  route.pktsQueuedInc(2);
  route.pktsDroppedInc(3);
  CounterReport report;
  report.add(mount, intf);
  report.add(mount, route);
  return report;
}

TEST(Counters, printTables) {
  const CounterReport report = sample();
  std::ostringstream out;
  report.interfaces().printText(out);
  report.routes().printText(out);
  EXPECT_EQ(out.str(),
            "VRF      FAMILY  INTF       RX-PACKETS  RX-BYTES  TX-PACKETS  TX-BYTES  QUEUED  "
            "DROPPED\n"
            "default  ipv4    Ethernet1           5       640          10      1280       2  "
            "      1\n"
            "VRF      SOURCE    GROUP      PACKETS  BYTES  WRONG-IF  QUEUED  DROPPED\n"
            "default  10.0.0.2  239.1.1.1        5    640         1       2        3\n");
}

TEST(Counters, haveTheUsualJsonNames) {
  const CounterReport report = sample();
  EXPECT_EQ(dumpJson(report.interfaces().toJson()),
            R"([{"vrf":"default","family":"ipv4","intf":"Ethernet1","rx_packets":5,"rx_bytes":640,)"
            R"("tx_packets":10,"tx_bytes":1280,"queued":2,"dropped":1}])");
  EXPECT_EQ(dumpJson(report.routes().toJson()),
            R"([{"vrf":"default","src":"10.0.0.2","dst":"239.1.1.1","packets":5,"bytes":640,)"
            R"("wrong_if":1,"queued":2,"dropped":3}])");
}

TEST(Counters, findNothingForASystemThatDoesNotRun) {
  CounterReport report;
  EXPECT_FALSE(report.readAll("no-such-system-of-a-test", {}));
  EXPECT_TRUE(report.faults().empty());
}

}  // namespace
}  // namespace Sfectl
