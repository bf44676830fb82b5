// Many lives of the module, each with routes, traffic, held packets, notifications and both tasks:
// what the process holds afterwards is what it held after the tenth.
//
// SFE_SOAK_CYCLES: how many; by default 1000.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <urcu-qsbr.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "Bess/Testing/ModuleHarness.h"
#include "Sfe/Counters/Counters.h"
#include "SfeModules/Testing/MfibFixture.h"
#include "SfeModules/Testing/PacketBuilder.h"
#include "tests/soak/Isolation.h"
#include "tests/soak/Resources.h"

namespace soak {
namespace {

using namespace SfeModules::frames;  // NOLINT(google-build-using-namespace): the builder's words
using SfeModules::MfibTestPeer;

constexpr unsigned kCycles = 1000;
constexpr unsigned kWarm = 10;
constexpr unsigned kRoutes = 4;
constexpr unsigned kPackets = 3;  // of each flow
// The C library counts what its caches hold as in use; they fill up to a bound, however many lives
// there are. An allocation lost in each of a thousand lives is more.
constexpr size_t kHeapSlack = 16384;
constexpr std::chrono::seconds kPatience{30};

uint64_t id(const std::string& intf) {
  return Nynet::IntfId::fromName(intf).value();
}

// One life of an instance, on the test's own thread, which acts as worker 0.
class Life {
 public:
  explicit Life(unsigned number) : af_(number % 2 == 0 ? 1 : 2) {}

  void live();

 private:
  bool ipv4() const { return af_ == 1; }
  std::string source() const { return ipv4() ? "10.0.0.2" : "2001:db8::2"; }
  std::string group(unsigned n) const {
    return (ipv4() ? "239.1.1." : "ff0e::") + std::to_string(n + 1);
  }
  void program(const char* command, unsigned n, bool wholePacket);
  void send(unsigned n, bess::testing::ModuleHarness& harness);
  void size(const char* command, uint32_t value);
  void run(const char* command, const google::protobuf::Message& arg);

  const uint32_t af_;
  SfeModules::Mfib* mfib_ = nullptr;
  size_t out_ = 0;
};

void Life::run(const char* command, const google::protobuf::Message& arg) {
  google::protobuf::Any any;
  any.PackFrom(arg);
  const CommandResponse response = ModuleGraph::runCommand(mfib_->name(), command, any);
  ASSERT_FALSE(response.has_error() && response.error().code() != 0) << response.error().errmsg();
}

void Life::program(const char* command, unsigned n, bool wholePacket) {
  const auto bytes = [this](const std::string& text) {
    std::string address(ipv4() ? 4 : 16, '\0');
    EXPECT_EQ(inet_pton(ipv4() ? AF_INET : AF_INET6, text.c_str(), address.data()), 1) << text;
    return address;
  };
  sfe::pb::MfibRouteArg arg;
  arg.set_source(bytes(source()));
  arg.set_group(bytes(group(n)));
  arg.set_iif(id("Ethernet1"));
  arg.set_oif_register(wholePacket);
  for (const char* oif : {"Ethernet2", "Ethernet3"}) {
    sfe::pb::OifArg* added = arg.add_oifs();
    added->set_intf_id(id(oif));
    added->set_gate(1);
  }
  run(command, arg);
}

void Life::size(const char* command, uint32_t value) {
  sfe::pb::SizeArg arg;
  arg.set_value(value);
  run(command, arg);
}

void Life::send(unsigned n, bess::testing::ModuleHarness& harness) {
  Ip ip;
  ip.source = source();
  ip.group = group(n);
  const Bytes frame = etherFrame("01:00:5e:00:00:01", "02:00:00:00:00:01",
                                 ipv4() ? kEtherTypeIpv4 : kEtherTypeIpv6, ipPacket(ip));
  std::vector<bess::PacketPtr> packets;
  for (unsigned i = 0; i < kPackets; ++i) {
    packets.push_back(harness.packet(frame));
    SfeModules::ForwardingMetadata& meta = SfeModules::metadataOf(packets.back().get());
    meta.presence = SfeModules::kHasInIntf;
    meta.inIntf = id("Ethernet1");
  }
  out_ += harness.offer(*mfib_, std::move(packets)).total();
}

void Life::live() {
  bess::testing::ModuleHarness harness;
  sfe::pb::MfibArg arg;
  arg.set_vrfname("default");
  arg.set_af(af_);
  arg.set_ethernet_mode(true);
  mfib_ = &harness.create<SfeModules::Mfib>("Mfib", arg);
  harness.capture(*mfib_, {0, 1});
  sfe::pb::MulticastIntfArg intfs;
  intfs.add_intf_ids(id("Ethernet1"));
  run("addMulticastIntfs", intfs);
  run("regMfibTasks", sfe::pb::MfibTaskIdArg());
  run("regCleanupTask", sfe::pb::MfibTaskIdArg());

  for (unsigned n = 0; n < kRoutes; ++n) {
    program("addMroute", n, n == 0);
    send(n, harness);
  }
  ASSERT_EQ(out_, kRoutes * kPackets * 2U);
  const unsigned late = kRoutes;        // its route arrives after its packets
  const unsigned never = kRoutes + 1;   // its packets expire
  const unsigned orphan = kRoutes + 2;  // its packets are held when the instance ends
  send(late, harness);
  ASSERT_EQ(MfibTestPeer::cache(*mfib_)->packetCount(), kPackets);
  program("addMroute", late, false);
  out_ = harness.runTask(*mfib_, 0).second.total();
  ASSERT_EQ(out_, kPackets * 2U);
  send(never, harness);
  size("setCacheExpiryTimer", 0);
  harness.runTask(*mfib_, 0);
  ASSERT_EQ(MfibTestPeer::cache(*mfib_)->packetCount(), 0U);
  harness.runTask(*mfib_, 1);
  SfeModules::publishCountersNow();
  program("deleteMroute", 0, false);
  send(orphan, harness);
  ASSERT_GT(MfibTestPeer::cache(*mfib_)->packetCount(), 0U);
}

bool isMounted() {
  std::ifstream mounts("/proc/self/mountinfo");
  std::string line;
  while (std::getline(mounts, line)) {
    if (line.find(" /BessProc ") != line.npos) {
      return true;
    }
  }
  return false;
}

// The state file system mounts a while after the first life asked for it, and stays: what it takes
// is in the level that later lives are held to. Without the right to mount its thread ends instead.
void awaitStateFiles(size_t threadsBefore) {
  await([&] { return isMounted() || Resources::now().threads <= threadsBefore; }, kPatience);
}

TEST(Cycle, givesBackEverythingThatALifeTook) {
  const unsigned cycles = setting("SFE_SOAK_CYCLES", kCycles);
  SfeModules::createCounterRow(0);
  Resources level;
  for (unsigned i = 0; i < cycles && !HasFatalFailure(); ++i) {
    if (i == kWarm) {
      awaitStateFiles(1);
      level = Resources::now();
    }
    Life(i).live();
    urcu_qsbr_quiescent_state();
  }
  const Resources end = Resources::now();
  std::printf("after %u: %s\nafter %u: %s\n", kWarm, level.text().c_str(), cycles,
              end.text().c_str());
  EXPECT_LE(end.dpdkBytes, level.dpdkBytes + kHeldBackBytes);
  EXPECT_LE(end.heapBytes, level.heapBytes + kHeapSlack);
  EXPECT_LE(end.threads, level.threads);
  EXPECT_LE(end.fileDescriptors, level.fileDescriptors);
  EXPECT_LE(end.sharedObjects, level.sharedObjects);
  EXPECT_LE(end.netlinkSockets, level.netlinkSockets);
  EXPECT_EQ(end.packets, level.packets);
}

}  // namespace
}  // namespace soak
