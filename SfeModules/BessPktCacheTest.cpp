#include "SfeModules/BessPktCache.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Bess/PacketPool.h"
#include "Bess/Testing/ModuleHarness.h"
#include "Bess/Worker.h"
#include "SfeModules/ForwardingMetadata.h"

namespace SfeModules {
namespace {

std::string bytes(size_t count, char first = 'a') {
  std::string text(count, '\0');
  for (size_t i = 0; i < count; ++i) {
    text[i] = static_cast<char>(first + i % 23);
  }
  return text;
}

bess::PacketPtr packet(bess::PacketPool& pool, const std::vector<std::string>& segments) {
  bess::PacketPtr head;
  for (const std::string& segment : segments) {
    bess::PacketPtr next(pool.alloc());
    std::memcpy(next->append(static_cast<uint16_t>(segment.size())), segment.data(),
                segment.size());
    if (head == nullptr) {
      head = std::move(next);
    } else if (rte_pktmbuf_chain(head->mbuf(), next->mbuf()) == 0) {
      next.release();
    }
  }
  return head;
}

// The bytes of every segment, whatever the packet says its total length is.
std::vector<std::string> segmentsOf(const bess::PacketPtr& packet) {
  std::vector<std::string> segments;
  for (const rte_mbuf* segment = packet->mbuf(); segment != nullptr; segment = segment->next) {
    segments.emplace_back(rte_pktmbuf_mtod(segment, const char*), segment->data_len);
  }
  return segments;
}

class PacketCopy : public ::testing::Test {
 protected:
  static bess::PacketPool& pool() {
    static bess::PacketPool pool("copies", 63, 2048);
    return pool;
  }

  bess::PacketPtr alive(const BessPktCache& copy, bess::PacketPool& from = pool()) {
    const ScopedWorkerIdentity identity(0, -1, &from);
    return bess::PacketPtr(copy.allocPacket());
  }

  // Leaves the pool with `left` packets while the result lives.
  static std::vector<bess::PacketPtr> drain(bess::PacketPool& from, unsigned left) {
    std::vector<bess::PacketPtr> all;
    for (bess::Packet* pkt = from.alloc(); pkt != nullptr; pkt = from.alloc()) {
      all.emplace_back(pkt);
    }
    all.resize(all.size() - left);
    return all;
  }
};

TEST_F(PacketCopy, bringsBackBytesAndMetadata) {
  const bess::PacketPtr original = packet(pool(), {bytes(1500)});
  auto* metadata = original->metadata<uint8_t*>();
  for (size_t i = 0; i < bess::Packet::kMetadataSize; ++i) {
    metadata[i] = static_cast<uint8_t>(i + 1);
  }
  const BessPktCache copy(original.get());
  std::memset(original->headData(), 0, 1500);
  std::memset(original->metadata<uint8_t*>(), 0, bess::Packet::kMetadataSize);

  const bess::PacketPtr fresh = alive(copy);
  EXPECT_EQ(segmentsOf(fresh), std::vector{bytes(1500)});
  EXPECT_EQ(fresh->totalLen(), 1500U);
  EXPECT_EQ(metadataOf(fresh.get()).presence, 0U);
  for (size_t i = 8; i < bess::Packet::kMetadataSize; ++i) {
    ASSERT_EQ(fresh->metadata<uint8_t*>()[i], i + 1) << i;
  }
}

TEST_F(PacketCopy, isAFreshPacketOtherwise) {
  bess::PacketPtr used = packet(pool(), {bytes(10)});
  used->mbuf()->port = 5;
  used->mbuf()->ol_flags |= RTE_MBUF_F_RX_VLAN;
  used->adj(4);
  const BessPktCache copy(used.get());
  used.reset();
  const bess::PacketPtr fresh = alive(copy);
  EXPECT_EQ(segmentsOf(fresh), std::vector{bytes(10).substr(4)});
  EXPECT_EQ(fresh->mbuf()->port, 0xFFFF);
  EXPECT_EQ(fresh->mbuf()->ol_flags, 0U);
  EXPECT_EQ(rte_mbuf_refcnt_read(fresh->mbuf()), 1);
  EXPECT_EQ(fresh->headroom(), RTE_PKTMBUF_HEADROOM);
}

TEST_F(PacketCopy, comesBackAsOftenAsIsAsked) {
  const bess::PacketPtr original = packet(pool(), {bytes(100)});
  const BessPktCache copy(original.get());
  const bess::PacketPtr one = alive(copy);
  const bess::PacketPtr two = alive(copy);
  std::memset(one->headData(), 0, 100);
  EXPECT_EQ(segmentsOf(two), std::vector{bytes(100)});
}

TEST_F(PacketCopy, ofNoBytesHasNone) {
  const bess::PacketPtr original = packet(pool(), {""});
  const bess::PacketPtr fresh = alive(BessPktCache(original.get()));
  EXPECT_EQ(fresh->totalLen(), 0U);
  EXPECT_EQ(fresh->headLen(), 0U);
  EXPECT_EQ(fresh->segments(), 1U);
}

TEST_F(PacketCopy, appendsSegmentsThatFitAndChainsTheOthers) {
  struct Case {
    std::vector<size_t> segments;
    std::vector<size_t> expected;
  };
  // The room of one buffer is 2048 bytes.
  const Case cases[] = {
      {{100, 200}, {300}},
      {{100, 1948}, {2048}},
      {{100, 1949}, {100, 1949}},
      {{2048, 1}, {2048, 1}},
      {{1500, 1000, 1000}, {1500, 2000}},
      {{1500, 600, 1500}, {1500, 600, 1500}},
      {{0, 2048}, {2048}},
      {{2048, 0}, {2048}},
  };
  for (const Case& c : cases) {
    std::vector<std::string> parts;
    char first = 'a';
    std::string all;
    for (const size_t length : c.segments) {
      parts.push_back(bytes(length, first++));
      all += parts.back();
    }
    const bess::PacketPtr original = packet(pool(), parts);
    const bess::PacketPtr fresh = alive(BessPktCache(original.get()));
    std::vector<size_t> lengths;
    std::string joined;
    for (const std::string& segment : segmentsOf(fresh)) {
      lengths.push_back(segment.size());
      joined += segment;
    }
    EXPECT_EQ(lengths, c.expected);
    EXPECT_EQ(joined, all);
    EXPECT_EQ(fresh->segments(), c.expected.size());
    EXPECT_EQ(fresh->totalLen(), c.segments.back()) << "the last segment's length";
  }
}

TEST_F(PacketCopy, takesNoMoreOfASegmentThanThePacketClaims) {
  const bess::PacketPtr original = packet(pool(), {bytes(100), bytes(50, 'h')});
  original->mbuf()->pkt_len = 60;
  const bess::PacketPtr fresh = alive(BessPktCache(original.get()));
  EXPECT_EQ(segmentsOf(fresh), std::vector{bytes(100).substr(0, 60) + bytes(50, 'h')});
  EXPECT_EQ(fresh->totalLen(), 50U);
  original->mbuf()->pkt_len = 150;
}

TEST_F(PacketCopy, fitsSegmentsUpToTheRoomOfTheirCopy) {
  static bess::PacketPool jumbo("jumbocopies", 15, 12000);
  struct Case {
    std::vector<size_t> segments;
    std::optional<uint32_t> claimed;
    bool fits;
  };
  const Case cases[] = {
      {{9280}, {}, true},       {{9281}, {}, false},      {{9280, 9280}, {}, true},
      {{100, 9281}, {}, false}, {{9281, 100}, {}, false}, {{12000}, 9280, true},
      {{12000}, 9281, false},
  };
  for (const Case& c : cases) {
    std::vector<std::string> parts;
    size_t total = 0;
    for (const size_t length : c.segments) {
      parts.push_back(bytes(length));
      total += length;
    }
    const bess::PacketPtr original = packet(jumbo, parts);
    original->mbuf()->pkt_len = c.claimed.value_or(static_cast<uint32_t>(total));
    EXPECT_EQ(BessPktCache::fits(original.get()), c.fits) << c.segments[0];
    if (c.fits) {
      const bess::PacketPtr fresh = alive(BessPktCache(original.get()), jumbo);
      ASSERT_NE(fresh, nullptr);
      EXPECT_EQ(segmentsOf(fresh)[0].size(), std::min(c.segments[0], size_t{9280}));
    }
  }
}

TEST_F(PacketCopy, spreadsAJumboFrameOverAPoolOfSmallerBuffers) {
  static bess::PacketPool jumbo("jumbosource", 15, 12000);
  const bess::PacketPtr original = packet(jumbo, {bytes(9000)});
  const bess::PacketPtr fresh = alive(BessPktCache(original.get()));
  const std::vector<std::string> segments = segmentsOf(fresh);
  std::string joined;
  for (const std::string& segment : segments) {
    joined += segment;
  }
  EXPECT_EQ(joined, bytes(9000));
  EXPECT_EQ(segments.size(), 5U);
  EXPECT_EQ(fresh->segments(), 5U);
  EXPECT_EQ(fresh->totalLen(), 9000U);
}

TEST_F(PacketCopy, isNullFromADryPool) {
  static bess::PacketPool small("drycopies", 7, 2048);
  const bess::PacketPtr original = packet(pool(), {bytes(1500)});
  const BessPktCache copy(original.get());
  auto taken = drain(small, 0);
  EXPECT_EQ(alive(copy, small), nullptr);
  taken.pop_back();
  EXPECT_NE(alive(copy, small), nullptr);
}

TEST_F(PacketCopy, givesBackWhatItBuiltWhenThePoolRunsDryOnTheWay) {
  static bess::PacketPool small("drychains", 7, 2048);
  const bess::PacketPtr original =
      packet(pool(), {bytes(1500), bytes(1500), bytes(1500), bytes(1500)});
  const BessPktCache copy(original.get());
  for (unsigned left = 0; left < 4; ++left) {
    const auto taken = drain(small, left);
    EXPECT_EQ(alive(copy, small), nullptr) << left;
    EXPECT_EQ(small.available(), left);
  }
  const auto taken = drain(small, 4);
  EXPECT_NE(alive(copy, small), nullptr);
}

}  // namespace
}  // namespace SfeModules
