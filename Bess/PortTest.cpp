#include "Bess/Port.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rte_ethdev.h>

#include <cerrno>
#include <set>
#include <string>
#include <vector>

#include "Bess/PortProbe.h"
#include "Bess/Testing/ModuleHarness.h"

namespace bess {
namespace {

using testing::contents;
using ::testing::HasSubstr;

class PortTest : public ::testing::Test {
 protected:
  static PortConfig config(const std::string& devargs) {
    PortConfig result;
    result.name = "p";
    result.devargs = devargs;
    return result;
  }

  std::string refusal(const PortConfig& config, int errnoValue) {
    try {
      Port::open(config);
    } catch (const PortError& error) {
      EXPECT_EQ(error.errnoValue(), errnoValue);
      return error.what();
    }
    ADD_FAILURE() << "opened";
    return "";
  }

  PacketPtr chain(const std::vector<std::string>& parts) {
    PacketPtr pkt = harness_.packet(parts[0]);
    for (size_t i = 1; i < parts.size(); ++i) {
      rte_pktmbuf_chain(pkt->mbuf(), harness_.packet(parts[i]).release()->mbuf());
    }
    return pkt;
  }

  testing::ModuleHarness harness_;
};

TEST_F(PortTest, bringsBackWhatARingWasGiven) {
  auto port = Port::open(config("net_ring0"));
  std::vector<Packet*> pkts;
  for (const char* text : {"one", "three"}) {
    pkts.push_back(harness_.packet(std::string_view(text)).release());
    pkts.back()->mbuf()->port = 77;
    *pkts.back()->metadata<uint64_t*>() = 1;
  }
  EXPECT_EQ(port->send(port->txQueueOf(0), pkts.data(), 2), 2);
  Packet* received[PacketBatch::kMaxBurst];
  ASSERT_EQ(port->receive(0, received, PacketBatch::kMaxBurst), 2);
  PacketPtr first(received[0]);
  PacketPtr second(received[1]);
  EXPECT_EQ(contents(first.get()), "one");
  EXPECT_EQ(contents(second.get()), "three");
  EXPECT_EQ(first->mbuf()->port, port->id());
  EXPECT_EQ(*first->metadata<uint64_t*>(), 0U);
  PortCounters counters = port->counters();
  EXPECT_EQ(counters.rxPackets, 2U);
  EXPECT_EQ(counters.txPackets, 2U);
  EXPECT_EQ(counters.txDropped, 0U);
}

TEST_F(PortTest, tellsItsStatus) {
  PortConfig wanted = config("net_ring0");
  wanted.promiscuous = true;
  auto port = Port::open(wanted);
  PortStatus status = port->status();
  EXPECT_EQ(status.driver, "net_ring");
  EXPECT_TRUE(status.linkUp);
  EXPECT_TRUE(status.promiscuous);
  EXPECT_EQ(status.mtu, 1500);
}

TEST_F(PortTest, freesAndCountsWhatTheDeviceDoesNotTake) {
  auto port = Port::open(config("net_ring0"));
  unsigned before = PacketPool::defaultPool()->inUse();
  uint64_t sent = 0;
  uint64_t offered = 0;
  // The ring is full at some point.
  while (sent == offered && offered < 1U << 20) {
    Packet* burst[8];
    ASSERT_TRUE(PacketPool::defaultPool()->allocBulk(burst, 8));
    offered += 8;
    sent += port->send(0, burst, 8);
  }
  EXPECT_LT(sent, offered);
  EXPECT_EQ(port->counters().txDropped, offered - sent);
  EXPECT_EQ(PacketPool::defaultPool()->inUse(), before + sent);
  Packet* received[32];
  while (uint16_t n = port->receive(0, received, 32)) {
    Packet::Free(received, n);
  }
  EXPECT_EQ(PacketPool::defaultPool()->inUse(), before);
}

TEST_F(PortTest, putsAStrippedTagBack) {
  auto port = Port::open(config("net_ring0"));
  std::string frame = std::string(12, 'm') + std::string("\x08\x00", 2) + std::string(50, 'x');
  Packet* pkt = harness_.packet(frame).release();
  pkt->mbuf()->ol_flags |= RTE_MBUF_F_RX_VLAN | RTE_MBUF_F_RX_VLAN_STRIPPED;
  pkt->mbuf()->vlan_tci = 0x2064;
  ASSERT_EQ(port->send(0, &pkt, 1), 1);
  ASSERT_EQ(port->receive(0, &pkt, 1), 1);
  PacketPtr received(pkt);
  EXPECT_EQ(contents(received.get()),
            frame.substr(0, 12) + std::string("\x81\x00\x20\x64", 4) + frame.substr(12));
  EXPECT_EQ(received->mbuf()->ol_flags & RTE_MBUF_F_RX_VLAN_STRIPPED, 0U);
}

TEST_F(PortTest, linearisesForADriverThatCannotSendChains) {
  auto port = Port::open(config("net_null0"));
  unsigned before = PacketPool::defaultPool()->inUse();
  Packet* pkts[] = {chain({"ab", "cd", "ef"}).release(), harness_.packet("plain").release()};
  PacketPtr shared = chain({"gh", "ij"});
  Packet* clone = Packet::clone(shared.get());
  EXPECT_EQ(port->send(0, pkts, 2), 2);
  EXPECT_EQ(port->send(0, &clone, 1), 1);
  EXPECT_EQ(contents(shared.get()), "ghij");
  shared.reset();
  EXPECT_EQ(PacketPool::defaultPool()->inUse(), before);
  EXPECT_EQ(port->counters().txDropped, 0U);
}

TEST_F(PortTest, dropsAChainThatNoSegmentHolds) {
  auto port = Port::open(config("net_null0"));
  unsigned before = PacketPool::defaultPool()->inUse();
  Packet* pkt = chain({std::string(1500, 'a'), std::string(1500, 'b')}).release();
  EXPECT_EQ(port->send(0, &pkt, 1), 0);
  EXPECT_EQ(port->counters().txDropped, 1U);
  EXPECT_EQ(PacketPool::defaultPool()->inUse(), before);
}

TEST_F(PortTest, givesEachWorkerATransmitQueueOfItsOwn) {
  PortConfig wanted = config("net_null0");
  wanted.txQueues = 3;
  auto port = Port::open(wanted);
  std::set<int> queues;
  for (int wid : {35, 4, 0}) {
    queues.insert(port->txQueueOf(wid));
    EXPECT_EQ(queues.count(port->txQueueOf(wid)), 1U);
  }
  EXPECT_EQ(queues, (std::set<int>{0, 1, 2}));
  EXPECT_EQ(port->txQueueOf(7), Port::kNoTxQueue);
  Packet* pkt = harness_.packet("x").release();
  EXPECT_EQ(port->send(port->txQueueOf(7), &pkt, 1), 0);
  EXPECT_EQ(port->counters().txDropped, 1U);
  port->releaseTxQueues();
  EXPECT_NE(port->txQueueOf(7), Port::kNoTxQueue);
}

TEST_F(PortTest, readsEveryQueue) {
  PortConfig wanted = config("net_null0,size=100");
  wanted.rxQueues = 4;
  auto port = Port::open(wanted);
  for (uint16_t queue = 0; queue < 4; ++queue) {
    Packet* pkts[32];
    ASSERT_EQ(port->receive(queue, pkts, 32), 32);
    EXPECT_EQ(pkts[31]->totalLen(), 100U);
    Packet::Free(pkts, 32);
  }
}

TEST_F(PortTest, hasRoomForLargeFrames) {
  PortConfig wanted = config("net_null0,size=9000");
  wanted.mtu = 9000;
  auto port = Port::open(wanted);
  EXPECT_EQ(port->status().mtu, 9000);
  Packet* pkt = nullptr;
  ASSERT_EQ(port->receive(0, &pkt, 1), 1);
  PacketPtr owner(pkt);
  EXPECT_EQ(pkt->totalLen(), 9000U);
  EXPECT_GE(rte_pktmbuf_data_room_size(pkt->mbuf()->pool), 9000 + RTE_PKTMBUF_HEADROOM);
}

TEST_F(PortTest, removesItsDevice) {
  for (int i = 0; i < 3; ++i) {
    auto port = Port::open(config("net_null0"));
    EXPECT_GE(findProbedPort("net_null0"), 0);
    port.reset();
    EXPECT_EQ(findProbedPort("net_null0"), -1);
  }
}

TEST_F(PortTest, refusesWithTheReason) {
  EXPECT_THAT(refusal(config(""), EINVAL), HasSubstr("net_af_packet0,iface=eth0"));
  EXPECT_THAT(refusal(config("net_nosuch0"), EINVAL), HasSubstr("\"net_nosuch0\" names no driver"));
  EXPECT_THAT(refusal(config("net_null0,nosuch=1"), EINVAL), HasSubstr("net_null0,nosuch=1"));
  EXPECT_THAT(refusal(config("0000:ff:1f.7"), ENODEV), HasSubstr("does not exist"));
  EXPECT_THAT(refusal(config("net_af_packet0,iface=nosuch9"), EINVAL), HasSubstr("No such device"));
  PortConfig queues = config("net_null0");
  queues.rxQueues = 5000;
  EXPECT_THAT(refusal(queues, EINVAL), HasSubstr("5000 receive queues"));
  PortConfig none = config("net_null0");
  none.txQueues = 0;
  EXPECT_THAT(refusal(none, EINVAL), HasSubstr("a queue in each direction"));
  PortConfig mtu = config("net_null0");
  mtu.mtu = 60;
  EXPECT_THAT(refusal(mtu, EINVAL), HasSubstr("MTU 60 is out of range"));
  // A refusal leaves no device behind.
  EXPECT_EQ(findProbedPort("net_null0"), -1);
}

}  // namespace
}  // namespace bess
