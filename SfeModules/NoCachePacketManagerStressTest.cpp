// Several workers at one cache: offering, re-injecting and expiring at once.
#include <gtest/gtest.h>
#include <urcu-qsbr.h>

#include <atomic>
#include <barrier>
#include <random>
#include <thread>
#include <vector>

#include "Base/RcuAnnotate.h"
#include "SfeModules/Testing/CacheFixture.h"

namespace SfeModules {
namespace {

constexpr unsigned kWorkers = 3;
constexpr unsigned kRounds = 20000;
constexpr unsigned kKeys = 12;
constexpr uint32_t kMaxKeys = 8;
constexpr uint32_t kMaxPackets = 3;

// What one worker did.
struct Tally {
  uint64_t offered = 0;
  uint64_t held = 0;
  uint64_t refused = 0;
  uint64_t reinjected = 0;
  uint64_t forwarded = 0;
  uint64_t limitsExceeded = 0;
  uint64_t damagedCopies = 0;
};

class CacheStress : public CacheFixture {
 protected:
  CacheStress() {
    cache_->maxUnresolvedCacheEntries_ = kMaxKeys;
    cache_->maxUnresolvedPktBuffers_ = kMaxPackets;
    cache_->expiryTimer_ = 0;
    intfs_.insert(kIntf, true);
    intfs_.insert(kOtherIntf, true);
    for (unsigned n = 0; n < kKeys; ++n) {
      addRoute(key(n), n % 2);  // every second route releases what is held
    }
    for (unsigned wid = 1; wid < kWorkers; ++wid) {
      createCounterRow(static_cast<int>(wid));
      bessCounterRow(static_cast<int>(wid))[fates_.id(Fate::kDropExpired)] = 0;
    }
  }
  ~CacheStress() override {
    for (unsigned wid = 1; wid < kWorkers; ++wid) {
      destroyCounterRow(static_cast<int>(wid));
    }
  }

  static uint64_t intfOf(unsigned n) { return n % 3 == 0 ? kOtherIntf : kIntf; }

  void offerOne(unsigned n, Tally& tally) {
    bess::Packet* packet = bess::PacketPool::defaultPool()->alloc();
    if (packet == nullptr) {
      return;
    }
    const MfibKey route = key(n);
    std::memcpy(packet->append(sizeof(route)), &route, sizeof(route));
    ++tally.offered;
    ++(cache_->addEntryIntoCache(route, packet, intfOf(n)) ? tally.held : tally.refused);
    bess::Packet::Free(packet);
  }

  void reinjectOne(unsigned draw, Tally& tally) {
    MfibKey route;
    if (!cache_->takeResolvedKey(route)) {
      return;
    }
    const unsigned n = route.group[3];
    std::array<UnresolvedPacket*, kMaxPackets> packets{};
    bool more = false;
    const size_t count =
        cache_->takeEligible(route, intfOf(n), packets.data(), packets.size(), more);
    for (size_t i = 0; i < count; ++i) {
      bess::Packet* fresh = packets[i]->copy->allocPacket();
      if (fresh == nullptr) {
        cache_->settle(packets[i], false, false);
        continue;
      }
      tally.damagedCopies +=
          std::memcmp(fresh->headData(), &packets[i]->key, sizeof(route)) == 0 ? 0 : 1;
      bess::Packet::Free(fresh);
      const bool forwarded = (draw + i) % 2 == 0;
      cache_->settle(packets[i], true, forwarded);
      ++tally.reinjected;
      tally.forwarded += forwarded ? 1 : 0;
    }
    tally.limitsExceeded += more ? 1 : 0;
  }

  void work(int wid, Tally& tally) {
    const ScopedWorkerIdentity identity(wid);
    std::minstd_rand random(static_cast<unsigned>(wid) + 1);
    for (unsigned round = 0; round < kRounds; ++round) {
      const auto draw = static_cast<unsigned>(random());
      switch (draw % 4) {
        case 0:
        case 1:
          offerOne((draw >> 4) % kKeys, tally);
          break;
        case 2:
          reinjectOne(draw >> 4, tally);
          break;
        default:
          pass(std::chrono::nanoseconds(1));
          cache_->expirePacketsFromCache();
          break;
      }
      tally.limitsExceeded += cache_->entryCount() > kMaxKeys ? 1 : 0;
      tally.limitsExceeded += cache_->packetCount() > kMaxKeys * kMaxPackets ? 1 : 0;
      SFE_RCU_QUIESCENT();
      urcu_qsbr_quiescent_state();
    }
  }

  // Runs all workers to their end; the test's own thread is worker 0.
  Tally runWorkers() {
    std::vector<Tally> tallies(kWorkers);
    std::barrier together(kWorkers);
    std::vector<std::thread> threads;
    for (unsigned wid = 1; wid < kWorkers; ++wid) {
      threads.emplace_back([this, wid, &tallies, &together] {
        urcu_qsbr_register_thread();
        together.arrive_and_wait();
        work(static_cast<int>(wid), tallies[wid]);
        urcu_qsbr_unregister_thread();
      });
    }
    together.arrive_and_wait();
    work(0, tallies[0]);
    urcu_qsbr_thread_offline();
    for (std::thread& thread : threads) {
      thread.join();
    }
    urcu_qsbr_thread_online();
    Tally sum;
    for (const Tally& tally : tallies) {
      sum.offered += tally.offered;
      sum.held += tally.held;
      sum.refused += tally.refused;
      sum.reinjected += tally.reinjected;
      sum.forwarded += tally.forwarded;
      sum.limitsExceeded += tally.limitsExceeded;
      sum.damagedCopies += tally.damagedCopies;
    }
    return sum;
  }

  // Held packets that nobody has re-injected.
  uint64_t waiting() const {
    uint64_t count = 0;
    for (unsigned n = 0; n < kKeys; ++n) {
      if (UnresolvedList* const* list = NoCacheTestPeer::lists(*cache_).find(key(n))) {
        for (const UnresolvedPacket* packet : **list) {
          count += packet->resolved ? 0 : 1;
        }
      }
    }
    return count;
  }

  uint64_t expiredOfAll() const {
    uint64_t sum = 0;
    for (unsigned wid = 0; wid < kWorkers; ++wid) {
      sum += bessCounter(static_cast<int>(wid), fates_.id(Fate::kDropExpired));
    }
    return sum;
  }
};

TEST_F(CacheStress, losesNoPacketAndKeepsItsLimits) {
  const size_t packetsBefore = bess::PacketPool::defaultPool()->inUse();
  const Tally sum = runWorkers();
  EXPECT_EQ(sum.limitsExceeded, 0U);
  EXPECT_EQ(sum.damagedCopies, 0U);
  EXPECT_EQ(sum.offered, sum.held + sum.refused);
  EXPECT_EQ(sum.held, sum.reinjected + expiredOfAll() + waiting());
  // Each of the roads was taken.
  EXPECT_GT(sum.held, 0U);
  EXPECT_GT(sum.refused, 0U);
  EXPECT_GT(sum.reinjected, 0U);
  EXPECT_GT(sum.forwarded, 0U);
  EXPECT_GT(expiredOfAll(), 0U);

  pass(std::chrono::seconds(1));
  expire();
  EXPECT_EQ(cache_->packetCount(), 0U);
  EXPECT_EQ(cache_->entryCount(), 0U);
  EXPECT_EQ(NoCacheTestPeer::lists(*cache_).size(), 0U);
  EXPECT_EQ(sum.held, sum.reinjected + expiredOfAll());
  EXPECT_EQ(bess::PacketPool::defaultPool()->inUse(), packetsBefore);

  // The cache counts under its lock: nothing of these is lost.
  EXPECT_EQ(onIntf(kIntf).pktsQueued + onIntf(kOtherIntf).pktsQueued, 0U);
  EXPECT_EQ(onIntf(kIntf).pktsDropped + onIntf(kOtherIntf).pktsDropped, expiredOfAll());
  uint64_t droppedOnRoutes = 0;
  for (unsigned n = 0; n < kKeys; ++n) {
    EXPECT_EQ(onRoute(key(n)).pktsQueued, 0U) << n;
    ASSERT_TRUE(NoCacheTestPeer::onRoute(*cache_).contains(key(n))) << n;
    EXPECT_EQ(*NoCacheTestPeer::onRoute(*cache_).find(key(n)), 0U) << n;
    droppedOnRoutes += onRoute(key(n)).pktsDropped;
  }
  EXPECT_EQ(droppedOnRoutes, expiredOfAll());
}

}  // namespace
}  // namespace SfeModules
