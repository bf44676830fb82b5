#include "Bess/PacketPool.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <span>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace {

using bess::Packet;
using bess::PacketPool;
using bess::PacketPtr;

int errnoOf(const std::string& name, unsigned count, unsigned dataRoom) {
  try {
    PacketPool pool(name, count, dataRoom);
  } catch (const std::system_error& e) {
    EXPECT_NE(std::string(e.what()).find(name), std::string::npos) << e.what();
    return e.code().value();
  }
  return 0;
}

TEST(PacketPoolTest, givesOutPacketsInTheirFreshState) {
  PacketPool pool("fresh", 1, 512);
  Packet* used = pool.alloc();
  memset(used->metadata<char*>(), 0xFF, Packet::kMetadataSize);
  used->append(100);
  used->adj(10);
  used->mbuf()->port = 3;
  used->mbuf()->ol_flags |= RTE_MBUF_F_RX_VLAN;
  Packet::Free(used);

  PacketPtr pkt(pool.alloc());
  ASSERT_EQ(pkt.get(), used);
  EXPECT_EQ(pkt->segments(), 1);
  EXPECT_EQ(rte_mbuf_refcnt_read(pkt->mbuf()), 1);
  EXPECT_EQ(pkt->mbuf()->port, 0xFFFF);
  EXPECT_EQ(pkt->mbuf()->ol_flags, 0U);
  EXPECT_EQ(pkt->totalLen(), 0U);
  EXPECT_EQ(pkt->headLen(), 0);
  EXPECT_EQ(pkt->headroom(), RTE_PKTMBUF_HEADROOM);
  EXPECT_EQ(*pkt->metadata<uint64_t*>(), 0U);
}

TEST(PacketPoolTest, givesOutExactlyItsCount) {
  PacketPool pool("exact", 8, 256);
  std::vector<PacketPtr> all;
  while (Packet* pkt = pool.alloc()) {
    all.emplace_back(pkt);
  }
  EXPECT_EQ(all.size(), 8U);
  EXPECT_EQ(pool.capacity(), 8U);
  EXPECT_EQ(pool.inUse(), 8U);
  all.clear();
  EXPECT_EQ(pool.available(), 8U);
}

TEST(PacketPoolTest, givesOutBulkWholeOrNotAtAll) {
  PacketPool pool("bulk", 8, 256);
  Packet* pkts[9];
  EXPECT_FALSE(pool.allocBulk(pkts, 9));
  EXPECT_EQ(pool.inUse(), 0U);
  ASSERT_TRUE(pool.allocBulk(pkts, 8));
  for (Packet* pkt : std::span(pkts, 8)) {
    EXPECT_EQ(*pkt->metadata<uint64_t*>(), 0U);
  }
  Packet::Free(pkts, 8);
  EXPECT_EQ(pool.inUse(), 0U);
}

TEST(PacketPoolTest, holdsJumboFramesInOneSegment) {
  PacketPool pool("jumbo", 2, 9216);
  PacketPtr pkt(pool.alloc());
  EXPECT_NE(pkt->append(9216), nullptr);
  EXPECT_EQ(pkt->append(1), nullptr);
}

TEST(PacketPoolTest, refusesSizesThatCannotBe) {
  EXPECT_EQ(errnoOf("none", 0, 256), EINVAL);
  EXPECT_EQ(errnoOf("empty", 1, 0), EINVAL);
  EXPECT_EQ(errnoOf("huge", 1, PacketPool::kMaxDataRoom + 1), EINVAL);
  EXPECT_EQ(errnoOf("greedy", 1U << 22, 2048), ENOMEM);
}

TEST(PacketPoolTest, refusesSecondPoolOfOneName) {
  PacketPool pool("twin", 1, 256);
  EXPECT_EQ(errnoOf("twin", 1, 256), EEXIST);
}

TEST(PacketPoolTest, makesDefaultPoolsOnce) {
  PacketPool::destroyDefaultPools();
  EXPECT_EQ(PacketPool::defaultPool(), nullptr);
  PacketPool::createDefaultPools(64, 512);
  ASSERT_NE(PacketPool::defaultPool(), nullptr);
  EXPECT_EQ(PacketPool::defaultPool()->dataRoom(), 512U);
  EXPECT_EQ(PacketPool::defaultPool(RTE_MAX_NUMA_NODES - 1), PacketPool::defaultPool());
  EXPECT_THROW(PacketPool::createDefaultPools(64, 512), std::logic_error);
  PacketPool::destroyDefaultPools();
}

}  // namespace
