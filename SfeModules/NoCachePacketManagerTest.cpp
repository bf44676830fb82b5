#include "SfeModules/NoCachePacketManager.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <limits>
#include <string>

#include "SfeModules/Testing/CacheFixture.h"
#include "SfeModules/Testing/LogLines.h"

namespace SfeModules {
namespace {

using std::chrono::nanoseconds;
using std::chrono::seconds;

constexpr const char* kFull = "mroute: pending queue full, dropping entries";
constexpr uint32_t kMinusOne = std::numeric_limits<uint32_t>::max();

// How many packets are counted for the key; -1 without a node.
template <class Table, class Key>
int64_t queued(const Table& table, const Key& key) {
  const uint64_t* count = table.find(key);
  return count == nullptr ? -1 : static_cast<int64_t>(*count);
}

class UnresolvedCache : public CacheFixture {};

TEST_F(UnresolvedCache, startsEmptyWithItsDefaultLimits) {
  EXPECT_EQ(cache_->expiryTimer_, 10U);
  EXPECT_EQ(cache_->maxUnresolvedPktBuffers_, 3U);
  EXPECT_EQ(cache_->maxUnresolvedCacheEntries_, 250U);
  EXPECT_EQ(cache_->entryCount(), 0U);
  EXPECT_EQ(cache_->packetCount(), 0U);
  EXPECT_TRUE(cache_->resolvedQueueEmpty());
  EXPECT_EQ(NoCacheTestPeer::lists(*cache_).initialSize(), 128U);
  EXPECT_EQ(NoCacheTestPeer::onIntf(*cache_).initialSize(), 128U);
  EXPECT_EQ(NoCacheTestPeer::onRoute(*cache_).initialSize(), 128U);
}

TEST_F(UnresolvedCache, tracesItsConstructionAndDestruction) {
  const TraceLevel level(6);
  const LogLines log;
  cache_.reset();
  EXPECT_EQ(log.with("SfeModules::NoCachePacketManager::~NoCachePacketManager()"), 1U);
  cache_ = std::make_unique<NoCachePacketManager>(kAfIpv4, intfs_, routes_, intfCounters_,
                                                  mrouteCounters_);
  EXPECT_EQ(log.with("SfeModules::NoCachePacketManager::NoCachePacketManager("), 1U);
}

TEST_F(UnresolvedCache, keepsACopyAndLeavesThePacketToItsOwner) {
  const bess::PacketPtr packet = harness_.packet("before");
  ASSERT_TRUE(cache_->addEntryIntoCache(key(1), packet.get(), kIntf));
  std::memcpy(packet->headData(), "after!", 6);
  const auto held = take(key(1));
  ASSERT_EQ(held.size(), 1U);
  const bess::PacketPtr fresh(held[0]->copy->allocPacket());
  EXPECT_EQ(bess::testing::contents(fresh.get()), "before");
  EXPECT_EQ(bess::testing::contents(packet.get()), "after!");
  EXPECT_EQ(held[0]->key, key(1));
  EXPECT_EQ(held[0]->iif, kIntf);
  EXPECT_EQ(held[0]->arrival, ManualClock::now());
  EXPECT_FALSE(held[0]->resolved);
  EXPECT_FALSE(held[0]->forwarded);
  cache_->settle(held[0], false, false);
}

TEST_F(UnresolvedCache, refusesTheFourthPacketOfAKeyAndKeepsTheThree) {
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(offer(key(1)));
  }
  EXPECT_FALSE(offer(key(1)));
  EXPECT_EQ(cache_->packetCount(), 3U);
  EXPECT_EQ(cache_->entryCount(), 1U);
  EXPECT_TRUE(offer(key(2)));
  EXPECT_EQ(onRoute(key(1)).pktsQueued, 3U);
}

TEST_F(UnresolvedCache, refusesANewKeyWhenFullButTakesMoreOfAHeldOne) {
  for (unsigned n = 0; n < 250; ++n) {
    ASSERT_TRUE(offer(key(n)));
  }
  const LogLines log;
  EXPECT_FALSE(offer(key(250)));
  EXPECT_EQ(log.with(kFull), 1U);
  EXPECT_EQ(cache_->entryCount(), 250U);
  EXPECT_EQ(cache_->packetCount(), 250U);
  EXPECT_TRUE(offer(key(7)));
  EXPECT_EQ(cache_->packetCount(), 251U);
}

TEST_F(UnresolvedCache, saysThatItIsFullOnceUntilThereWasRoomAgain) {
  cache_->maxUnresolvedCacheEntries_ = 1;
  ASSERT_TRUE(offer(key(1)));
  const LogLines log;
  for (unsigned n = 2; n < 20; ++n) {
    EXPECT_FALSE(offer(key(n)));
  }
  EXPECT_EQ(log.with(kFull), 1U);
  pass(seconds(11));
  ASSERT_TRUE(expire());
  EXPECT_TRUE(offer(key(2)));
  EXPECT_FALSE(offer(key(3)));
  EXPECT_EQ(log.with(kFull), 2U);
}

TEST_F(UnresolvedCache, saysNothingWhenOnlyAKeysListIsFull) {
  cache_->maxUnresolvedPktBuffers_ = 1;
  ASSERT_TRUE(offer(key(1)));
  const LogLines log;
  EXPECT_FALSE(offer(key(1)));
  EXPECT_EQ(log.with(kFull), 0U);
}

TEST_F(UnresolvedCache, takesNothingWithALimitOfNoKeys) {
  cache_->maxUnresolvedCacheEntries_ = 0;
  EXPECT_FALSE(offer(key(1)));
  EXPECT_EQ(cache_->entryCount(), 0U);
}

TEST_F(UnresolvedCache, keepsTheEmptyListOfANewKeyThatMayHoldNothing) {
  cache_->maxUnresolvedPktBuffers_ = 0;
  EXPECT_FALSE(offer(key(1)));
  EXPECT_EQ(cache_->entryCount(), 1U);
  EXPECT_EQ(cache_->packetCount(), 0U);
  EXPECT_FALSE(expire());
  cache_->maxUnresolvedPktBuffers_ = 1;
  EXPECT_TRUE(offer(key(1)));
  EXPECT_EQ(cache_->entryCount(), 1U);
}

TEST_F(UnresolvedCache, refusesAPacketOfAKeyWithoutAList) {
  NoCacheTestPeer::lists(*cache_).insert(key(1), nullptr);
  EXPECT_FALSE(offer(key(1)));
  EXPECT_TRUE(take(key(1)).empty());
  EXPECT_EQ(cache_->packetCount(), 0U);
}

TEST_F(UnresolvedCache, refusesASegmentThatDoesNotFitItsCopy) {
  static bess::PacketPool jumbo("jumbo", 15, 12000);
  for (const auto& [length, stored] : {std::pair{9280U, true}, std::pair{9281U, false}}) {
    const bess::PacketPtr packet(jumbo.alloc());
    ASSERT_NE(packet->append(static_cast<uint16_t>(length)), nullptr);
    EXPECT_EQ(cache_->addEntryIntoCache(key(length), packet.get(), kIntf), stored) << length;
    EXPECT_EQ(NoCacheTestPeer::lists(*cache_).contains(key(length)), stored) << length;
  }
  EXPECT_EQ(cache_->packetCount(), 1U);
}

TEST_F(UnresolvedCache, countsAHeldPacketOnItsInterfaceAndItsRoute) {
  offer(key(1), kIntf);
  offer(key(2), kIntf);
  offer(key(2), kOtherIntf);
  EXPECT_EQ(onIntf(kIntf).pktsQueued, 2U);
  EXPECT_EQ(onIntf(kOtherIntf).pktsQueued, 1U);
  EXPECT_EQ(onRoute(key(1)).pktsQueued, 1U);
  EXPECT_EQ(onRoute(key(2)).pktsQueued, 2U);
  EXPECT_EQ(onIntf(kIntf).state, kCounterNew);
  EXPECT_EQ(onRoute(key(2)).state, kCounterNew);
  EXPECT_EQ(queued(NoCacheTestPeer::onIntf(*cache_), kIntf), 2);
  EXPECT_EQ(queued(NoCacheTestPeer::onIntf(*cache_), kOtherIntf), 1);
  EXPECT_EQ(queued(NoCacheTestPeer::onRoute(*cache_), key(1)), 1);
  EXPECT_EQ(queued(NoCacheTestPeer::onRoute(*cache_), key(2)), 2);
}

TEST_F(UnresolvedCache, countsNothingForARefusedPacket) {
  cache_->maxUnresolvedPktBuffers_ = 1;
  offer(key(1));
  offer(key(1));
  EXPECT_EQ(onIntf(kIntf).pktsQueued, 1U);
  EXPECT_EQ(onRoute(key(1)).pktsQueued, 1U);
}

TEST_F(UnresolvedCache, revivesWithdrawnCountersWhenAPacketIsHeld) {
  onIntf(kIntf).state = kCounterWithdrawn;
  onRoute(key(1)).state = kCounterWithdrawn;
  offer(key(1));
  EXPECT_EQ(onIntf(kIntf).state, kCounterRevived);
  EXPECT_EQ(onRoute(key(1)).state, kCounterRevived);
}

TEST_F(UnresolvedCache, makesACounterEntryOnlyWhenThereIsNone) {
  const auto intf = NoCacheTestPeer::counters(*cache_, kIntf);
  const auto route = NoCacheTestPeer::counters(*cache_, key(1));
  EXPECT_EQ(intf->counts(), (std::array<uint32_t, 6>{}));
  EXPECT_EQ(route->counts(), (std::array<uint32_t, 5>{}));
  EXPECT_EQ(NoCacheTestPeer::counters(*cache_, kIntf), intf);
  EXPECT_EQ(NoCacheTestPeer::counters(*cache_, key(1)), route);
  EXPECT_EQ(*intfCounters_.find(kIntf), intf);
  EXPECT_EQ(*mrouteCounters_.find(key(1)), route);
}

TEST_F(UnresolvedCache, expiresNothingWhileItIsEmpty) {
  pass(seconds(1000));
  EXPECT_FALSE(expire());
}

TEST_F(UnresolvedCache, keepsAPacketUpToItsTimeAndFreesItAfter) {
  intfs_.insert(kIntf, true);
  addRoute(key(1), 0);
  offer(key(1));
  pass(seconds(10));
  EXPECT_FALSE(expire());
  EXPECT_EQ(cache_->packetCount(), 1U);
  pass(nanoseconds(1));
  EXPECT_TRUE(expire());
  EXPECT_EQ(cache_->packetCount(), 0U);
  EXPECT_EQ(cache_->entryCount(), 0U);
  EXPECT_EQ(onIntf(kIntf).pktsDropped, 1U);
  EXPECT_EQ(onRoute(key(1)).pktsDropped, 1U);
  EXPECT_EQ(onIntf(kIntf).pktsQueued, 0U);
  EXPECT_EQ(onRoute(key(1)).pktsQueued, 0U);
  EXPECT_EQ(expired(), 1U);
}

TEST_F(UnresolvedCache, followsAnExpiryTimerThatIsChanged) {
  offer(key(1));
  cache_->expiryTimer_ = 100;
  pass(seconds(50));
  EXPECT_FALSE(expire());
  cache_->expiryTimer_ = 0;
  EXPECT_TRUE(expire());
  offer(key(1));
  EXPECT_FALSE(expire()) << "no time has passed at all";
  cache_->expiryTimer_ = std::numeric_limits<uint32_t>::max();
  pass(seconds(1000));
  EXPECT_FALSE(expire());
}

TEST_F(UnresolvedCache, keepsItsPacketsWhenTheClockIsSteppedBack) {
  offer(key(1));
  pass(-std::chrono::hours(1));
  EXPECT_FALSE(expire());
  pass(std::chrono::hours(1) + seconds(11));
  EXPECT_TRUE(expire());
}

TEST_F(UnresolvedCache, freesAResolvedPacketThoughItIsYoungAndDropsNothing) {
  intfs_.insert(kIntf, true);
  addRoute(key(1), 0);
  offer(key(1));
  resolve(key(1), kIntf, false);
  EXPECT_TRUE(expire());
  EXPECT_EQ(cache_->packetCount(), 0U);
  EXPECT_EQ(onIntf(kIntf).pktsDropped, 0U);
  EXPECT_EQ(onRoute(key(1)).pktsDropped, 0U);
  EXPECT_EQ(onIntf(kIntf).pktsQueued, 0U);
  EXPECT_EQ(onRoute(key(1)).pktsQueued, 0U);
  EXPECT_EQ(expired(), 0U);
}

TEST_F(UnresolvedCache, stopsAtTheFirstYoungPacket) {
  offer(key(1));
  offer(key(2));
  resolve(key(2), kIntf, true);
  EXPECT_FALSE(expire()) << "the resolved packet is behind a young one";
  EXPECT_EQ(cache_->packetCount(), 2U);
  pass(seconds(11));
  offer(key(3));
  EXPECT_TRUE(expire());
  EXPECT_EQ(cache_->packetCount(), 1U);
  EXPECT_EQ(take(key(3)).size(), 1U);
}

TEST_F(UnresolvedCache, leavesAPacketAloneThatAWorkerIsReinjecting) {
  offer(key(1));
  const auto taken = take(key(1));
  ASSERT_EQ(taken.size(), 1U);
  pass(seconds(11));
  EXPECT_FALSE(expire());
  EXPECT_TRUE(take(key(1)).empty()) << "and nobody else takes it";
  cache_->settle(taken[0], false, false);
  EXPECT_EQ(take(key(1)), taken) << "given back, it can be taken again";
  cache_->settle(taken[0], false, false);
  EXPECT_TRUE(expire());
  EXPECT_EQ(expired(), 1U);
}

TEST_F(UnresolvedCache, erasesAKeyWithItsLastPacketOnly) {
  offer(key(1));
  pass(seconds(5));
  offer(key(1));
  pass(seconds(6));
  EXPECT_TRUE(expire());
  EXPECT_EQ(cache_->entryCount(), 1U);
  EXPECT_TRUE(NoCacheTestPeer::lists(*cache_).contains(key(1)));
  pass(seconds(6));
  EXPECT_TRUE(expire());
  EXPECT_EQ(cache_->entryCount(), 0U);
  EXPECT_FALSE(NoCacheTestPeer::lists(*cache_).contains(key(1)));
  EXPECT_TRUE(offer(key(1)));
}

TEST_F(UnresolvedCache, addsHeldAndFreedUpToZeroAlsoBelowZero) {
  intfs_.insert(kIntf, true);
  addRoute(key(1), 0);
  offer(key(1));
  onIntf(kIntf).pktsQueued = 0;  // published
  onRoute(key(1)).pktsQueued = 0;
  pass(seconds(11));
  expire();
  EXPECT_EQ(onIntf(kIntf).pktsQueued, kMinusOne);
  EXPECT_EQ(onRoute(key(1)).pktsQueued, kMinusOne);
}

TEST_F(UnresolvedCache, keepsTheQueueCountOfAnInterfaceThatExists) {
  intfs_.insert(kIntf, true);
  offer(key(1));
  onIntf(kIntf).pktsIn = 5;
  pass(seconds(11));
  expire();
  EXPECT_EQ(queued(NoCacheTestPeer::onIntf(*cache_), kIntf), 0);
  EXPECT_EQ(onIntf(kIntf).pktsIn, 5U);
  EXPECT_EQ(onIntf(kIntf).state, kCounterNew);
}

TEST_F(UnresolvedCache, withdrawsADeletedInterfaceWithItsLastPacket) {
  for (const bool resolved : {false, true}) {
    intfCounters_.erase(kIntf);
    ASSERT_TRUE(offer(key(1)));
    pass(seconds(5));
    ASSERT_TRUE(offer(key(2)));
    const auto counters = NoCacheTestPeer::counters(*cache_, kIntf);
    for (Counter32* counter : {&counters->pktsIn, &counters->pktsOut, &counters->bytesIn,
                               &counters->bytesOut, &counters->pktsDropped}) {
      *counter = 9;
    }
    auto end = [&](const MfibKey& key) {
      if (resolved) {
        resolve(key, kIntf, true);
      } else {
        pass(seconds(6));
      }
      return expire();
    };
    ASSERT_TRUE(end(key(1)));
    EXPECT_EQ(counters->counts(), (std::array<uint32_t, 6>{9, 9, 9, 9, 1, resolved ? 9U : 10U}));
    EXPECT_EQ(counters->state, kCounterNew);
    EXPECT_EQ(queued(NoCacheTestPeer::onIntf(*cache_), kIntf), 1);
    ASSERT_TRUE(end(key(2)));
    EXPECT_FALSE(NoCacheTestPeer::onIntf(*cache_).contains(kIntf));
    EXPECT_EQ(counters->counts(), (std::array<uint32_t, 6>{}));
    EXPECT_EQ(counters->state, kCounterWithdrawn);
  }
}

TEST_F(UnresolvedCache, withdrawsARouteOnlyWhenNothingWasForwardedAndNoneExists) {
  struct Case {
    const char* what;
    bool resolved;
    bool forwarded;
    bool routeExists;
    bool withdrawn;
  };
  const Case cases[] = {
      {"expired, no route", false, false, false, true},
      {"expired, route", false, false, true, false},
      {"re-injected and dropped, no route", true, false, false, true},
      {"re-injected and dropped, route", true, false, true, false},
      {"forwarded, no route any more", true, true, false, false},
      {"forwarded, route", true, true, true, false},
  };
  unsigned n = 0;
  for (const Case& c : cases) {
    const MfibKey route = key(++n);
    offer(route);
    MrouteCounterEntry& counters = onRoute(route);
    for (Counter32* counter : {&counters.pktsIn, &counters.bytesIn, &counters.wrongVif}) {
      *counter = 9;
    }
    if (c.routeExists) {
      addRoute(route, 0);
    }
    if (c.resolved) {
      resolve(route, kIntf, c.forwarded);
    } else {
      pass(seconds(11));
    }
    ASSERT_TRUE(expire()) << c.what;
    EXPECT_EQ(queued(NoCacheTestPeer::onRoute(*cache_), route), c.withdrawn ? -1 : 0) << c.what;
    EXPECT_EQ(counters.state, c.withdrawn ? kCounterWithdrawn : kCounterNew) << c.what;
    EXPECT_EQ(counters.pktsIn, c.withdrawn ? 0U : 9U) << c.what;
    EXPECT_EQ(counters.bytesIn, c.withdrawn ? 0U : 9U) << c.what;
    EXPECT_EQ(counters.wrongVif, c.withdrawn ? 0U : 9U) << c.what;
    EXPECT_EQ(counters.pktsQueued, 0U) << c.what;
    EXPECT_EQ(counters.pktsDropped, c.withdrawn || c.resolved ? 0U : 1U) << c.what;
  }
}

TEST_F(UnresolvedCache, withdrawsARouteWithItsLastPacketOnly) {
  offer(key(1));
  pass(seconds(5));
  offer(key(1));
  pass(seconds(6));
  expire();
  EXPECT_EQ(onRoute(key(1)).state, kCounterNew);
  EXPECT_EQ(onRoute(key(1)).pktsQueued, 1U);
  EXPECT_EQ(onRoute(key(1)).pktsDropped, 1U);
  pass(seconds(6));
  expire();
  EXPECT_EQ(onRoute(key(1)).state, kCounterWithdrawn);
}

TEST_F(UnresolvedCache, queuesAKeyForReinjectionOnlyWhenItHoldsPackets) {
  cache_->resolvePendingPackets(key(1));
  EXPECT_TRUE(cache_->resolvedQueueEmpty());
  offer(key(1));
  offer(key(2));
  cache_->resolvePendingPackets(key(2));
  cache_->resolvePendingPackets(key(1));
  EXPECT_FALSE(cache_->resolvedQueueEmpty());
  MfibKey taken;
  ASSERT_TRUE(cache_->takeResolvedKey(taken));
  EXPECT_EQ(taken, key(2));
  cache_->requeueResolved(key(2));
  ASSERT_TRUE(cache_->takeResolvedKey(taken));
  EXPECT_EQ(taken, key(2)) << "what did not fit one run comes first in the next";
  ASSERT_TRUE(cache_->takeResolvedKey(taken));
  EXPECT_EQ(taken, key(1));
  EXPECT_FALSE(cache_->takeResolvedKey(taken));
  EXPECT_EQ(cache_->packetCount(), 2U) << "the packets stay where they are";
}

TEST_F(UnresolvedCache, queuesTheKeyOfAPacketThatCameAfterItsRoute) {
  struct Case {
    uint32_t oifs;
    bool oifRegister;
    bool queued;
  };
  unsigned n = 0;
  for (const Case& c : {Case{1, false, true}, Case{0, true, true}, Case{0, false, false}}) {
    addRoute(key(++n), c.oifs, c.oifRegister);
    ASSERT_TRUE(offer(key(n)));
    MfibKey taken;
    EXPECT_EQ(cache_->takeResolvedKey(taken), c.queued) << n;
  }
  ASSERT_TRUE(offer(key(99)));
  EXPECT_TRUE(cache_->resolvedQueueEmpty());
}

TEST_F(UnresolvedCache, givesThePacketsOfOneInterfaceInOrderAndSaysWhetherMoreAreLeft) {
  cache_->maxUnresolvedPktBuffers_ = 10;
  for (const char* bytes : {"a", "b", "c", "d"}) {
    offer(key(1), kIntf, bytes);
    offer(key(1), kOtherIntf, "x");
  }
  std::array<UnresolvedPacket*, 3> packets{};
  bool more = false;
  ASSERT_EQ(cache_->takeEligible(key(1), kIntf, packets.data(), 3, more), 3U);
  EXPECT_TRUE(more);
  const char* expected[] = {"a", "b", "c"};
  for (size_t i = 0; i < 3; ++i) {
    const bess::PacketPtr fresh(packets[i]->copy->allocPacket());
    EXPECT_EQ(bess::testing::contents(fresh.get()), expected[i]);
  }
  cache_->settle(packets[0], true, true);
  ASSERT_EQ(cache_->takeEligible(key(1), kIntf, packets.data(), 3, more), 1U);
  EXPECT_FALSE(more) << "neither resolved nor taken packets count";
  EXPECT_EQ(cache_->takeEligible(key(2), kIntf, packets.data(), 3, more), 0U);
  EXPECT_FALSE(more);
}

TEST_F(UnresolvedCache, remembersWhatASettledPacketBecame) {
  offer(key(1));
  const auto held = take(key(1));
  cache_->settle(held[0], true, false);
  EXPECT_TRUE(held[0]->resolved);
  EXPECT_FALSE(held[0]->forwarded);
  cache_->settle(held[0], false, true);
  EXPECT_TRUE(held[0]->resolved);
  EXPECT_TRUE(held[0]->forwarded);
}

TEST_F(UnresolvedCache, keepsWhatItHoldsWhenALimitIsLoweredBelowIt) {
  cache_->maxUnresolvedPktBuffers_ = 5;
  for (int i = 0; i < 5; ++i) {
    offer(key(1));
  }
  offer(key(2));
  cache_->maxUnresolvedPktBuffers_ = 2;
  cache_->maxUnresolvedCacheEntries_ = 1;
  EXPECT_FALSE(offer(key(1)));
  EXPECT_TRUE(offer(key(2))) << "a held key with room";
  EXPECT_FALSE(offer(key(3)));
  EXPECT_EQ(cache_->packetCount(), 7U);
  EXPECT_EQ(cache_->entryCount(), 2U);
}

TEST_F(UnresolvedCache, leavesAListThatIsNoneAlone) {
  NoCachePacketManager::freeUnresolvedPktCache(nullptr);
  NoCachePacketManager::freeUnresolvedPktCache(new UnresolvedList(3, nullptr));
}

}  // namespace
}  // namespace SfeModules
