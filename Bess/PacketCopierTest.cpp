#include "Bess/PacketCopier.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <numeric>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Bess/PacketPool.h"

namespace {

using bess::Packet;
using bess::PacketCopier;
using bess::PacketPool;
using bess::PacketPtr;

constexpr uint16_t kRoom = 1024;

class PacketCopierTest : public ::testing::Test {
 protected:
  PacketCopierTest() { std::iota(metadata_.begin(), metadata_.end(), uint8_t{1}); }

  static PacketPtr make(PacketPool& pool, const std::string& bytes) {
    PacketPtr pkt(pool.alloc());
    memcpy(pkt->append(static_cast<uint16_t>(bytes.size())), bytes.data(), bytes.size());
    return pkt;
  }
  PacketPtr make(const std::string& bytes) { return make(pool_, bytes); }
  static std::string someBytes(size_t count) {
    std::string bytes(count, '.');
    for (size_t i = 0; i < count; ++i) {
      bytes[i] = static_cast<char>('a' + i % 23);
    }
    return bytes;
  }
  static std::string bytesOf(const Packet* pkt) {
    return {pkt->headData<const char*>(), pkt->headLen()};
  }
  // Copies `n` times and returns the copies.
  std::vector<PacketPtr> copy(PacketCopier& copier, const PacketPtr& src, size_t n) {
    std::vector<PacketPtr> copies;
    const size_t made = copier.copy(src.get(), PacketCopier::Metadata::load(metadata_.data()), n,
                                    [&](Packet* each) { copies.emplace_back(each); });
    EXPECT_EQ(copies.size(), made);
    return copies;
  }
  void expectCopy(const PacketPtr& copy, const PacketPtr& src) {
    EXPECT_EQ(bytesOf(copy.get()), bytesOf(src.get()));
    EXPECT_EQ(copy->totalLen(), src->headLen());
    EXPECT_EQ(copy->headroom(), src->headroom());
    EXPECT_NE(copy->headData(), src->headData());
    EXPECT_TRUE(copy->isPlain());
    EXPECT_EQ(memcmp(copy->metadata<char*>(), metadata_.data(), metadata_.size()), 0);
  }

  PacketPool pool_{"packet-copier-test", 64, kRoom};
  std::array<uint8_t, Packet::kMetadataSize> metadata_;
};

TEST_F(PacketCopierTest, copiesDataOfEveryLength) {
  for (const size_t bytes : {0U, 1U, 63U, 64U, 65U, 256U, 257U, 1000U, 1024U}) {
    const PacketPtr pkt = make(someBytes(bytes));
    PacketCopier copier;
    const std::vector<PacketPtr> copies = copy(copier, pkt, 3);
    ASSERT_EQ(copies.size(), 3U) << bytes;
    for (const PacketPtr& each : copies) {
      expectCopy(each, pkt);
    }
  }
  EXPECT_EQ(pool_.inUse(), 0U);
}

TEST_F(PacketCopierTest, copiesShortDataAtTheEndOfItsBuffer) {
  const PacketPtr pkt = make(someBytes(kRoom));
  ASSERT_TRUE(pkt->adj(kRoom - 10));
  PacketCopier copier;
  const std::vector<PacketPtr> copies = copy(copier, pkt, 2);
  ASSERT_EQ(copies.size(), 2U);
  expectCopy(copies[1], pkt);
}

TEST_F(PacketCopierTest, copiesWhatTheBufferSaysOfThePacket) {
  const PacketPtr pkt = make("data");
  rte_mbuf* from = pkt->mbuf();
  from->port = 7;
  from->ol_flags = RTE_MBUF_F_RX_VLAN | RTE_MBUF_F_TX_IP_CKSUM;
  from->packet_type = RTE_PTYPE_L3_IPV4;
  from->vlan_tci = 42;
  from->vlan_tci_outer = 43;
  from->hash.rss = 0x12345678;
  from->hash.fdir.hi = 0x9abcdef0;
  from->l2_len = 14;
  from->l3_len = 20;
  PacketCopier copier;
  const std::vector<PacketPtr> copies = copy(copier, pkt, 1);
  ASSERT_EQ(copies.size(), 1U);
  const rte_mbuf* to = copies[0]->mbuf();
  EXPECT_EQ(to->port, 7);
  EXPECT_EQ(to->ol_flags, from->ol_flags);
  EXPECT_EQ(to->packet_type, from->packet_type);
  EXPECT_EQ(to->vlan_tci, 42);
  EXPECT_EQ(to->vlan_tci_outer, 43);
  EXPECT_EQ(to->hash.rss, 0x12345678U);
  EXPECT_EQ(to->hash.fdir.hi, 0x9abcdef0U);
  EXPECT_EQ(to->l2_len, 14);
  EXPECT_EQ(to->l3_len, 20);
  EXPECT_EQ(to->buf_len, from->buf_len);
}

TEST_F(PacketCopierTest, copiesDataThatIsShared) {
  const PacketPtr pkt = make("shared");
  const PacketPtr clone(Packet::clone(pkt.get()));
  PacketCopier copier;
  const std::vector<PacketPtr> copies = copy(copier, clone, 1);
  ASSERT_EQ(copies.size(), 1U);
  expectCopy(copies[0], pkt);
}

TEST_F(PacketCopierTest, makesAsManyAsThePoolHas) {
  const PacketPtr pkt = make("data");
  PacketCopier copier;
  std::vector<PacketPtr> copies = copy(copier, pkt, 100);
  EXPECT_EQ(copies.size(), 63U);
  EXPECT_EQ(copy(copier, pkt, 1).size(), 0U);
  copies.resize(60);
  EXPECT_EQ(copy(copier, pkt, 5).size(), 3U) << "what came back is there again";
}

TEST_F(PacketCopierTest, makesAsManyAsACachedPoolHas) {
  constexpr unsigned kPackets = 2047;
  PacketPool pool("packet-copier-test-4", kPackets, kRoom);
  ASSERT_GT(pool.pool()->cache_size, 0U);
  const PacketPtr pkt = make(pool, "data");
  PacketCopier copier;
  for (int turn = 0; turn < 3; ++turn) {
    std::vector<PacketPtr> copies;
    std::set<const Packet*> different;
    for (size_t n = 1; copies.size() < kPackets - 1; n = n % 40 + 1) {
      const size_t left = kPackets - 1 - copies.size();
      std::vector<PacketPtr> some = copy(copier, pkt, n);
      ASSERT_EQ(some.size(), std::min(n, left)) << "of " << left;
      for (PacketPtr& each : some) {
        expectCopy(each, pkt);
        different.insert(each.get());
        copies.push_back(std::move(each));
      }
    }
    EXPECT_EQ(different.size(), kPackets - 1);
    EXPECT_TRUE(copy(copier, pkt, 1).empty());
    EXPECT_EQ(pool.inUse(), kPackets);
  }
  EXPECT_EQ(pool.inUse(), 1U);
}

TEST_F(PacketCopierTest, copiesFromTheOwnPoolOfEach) {
  PacketPool other("packet-copier-test-2", 64, kRoom);
  const PacketPtr one = make("one");
  const PacketPtr two = make(other, "two");
  {
    PacketCopier copier;
    for (int turn = 0; turn < 3; ++turn) {
      const std::vector<PacketPtr> ones = copy(copier, one, 2);
      const std::vector<PacketPtr> twos = copy(copier, two, 2);
      ASSERT_EQ(ones.size(), 2U);
      ASSERT_EQ(twos.size(), 2U);
      EXPECT_EQ(ones[1]->mbuf()->pool, pool_.pool());
      EXPECT_EQ(twos[1]->mbuf()->pool, other.pool());
      expectCopy(ones[1], one);
      expectCopy(twos[1], two);
    }
  }
  EXPECT_EQ(pool_.inUse(), 1U);
  EXPECT_EQ(other.inUse(), 1U);
}

TEST_F(PacketCopierTest, makesNoneOfWhatItCannotCopy) {
  const PacketPtr chain = make("one");
  ASSERT_EQ(rte_pktmbuf_chain(chain->mbuf(), make("two").release()->mbuf()), 0);
  const PacketPtr large = make(someBytes(kRoom));
  PacketPool small("packet-copier-test-3", 8, 256);
  const PacketPtr inSmallPool(Packet::from(rte_pktmbuf_clone(large->mbuf(), small.pool())));
  ASSERT_NE(inSmallPool, nullptr);
  {
    PacketCopier copier;
    EXPECT_TRUE(copy(copier, chain, 2).empty());
    EXPECT_TRUE(copy(copier, inSmallPool, 2).empty()) << "its buffers have no room for the data";
    EXPECT_TRUE(copy(copier, large, 0).empty());
  }
  EXPECT_EQ(pool_.inUse(), 3U);
  EXPECT_EQ(small.inUse(), 1U);
}

}  // namespace
