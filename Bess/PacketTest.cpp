#include "Bess/Packet.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "Bess/PacketPool.h"

namespace {

using bess::Packet;
using bess::PacketBatch;
using bess::PacketPool;
using bess::PacketPtr;

class PacketTest : public ::testing::Test {
 protected:
  PacketPtr make(const std::string& bytes) {
    PacketPtr pkt(pool_.alloc());
    memcpy(pkt->append(static_cast<uint16_t>(bytes.size())), bytes.data(), bytes.size());
    return pkt;
  }
  PacketPtr makeChain(const std::string& first, const std::string& second) {
    PacketPtr head = make(first);
    EXPECT_EQ(rte_pktmbuf_chain(head->mbuf(), make(second).release()->mbuf()), 0);
    return head;
  }
  static std::string bytesOf(const Packet* pkt) {
    return {pkt->headData<const char*>(), pkt->headLen()};
  }
  static void fillMetadata(Packet* pkt) {
    for (size_t i = 0; i < Packet::kMetadataSize; i++) {
      pkt->metadata<uint8_t*>()[i] = static_cast<uint8_t>(i + 1);
    }
  }

  PacketPool pool_{"packet-test", 8, 1024};
};

TEST_F(PacketTest, copiesDataMetadataAndHeaderLengths) {
  PacketPtr pkt = make("a linear packet");
  fillMetadata(pkt.get());
  pkt->adj(2);
  pkt->mbuf()->port = 7;
  pkt->mbuf()->l2_len = 14;
  pkt->mbuf()->l3_len = 20;
  pkt->mbuf()->vlan_tci = 42;
  PacketPtr copy(Packet::copy(pkt.get()));
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(bytesOf(copy.get()), "linear packet");
  EXPECT_NE(copy->headData(), pkt->headData());
  EXPECT_EQ(copy->totalLen(), pkt->totalLen());
  EXPECT_EQ(copy->headroom(), pkt->headroom());
  EXPECT_EQ(memcmp(copy->metadata<char*>(), pkt->metadata<char*>(), Packet::kMetadataSize), 0);
  EXPECT_EQ(copy->mbuf()->port, 7);
  EXPECT_EQ(copy->mbuf()->l2_len, 14);
  EXPECT_EQ(copy->mbuf()->l3_len, 20);
  EXPECT_EQ(copy->mbuf()->vlan_tci, 42);
}

TEST_F(PacketTest, copiesPacketWhoseDataIsShared) {
  PacketPtr pkt = make("shared");
  PacketPtr clone(Packet::clone(pkt.get()));
  PacketPtr copy(Packet::copy(clone.get()));
  ASSERT_NE(copy, nullptr);
  EXPECT_FALSE(RTE_MBUF_CLONED(copy->mbuf()));
  EXPECT_NE(copy->headData(), pkt->headData());
  EXPECT_EQ(bytesOf(copy.get()), "shared");
}

TEST_F(PacketTest, refusesToCopyChain) {
  PacketPtr chain = makeChain("one", "two");
  EXPECT_FALSE(chain->isLinear());
  EXPECT_EQ(chain->totalLen(), 6U);
  EXPECT_EQ(Packet::copy(chain.get()), nullptr);
}

TEST_F(PacketTest, copiesNothingWhenPoolIsDry) {
  PacketPtr pkt = make("last");
  std::vector<PacketPtr> rest;
  while (Packet* taken = pool_.alloc()) {
    rest.emplace_back(taken);
  }
  EXPECT_EQ(Packet::copy(pkt.get()), nullptr);
  EXPECT_EQ(Packet::clone(pkt.get()), nullptr);
}

TEST_F(PacketTest, clonesChainWithMetadataOfItsOwn) {
  PacketPtr chain = makeChain("one", "two");
  fillMetadata(chain.get());
  PacketPtr clone(Packet::clone(chain.get()));
  ASSERT_NE(clone, nullptr);
  EXPECT_EQ(clone->segments(), 2);
  EXPECT_EQ(clone->headData(), chain->headData());
  EXPECT_EQ(memcmp(clone->metadata<char*>(), chain->metadata<char*>(), Packet::kMetadataSize), 0);
  clone->clearPresence();
  EXPECT_EQ(*chain->metadata<uint8_t*>(), 1);
}

TEST_F(PacketTest, growsAndShrinksWithinItsRoom) {
  PacketPtr pkt = make("payload");
  const uint16_t headroom = pkt->headroom();
  EXPECT_EQ(pkt->prepend(static_cast<uint16_t>(headroom + 1)), nullptr);
  ASSERT_NE(pkt->prepend(headroom), nullptr);
  EXPECT_EQ(pkt->totalLen(), headroom + 7U);
  EXPECT_TRUE(pkt->adj(headroom));
  EXPECT_FALSE(pkt->adj(8));
  EXPECT_FALSE(pkt->trim(8));
  EXPECT_TRUE(pkt->trim(4));
  EXPECT_EQ(bytesOf(pkt.get()), "pay");
  EXPECT_EQ(pkt->append(static_cast<uint16_t>(pkt->tailroom() + 1)), nullptr);
}

TEST_F(PacketTest, freesWholeBatchAndEmptiesIt) {
  PacketBatch batch;
  batch.clear();
  batch.add(make("a").release());
  batch.add(makeChain("b", "c").release());
  EXPECT_EQ(pool_.inUse(), 3U);
  Packet::Free(&batch);
  EXPECT_TRUE(batch.empty());
  EXPECT_EQ(pool_.inUse(), 0U);
}

// Plain ones of two pools by turns, a chain, data that two packets share, a null.
TEST_F(PacketTest, freesAMixtureOfPackets) {
  PacketPool other("packet-test-2", 8, 1024);
  PacketPtr shared = make("shared");
  std::vector<Packet*> packets;
  for (int i = 0; i < 3; ++i) {
    packets.push_back(make("plain").release());
    packets.push_back(other.alloc());
  }
  packets.push_back(nullptr);
  packets.push_back(makeChain("one", "two").release());
  packets.push_back(Packet::clone(shared.get()));
  ASSERT_NE(packets.back(), nullptr);
  EXPECT_TRUE(packets[0]->isPlain());
  EXPECT_FALSE(packets.back()->isPlain());
  EXPECT_FALSE(shared->isPlain()) << "somebody else reads its data";
  Packet::Free(packets.data(), packets.size());
  EXPECT_EQ(other.inUse(), 0U);
  EXPECT_EQ(pool_.inUse(), 1U);
  EXPECT_EQ(bytesOf(shared.get()), "shared");
  EXPECT_TRUE(shared->isPlain());
}

TEST_F(PacketTest, freesMoreThanABatchAtOnce) {
  PacketPool large("packet-test-3", 100, 64);
  std::vector<Packet*> packets(100);
  ASSERT_TRUE(large.allocBulk(packets.data(), packets.size()));
  Packet::Free(packets.data(), packets.size());
  EXPECT_EQ(large.inUse(), 0U);
}

TEST(PacketBatchTest, absorbsBehindItsOwn) {
  PacketBatch a;
  PacketBatch b;
  a.clear();
  b.clear();
  auto* one = reinterpret_cast<Packet*>(uintptr_t{64});
  auto* two = reinterpret_cast<Packet*>(uintptr_t{128});
  a.add(one);
  b.add(two);
  a.absorb(&b);
  EXPECT_EQ(a.cnt(), 2);
  EXPECT_EQ(a.pkts()[0], one);
  EXPECT_EQ(a.pkts()[1], two);
  EXPECT_TRUE(b.empty());
}

TEST(PacketBatchTest, isFullWith32) {
  PacketBatch batch;
  batch.clear();
  for (size_t i = 0; i < PacketBatch::kMaxBurst; i++) {
    EXPECT_FALSE(batch.full());
    batch.add(nullptr);
  }
  EXPECT_TRUE(batch.full());
}

TEST(PacketBatchDeathTest, diesBeforeItWritesOutside) {
  PacketBatch batch;
  batch.clear();
  batch.setCnt(33);
  EXPECT_DEATH(batch.add(nullptr), "batch overrun");
}

}  // namespace
