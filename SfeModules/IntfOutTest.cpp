#include "SfeModules/IntfOut.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "SfeModules/ForwardingMetadata.h"
#include "SfeModules/IntfTesting.h"

namespace SfeModules {
namespace {

using bess::PacketPtr;
using bess::testing::contents;
using testing::ethernet;
using testing::Ipv4;
using testing::Ipv6;
using testing::kGroupMac;
using testing::kOwnMac;
using testing::segmented;
using testing::tagged;
using testing::u16;

const std::string kPayload(40, 'p');
constexpr gate_idx_t kPlainPort = 5;
constexpr gate_idx_t kVlanPort = 6;

class IntfOutTest : public ::testing::Test {
 protected:
  IntfOutTest() : module_(harness_.own(std::make_unique<IntfOut>())) {
    harness_.capture(module_, {kPlainPort, kVlanPort});
    add("Ethernet5", kPlainPort, 0);
    add("Vlan100", kVlanPort, 100);
  }

  void add(const std::string& name, unsigned port, unsigned vlan) {
    sfe::pb::IntfArg arg;
    arg.set_name(name);
    arg.set_port(port);
    arg.set_vlan(vlan);
    arg.set_mac(kOwnMac);
    ASSERT_FALSE(module_.addIntf(arg).has_error());
  }

  static PacketPtr to(const std::string& intf, PacketPtr pkt, bool bare = false) {
    ForwardingMetadata& metadata = metadataOf(pkt.get());
    metadata.presence = kHasOutIntf | kHasVrfId | (bare ? kHasEncapHint : 0);
    metadata.outIntf = Nynet::IntfId::fromName(intf).value();
    metadata.encapHint = kEncapHintIp;
    metadata.vrfId = 7;
    return pkt;
  }

  PacketPtr send(PacketPtr pkt, gate_idx_t gate) {
    auto out = harness_.offer(module_, std::move(pkt));
    EXPECT_EQ(out.total(), 1U);
    EXPECT_EQ(out.count(gate), 1U);
    return out.count(gate) == 0 ? nullptr : std::move(out[gate].front());
  }

  void expectDropped(PacketPtr pkt, IntfOut::Drop reason) {
    EXPECT_TRUE(harness_.offer(module_, std::move(pkt)).empty());
    EXPECT_EQ(module_.drops(reason), 1U);
  }

  bess::testing::ModuleHarness harness_;
  IntfOut& module_;
};

// What IntfOut writes itself: the frame comes from the interface's own address.
std::string fromOwn(const std::string& destination, const std::string& rest) {
  return destination + kOwnMac + rest;
}

TEST_F(IntfOutTest, sendsAFrameByItsPortUnchanged) {
  std::string frame = ethernet(kGroupMac, 0x0800, Ipv4{}.with(kPayload));
  PacketPtr pkt = send(to("Ethernet5", harness_.packet(frame)), kPlainPort);
  ASSERT_NE(pkt, nullptr);
  EXPECT_EQ(contents(pkt.get()), frame);
  EXPECT_EQ(pkt->segments(), 1);
}

TEST_F(IntfOutTest, putsTheTagOn) {
  std::string ip = Ipv6{}.with(kPayload);
  PacketPtr pkt = send(to("Vlan100", harness_.packet(ethernet(kGroupMac, 0x86dd, ip))), kVlanPort);
  ASSERT_NE(pkt, nullptr);
  EXPECT_EQ(contents(pkt.get()), tagged(kGroupMac, 100, 0x86dd, ip));
  EXPECT_EQ(pkt->segments(), 1);
}

TEST_F(IntfOutTest, givesABareIpv4PacketItsGroupsAddress) {
  std::string ip = Ipv4{.group = std::string("\xef\x81\x02\x03", 4)}.with(kPayload);
  PacketPtr pkt = send(to("Ethernet5", harness_.packet(ip), true), kPlainPort);
  ASSERT_NE(pkt, nullptr);
  EXPECT_EQ(contents(pkt.get()),
            fromOwn(std::string("\x01\x00\x5e\x01\x02\x03", 6), u16(0x0800) + ip));
  EXPECT_FALSE(metadataOf(pkt.get()).has(kHasEncapHint));
  EXPECT_EQ(metadataOf(pkt.get()).vrfIdOrZero(), 7U);
}

TEST_F(IntfOutTest, givesABareIpv6PacketItsGroupsAddressAndTag) {
  std::string ip = Ipv6{}.with(kPayload);
  PacketPtr pkt = send(to("Vlan100", harness_.packet(ip), true), kVlanPort);
  ASSERT_NE(pkt, nullptr);
  EXPECT_EQ(contents(pkt.get()), fromOwn(std::string("\x33\x33\x00\x00\x00\x01", 6),
                                         u16(0x8100) + u16(100) + u16(0x86dd) + ip));
}

TEST_F(IntfOutTest, writesIntoAFreshSegmentForEachHolderOfABuffer) {
  std::string ip = Ipv4{}.with(kPayload);
  std::string frame = ethernet(kGroupMac, 0x0800, ip);
  PacketPtr original = to("Vlan100", harness_.packet(frame));
  PacketPtr clone(bess::Packet::clone(original.get()));
  PacketPtr witness(bess::Packet::clone(original.get()));
  // The last holder finds the buffer shared too: `witness` lives on.
  for (PacketPtr* pkt : {&original, &clone}) {
    PacketPtr sent = send(std::move(*pkt), kVlanPort);
    ASSERT_NE(sent, nullptr);
    EXPECT_EQ(contents(sent.get()), tagged(kGroupMac, 100, 0x0800, ip));
    EXPECT_EQ(sent->segments(), 2);
    EXPECT_EQ(sent->headLen(), 18);
    EXPECT_EQ(metadataOf(sent.get()).vrfIdOrZero(), 7U);
    EXPECT_EQ(contents(witness.get()), frame);
  }
}

TEST_F(IntfOutTest, givesASharedBarePacketAHeaderOfItsOwn) {
  std::string ip = Ipv4{}.with(kPayload);
  PacketPtr original = to("Ethernet5", harness_.packet(ip), true);
  PacketPtr clone(bess::Packet::clone(original.get()));
  PacketPtr sent = send(std::move(clone), kPlainPort);
  ASSERT_NE(sent, nullptr);
  EXPECT_EQ(contents(sent.get()), fromOwn(kGroupMac, u16(0x0800) + ip));
  EXPECT_EQ(contents(original.get()), ip);
  EXPECT_EQ(original->headroom(), RTE_PKTMBUF_HEADROOM);
}

TEST_F(IntfOutTest, tagsAChainWhoseHeaderSpansSegments) {
  std::string ip = Ipv4{}.with(kPayload);
  unsigned before = bess::PacketPool::defaultPool()->inUse();
  for (size_t size : {1, 5, 14, 15}) {
    PacketPtr pkt = segmented(ethernet(kGroupMac, 0x0800, ip), size);
    PacketPtr sent = send(to("Vlan100", std::move(pkt)), kVlanPort);
    ASSERT_NE(sent, nullptr);
    EXPECT_EQ(contents(sent.get()), tagged(kGroupMac, 100, 0x0800, ip));
    rte_mbuf_sanity_check(sent->mbuf(), 1);
  }
  EXPECT_EQ(bess::PacketPool::defaultPool()->inUse(), before);
}

TEST_F(IntfOutTest, findsRoomWhereThereIsNoHeadroom) {
  std::string ip = Ipv4{}.with(kPayload);
  PacketPtr pkt = harness_.packet(ethernet(kGroupMac, 0x0800, ip));
  rte_mbuf* mbuf = pkt->mbuf();
  memmove(mbuf->buf_addr, pkt->headData(), pkt->headLen());
  mbuf->data_off = 0;
  PacketPtr sent = send(to("Vlan100", std::move(pkt)), kVlanPort);
  ASSERT_NE(sent, nullptr);
  EXPECT_EQ(contents(sent.get()), tagged(kGroupMac, 100, 0x0800, ip));
}

TEST_F(IntfOutTest, dropsAPacketWithoutOutgoingInterface) {
  expectDropped(harness_.packet(ethernet(kGroupMac, 0x0800, kPayload)),
                IntfOut::Drop::kNoInterface);
}

TEST_F(IntfOutTest, dropsAnUnknownInterface) {
  expectDropped(to("Ethernet77", harness_.packet(ethernet(kGroupMac, 0x0800, kPayload))),
                IntfOut::Drop::kUnknownInterface);
}

TEST_F(IntfOutTest, dropsARunt) {
  expectDropped(to("Vlan100", harness_.packet(std::string(13, 'r'))), IntfOut::Drop::kRunt);
}

TEST_F(IntfOutTest, dropsABarePacketWithoutAGroup) {
  std::string unicast = Ipv4{.group = std::string("\x0a\0\0\1", 4)}.with(kPayload);
  expectDropped(to("Ethernet5", harness_.packet(unicast), true), IntfOut::Drop::kNotMulticast);
  for (const std::string& bytes : {std::string(1, '\x45'), Ipv4{}.with("").substr(0, 19),
                                   Ipv6{}.with("").substr(0, 39), std::string(40, '\x00')}) {
    EXPECT_TRUE(harness_.offer(module_, to("Ethernet5", harness_.packet(bytes), true)).empty());
  }
  EXPECT_EQ(module_.drops(IntfOut::Drop::kNotMulticast), 5U);
}

TEST_F(IntfOutTest, dropsWhenNoBufferIsLeft) {
  std::string frame = ethernet(kGroupMac, 0x0800, Ipv4{}.with(kPayload));
  PacketPtr original = to("Vlan100", harness_.packet(frame));
  PacketPtr clone(bess::Packet::clone(original.get()));
  std::vector<PacketPtr> rest;
  while (bess::Packet* pkt = bess::PacketPool::defaultPool()->alloc()) {
    rest.emplace_back(pkt);
  }
  expectDropped(std::move(clone), IntfOut::Drop::kNoBuffer);
  EXPECT_EQ(contents(original.get()), frame);
}

}  // namespace
}  // namespace SfeModules
