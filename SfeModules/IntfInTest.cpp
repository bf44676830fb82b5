#include "SfeModules/IntfIn.h"

#include <gtest/gtest.h>

#include <memory>

#include "SfeModules/ForwardingMetadata.h"
#include "SfeModules/IntfTesting.h"

namespace SfeModules {
namespace {

using bess::PacketPtr;
using bess::testing::contents;
using bess::testing::Output;
using testing::ethernet;
using testing::Ipv4;
using testing::Ipv6;
using testing::kGroupMac;
using testing::kOtherMac;
using testing::kOwnMac;
using testing::segmented;
using testing::tagged;

const std::string kPayload(32, 'p');

class IntfInTest : public ::testing::Test {
 protected:
  IntfInTest() : module_(harness_.own(std::make_unique<IntfIn>())) {
    harness_.capture(module_, {IntfIn::kIpv4Gate, IntfIn::kIpv6Gate, IntfIn::kHostGate});
    add("Ethernet3", 3, 0);
    add("Vlan100", 3, 100);
  }

  void add(const std::string& name, unsigned port, unsigned vlan, unsigned gateBase = 0) {
    sfe::pb::IntfArg arg;
    arg.set_gate_base(gateBase);
    arg.set_name(name);
    arg.set_port(port);
    arg.set_vlan(vlan);
    arg.set_mac(kOwnMac);
    ASSERT_FALSE(module_.addIntf(arg).has_error());
  }

  void strip() {
    sfe::pb::IntfInArg arg;
    arg.set_strip_ipv4(true);
    module_.Init(arg);
  }

  Output receive(PacketPtr pkt, uint16_t port = 3) {
    pkt->mbuf()->port = port;
    return harness_.offer(module_, std::move(pkt));
  }
  Output receive(const std::string& frame, uint16_t port = 3) {
    return receive(harness_.packet(frame), port);
  }

  // The one packet that came out, by the gate that is expected.
  PacketPtr only(Output out, gate_idx_t gate) {
    EXPECT_EQ(out.total(), 1U);
    EXPECT_EQ(out.count(gate), 1U);
    return out.count(gate) == 0 ? nullptr : std::move(out[gate].front());
  }

  void expectDropped(const Output& out, IntfIn::Drop reason) {
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(module_.drops(reason), 1U);
    EXPECT_EQ(module_.Module::drops(), 1U);
  }

  bess::testing::ModuleHarness harness_;
  IntfIn& module_;
};

TEST_F(IntfInTest, sendsIpv4DataUnchangedByItsGate) {
  std::string frame = ethernet(kGroupMac, 0x0800, Ipv4{}.with(kPayload));
  PacketPtr pkt = only(receive(frame), IntfIn::kIpv4Gate);
  ASSERT_NE(pkt, nullptr);
  EXPECT_EQ(contents(pkt.get()), frame);
}

TEST_F(IntfInTest, sendsIpv6DataByItsGate) {
  std::string frame = ethernet(kGroupMac, 0x86dd, Ipv6{}.with(kPayload));
  PacketPtr pkt = only(receive(frame), IntfIn::kIpv6Gate);
  ASSERT_NE(pkt, nullptr);
  EXPECT_EQ(contents(pkt.get()), frame);
}

TEST_F(IntfInTest, leavesNothingButTheIncomingInterface) {
  PacketPtr pkt = harness_.packet(ethernet(kGroupMac, 0x0800, Ipv4{}.with(kPayload)));
  memset(pkt->metadata<char*>(), 0xff, bess::Packet::kMetadataSize);
  pkt = only(receive(std::move(pkt)), IntfIn::kIpv4Gate);
  ASSERT_NE(pkt, nullptr);
  ForwardingMetadata expected{};
  expected.presence = kHasInIntf;
  expected.inIntf = Nynet::IntfId::fromName("Ethernet3").value();
  EXPECT_EQ(memcmp(&metadataOf(pkt.get()), &expected, sizeof(expected)), 0);
}

TEST_F(IntfInTest, takesTheTagOffData) {
  std::string ip = Ipv6{}.with(kPayload);
  PacketPtr pkt = only(receive(tagged(kGroupMac, 0xe064, 0x86dd, ip)), IntfIn::kIpv6Gate);
  ASSERT_NE(pkt, nullptr);
  EXPECT_EQ(contents(pkt.get()), ethernet(kGroupMac, 0x86dd, ip));
  EXPECT_EQ(metadataOf(pkt.get()).inIntf, Nynet::IntfId::fromName("Vlan100").value());
}

TEST_F(IntfInTest, takesAPriorityTagForNone) {
  std::string ip = Ipv4{}.with(kPayload);
  PacketPtr pkt = only(receive(tagged(kGroupMac, 0xe000, 0x0800, ip)), IntfIn::kIpv4Gate);
  ASSERT_NE(pkt, nullptr);
  EXPECT_EQ(contents(pkt.get()), ethernet(kGroupMac, 0x0800, ip));
  EXPECT_EQ(metadataOf(pkt.get()).inIntf, Nynet::IntfId::fromName("Ethernet3").value());
}

TEST_F(IntfInTest, stripsTheLinkHeaderOfIpv4DataWhenToldSo) {
  strip();
  std::string ip = Ipv4{}.with(kPayload);
  for (const std::string& frame :
       {ethernet(kGroupMac, 0x0800, ip), tagged(kGroupMac, 100, 0x0800, ip)}) {
    PacketPtr pkt = only(receive(frame), IntfIn::kIpv4Gate);
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(contents(pkt.get()), ip);
  }
  std::string v6 = ethernet(kGroupMac, 0x86dd, Ipv6{}.with(kPayload));
  PacketPtr pkt = only(receive(v6), IntfIn::kIpv6Gate);
  ASSERT_NE(pkt, nullptr);
  EXPECT_EQ(contents(pkt.get()), v6);
}

TEST_F(IntfInTest, sendsTheRestToTheHostWithItsTag) {
  std::string arp = tagged(testing::kBroadcastMac, 100, 0x0806, kPayload);
  PacketPtr pkt = only(receive(arp), IntfIn::kHostGate);
  ASSERT_NE(pkt, nullptr);
  EXPECT_EQ(contents(pkt.get()), arp);
  EXPECT_EQ(metadataOf(pkt.get()).inIntf, Nynet::IntfId::fromName("Vlan100").value());
}

TEST_F(IntfInTest, sendsARegisterToItsOwnAddressToTheDataGate) {
  Ipv4 ip{.group = std::string("\x0a\0\0\1", 4), .protocol = 103};
  std::string inner = std::string("\x21\0\0\0\0\0\0\0", 8) + Ipv4{}.with(kPayload);
  EXPECT_EQ(receive(ethernet(kOwnMac, 0x0800, ip.with(inner))).count(IntfIn::kIpv4Gate), 1U);
  inner[4] = 0x40;
  EXPECT_EQ(receive(ethernet(kOwnMac, 0x0800, ip.with(inner))).count(IntfIn::kHostGate), 1U);
}

TEST_F(IntfInTest, dropsAnUnknownVlan) {
  expectDropped(receive(tagged(kGroupMac, 101, 0x0800, Ipv4{}.with(kPayload))),
                IntfIn::Drop::kUnknownVlan);
}

TEST_F(IntfInTest, dropsAServiceTag) {
  expectDropped(receive(ethernet(kGroupMac, 0x88a8, std::string("\0\x64\x08\0", 4) + kPayload)),
                IntfIn::Drop::kUnknownVlan);
}

TEST_F(IntfInTest, dropsWhatComesFromAPortWithoutInterfaces) {
  expectDropped(receive(ethernet(kGroupMac, 0x0800, Ipv4{}.with(kPayload)), 0xffff),
                IntfIn::Drop::kUnknownPort);
}

TEST_F(IntfInTest, dropsUnicastToAnotherHost) {
  expectDropped(receive(ethernet(kOtherMac, 0x0806, kPayload)), IntfIn::Drop::kOtherHost);
}

TEST_F(IntfInTest, keepsUnicastToItself) {
  EXPECT_EQ(receive(ethernet(kOwnMac, 0x0806, kPayload)).count(IntfIn::kHostGate), 1U);
}

TEST_F(IntfInTest, dropsARunt) {
  expectDropped(receive(std::string(13, '\0')), IntfIn::Drop::kRunt);
}

TEST_F(IntfInTest, dropsAFrameThatEndsInItsTag) {
  expectDropped(receive(tagged(kGroupMac, 100, 0x0800, "").substr(0, 17)), IntfIn::Drop::kRunt);
}

TEST_F(IntfInTest, dropsACutOffHeader) {
  expectDropped(receive(ethernet(kGroupMac, 0x0800, Ipv4{}.with("").substr(0, 19))),
                IntfIn::Drop::kTruncated);
}

TEST_F(IntfInTest, bringsTheHeadersOfASegmentedPacketTogether) {
  std::string ip = Ipv6{}.with(std::string(500, 'x'));
  PacketPtr pkt = segmented(tagged(kGroupMac, 100, 0x86dd, ip), 11);
  unsigned before = bess::PacketPool::defaultPool()->inUse();
  size_t segments = pkt->segments();
  pkt = only(receive(std::move(pkt)), IntfIn::kIpv6Gate);
  ASSERT_NE(pkt, nullptr);
  EXPECT_EQ(contents(pkt.get()), ethernet(kGroupMac, 0x86dd, ip));
  EXPECT_GE(pkt->headLen(), 14 + IntfIn::kHeaderBytes);
  EXPECT_EQ(metadataOf(pkt.get()).presence, kHasInIntf);
  EXPECT_EQ(bess::PacketPool::defaultPool()->inUse(), before - segments + 1);
}

TEST_F(IntfInTest, sendsThePacketsOfEachVrfByGatesOfItsOwn) {
  constexpr gate_idx_t kRed = 3 * IntfIn::kGatesOfBase;
  constexpr gate_idx_t kLast = IntfTable::kMaxGateBase;
  add("Vlan200", 3, 200, kRed);
  add("Vlan300", 3, 300, kLast);
  for (const gate_idx_t base : {kRed, kLast}) {
    const unsigned vlan = base == kRed ? 200 : 300;
    harness_.capture(module_, {static_cast<gate_idx_t>(base + IntfIn::kIpv4Gate),
                               static_cast<gate_idx_t>(base + IntfIn::kIpv6Gate),
                               static_cast<gate_idx_t>(base + IntfIn::kHostGate)});
    const std::string ipv4 = tagged(kGroupMac, vlan, 0x0800, Ipv4{}.with(kPayload));
    const std::string ipv6 = tagged(kGroupMac, vlan, 0x86dd, Ipv6{}.with(kPayload));
    const std::string arp = tagged(testing::kBroadcastMac, vlan, 0x0806, kPayload);
    EXPECT_NE(only(receive(ipv4), base + IntfIn::kIpv4Gate), nullptr);
    EXPECT_NE(only(receive(ipv6), base + IntfIn::kIpv6Gate), nullptr);
    EXPECT_NE(only(receive(arp), base + IntfIn::kHostGate), nullptr);
  }
  // The port's other interfaces keep the first gates.
  const std::string other = tagged(kGroupMac, 100, 0x0800, Ipv4{}.with(kPayload));
  EXPECT_NE(only(receive(other), IntfIn::kIpv4Gate), nullptr);
}

TEST_F(IntfInTest, neverWritesASharedBuffer) {
  std::string frame = tagged(kGroupMac, 100, 0x0800, Ipv4{}.with(kPayload));
  PacketPtr original = harness_.packet(frame);
  PacketPtr shared(bess::Packet::clone(original.get()));
  PacketPtr pkt = only(receive(std::move(shared)), IntfIn::kIpv4Gate);
  ASSERT_NE(pkt, nullptr);
  EXPECT_EQ(contents(pkt.get()), ethernet(kGroupMac, 0x0800, Ipv4{}.with(kPayload)));
  EXPECT_EQ(contents(original.get()), frame);
}

TEST_F(IntfInTest, showsInterfacesAndDropsByReason) {
  receive(std::string(3, '\0'));
  CommandResponse response = module_.showIntfs({});
  sfe::pb::IntfTable table;
  ASSERT_TRUE(response.data().UnpackTo(&table));
  EXPECT_EQ(table.intfs_size(), 2);
  ASSERT_EQ(table.drops_size(), static_cast<int>(IntfIn::Drop::kReasons));
  EXPECT_EQ(table.drops(0).packets(), 1U);
  for (const auto& drop : table.drops()) {
    EXPECT_FALSE(drop.reason().empty());
  }
}

}  // namespace
}  // namespace SfeModules
