// Resolution runs: held packets go again when their route has come.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "SfeModules/Testing/TasksFixture.h"

namespace SfeModules {
namespace {

using frames::Ip;
using std::chrono::seconds;

constexpr uint64_t kWireOverhead = 24;

class MfibResolution : public TasksFixture {};

TEST_F(MfibResolution, aResolutionRunWithNothingToDoBlocks) {
  expectIdle(resolve().first);
  hold(group(1));
  expectIdle(resolve().first);
}

TEST_F(MfibResolution, aResolutionRunThatOnlyExpiresDoesNotBlock) {
  hold(group(1));
  ManualClock::advance(seconds(11));
  expectBusyWithout(resolve().first);
  EXPECT_EQ(cache().packetCount(), 0U);
  expectIdle(resolve().first);
}

TEST_F(MfibResolution, aResolutionRunSendsWhatWasHeldForARoute) {
  hold(group(1), 3);
  EXPECT_EQ(fate(Fate::kHeld), 3U);
  route(group(1));
  auto [result, out] = resolve();
  ASSERT_EQ(out.count(1), 3U);
  Bytes expected = frame(group(1));
  const Bytes sent = bytesOf(out[1][0]);
  ASSERT_EQ(sent.size(), expected.size());
  EXPECT_EQ(Bytes(sent.begin() + 34, sent.end()), Bytes(expected.begin() + 34, expected.end()));
  EXPECT_EQ(sent[22], 63) << "its TTL is one less";
  EXPECT_TRUE(metadata(out[1][0]).presence & kHasInIntf);
  EXPECT_EQ(metadata(out[1][0]).inIntf, id("Ethernet0"));
  EXPECT_FALSE(result.block);
  EXPECT_EQ(result.packets, 3U);
  EXPECT_EQ(result.bits, (3 * kWireOverhead + 3 * expected.size()) * 8);
  EXPECT_EQ(fate(Fate::kReinjected), 3U);
  EXPECT_EQ(cache().packetCount(), 0U) << "the same run frees them";
  EXPECT_EQ(routeCounters(kSource, group(1))->pktsDropped, 0U);
  expectIdle(resolve().first);
}

TEST_F(MfibResolution, reinjectedPacketsAreNotReceivedAgain) {
  hold(group(1), 2);
  EXPECT_EQ(intfCounters("Ethernet0")->pktsIn, 2U);
  route(group(1));
  resolve();
  EXPECT_EQ(intfCounters("Ethernet0")->pktsIn, 2U);
  EXPECT_EQ(routeCounters(kSource, group(1))->pktsIn, 2U);
  EXPECT_EQ(intfCounters("Ethernet1")->pktsOut, 2U);
}

TEST_F(MfibResolution, aResolutionRunEmptiesTheBatchItWasGiven) {
  hold(group(1));
  route(group(1));
  harness_.run([&] {
    bess::PacketBatch batch;
    batch.clear();
    batch.setCnt(5);
    Task task(mfib_, mfib_->tasks()[resolution_]->arg());
    Context ctx{.task = &task};
    ctx.wid = harness_.wid();
    mfib_->RunTask(&ctx, &batch, task.arg());
    EXPECT_EQ(batch.cnt(), 0);
    task.runPending(&ctx);
  });
  EXPECT_EQ(harness_.take(*mfib_).count(1), 1U);
}

TEST_F(MfibResolution, aResolutionRunReadsTheClockOnceForThePacketsAndOnceToExpire) {
  hold(group(1), 3);
  route(group(1));
  const ClockReadings readings;
  resolve();
  EXPECT_EQ(readings.count(), 2U);
}

TEST_F(MfibResolution, packetsFromAnotherInterfaceStayAndExpire) {
  cache().maxUnresolvedPktBuffers_ = 4;
  hold(group(1), 2, "Ethernet9");
  hold(group(1), 2, "Ethernet0");
  route(group(1));
  auto [result, out] = resolve();
  EXPECT_EQ(result.packets, 2U);
  EXPECT_EQ(out.total(), 2U);
  EXPECT_EQ(cache().packetCount(), 4U) << "the young ones are in front of the resolved ones";
  ManualClock::advance(seconds(11));
  expectBusyWithout(resolve().first);
  EXPECT_EQ(cache().packetCount(), 0U);
  EXPECT_EQ(intfCounters("Ethernet9")->pktsDropped, 2U);
  EXPECT_EQ(intfCounters("Ethernet0")->pktsDropped, 0U);
  EXPECT_EQ(routeCounters(kSource, group(1))->pktsDropped, 2U);
  EXPECT_EQ(fate(Fate::kDropExpired), 2U);
}

TEST_F(MfibResolution, aRegisterRouteTakesBackWhatCameByTheRegisterInterface) {
  enable({"Register0"});
  const Ip inner{.source = kSource, .group = group(1)};
  const Bytes encapsulated = frames::etherFrame(
      "02:00:00:00:00:05", "02:00:00:00:00:01", frames::kEtherTypeIpv4,
      frames::ipPacket(
          Ip{.source = "10.9.9.9",
             .group = "10.8.8.8",
             .protocol = frames::kProtocolPim,
             .payload = frames::operator+(frames::pimRegister(), frames::ipPacket(inner))}));
  EXPECT_TRUE(receive(encapsulated, "Register0").empty());
  hold(group(1));
  EXPECT_EQ(cache().packetCount(), 2U);
  addRoute({.source = kSource,
            .group = group(1),
            .iif = "Ethernet0",
            .oifs = {{"Ethernet1", 1}},
            .iifRegister = true});
  auto [result, out] = resolve();
  ASSERT_EQ(out.count(1), 1U) << "the native packet of the incoming interface stays";
  const size_t length = frames::kEtherBytes + frames::ipPacket(inner).size();
  EXPECT_EQ(out[1][0]->totalLen(), length);
  EXPECT_EQ(result.packets, 1U);
  EXPECT_EQ(result.bits, (kWireOverhead + length) * 8) << "its length after the packet path";
  EXPECT_EQ(cache().packetCount(), 1U);
}

TEST_F(MfibResolution, aPacketThatThePacketPathDropsCountsAsTakenButNotAsForwarded) {
  hold(group(1), 2);
  addRoute({.source = kSource, .group = group(1), .iif = "Ethernet0", .oifRegister = true});
  auto [result, out] = resolve();
  EXPECT_TRUE(out.empty());
  expectBusyWithout(result);
  EXPECT_EQ(fate(Fate::kReinjected), 2U);
  EXPECT_EQ(fate(Fate::kDropNoOifs), 2U);
  EXPECT_EQ(cache().packetCount(), 0U) << "resolved, so the expiry of the run frees them";
  EXPECT_EQ(fate(Fate::kDropExpired), 0U);
}

// What was dropped takes a place of the run's burst too.
TEST_F(MfibResolution, aRunTakesNoFurtherKeyOnceABurstMightOverflow) {
  struct Case {
    uint32_t limit;
    unsigned keys;
    unsigned perKey;
    unsigned firstRun;
    bool forwarded;
  };
  const Case cases[] = {
      {3, 40, 1, 29, true},  // stops at 29 taken
      {3, 12, 3, 30, true},  // at 27 taken there is room for one key more
      {3, 40, 1, 29, false}, {31, 2, 1, 1, true},  {31, 1, 31, 31, true},
      {16, 3, 16, 16, true}, {1, 40, 1, 31, true},
  };
  unsigned n = 0;
  for (const Case& c : cases) {
    cache().maxUnresolvedPktBuffers_ = c.limit;
    const uint64_t before = fate(Fate::kReinjected);
    for (unsigned i = 0; i < c.keys; ++i) {
      const std::string to = group(++n);
      hold(to, c.perKey);
      addRoute({.source = kSource,
                .group = to,
                .iif = "Ethernet0",
                .oifs = c.forwarded ? std::vector<Oif>{{"Ethernet1", 1}} : std::vector<Oif>{},
                .oifRegister = !c.forwarded});
    }
    auto [result, out] = resolve();
    EXPECT_EQ(fate(Fate::kReinjected) - before, c.firstRun) << c.limit << "/" << c.perKey;
    EXPECT_EQ(result.packets, c.forwarded ? c.firstRun : 0U);
    EXPECT_EQ(out.total(), c.forwarded ? c.firstRun : 0U);
    while (!cache().resolvedQueueEmpty()) {
      resolve();
    }
    EXPECT_EQ(fate(Fate::kReinjected) - before, c.keys * c.perKey) << "later runs go on";
    EXPECT_EQ(cache().packetCount(), 0U);
  }
}

TEST_F(MfibResolution, aRunTakesNoKeyWhenOnesPacketsMightNotFitABurst) {
  for (const uint32_t limit : {32U, 1000U, 0xffffffffU}) {
    cache().maxUnresolvedPktBuffers_ = limit;
    hold(group(limit % 1000));
    route(group(limit % 1000));
    expectIdle(resolve().first);
    EXPECT_FALSE(cache().resolvedQueueEmpty());
    ManualClock::advance(seconds(11));
    expectBusyWithout(resolve().first);
    EXPECT_FALSE(cache().resolvedQueueEmpty()) << "the key stays queued";
    cache().maxUnresolvedPktBuffers_ = 3;
    expectIdle(resolve().first);
    EXPECT_TRUE(cache().resolvedQueueEmpty());
  }
}

TEST_F(MfibResolution, aKeyWithMorePacketsThanABurstIsFinishedInALaterRun) {
  cache().maxUnresolvedPktBuffers_ = 70;
  hold(group(1), 70);
  hold(group(2), 1);
  route(group(2));
  route(group(1));
  cache().maxUnresolvedPktBuffers_ = 3;
  for (const unsigned expected : {1U + 31U, 32U, 7U}) {
    auto [result, out] = resolve();
    EXPECT_EQ(result.packets, expected);
    EXPECT_EQ(out.count(1), expected);
  }
  EXPECT_EQ(cache().packetCount(), 0U);
  expectIdle(resolve().first);
}

TEST_F(MfibResolution, keysWithoutARouteOrWithoutPacketsAreSkipped) {
  hold(group(1));
  hold(group(2));
  hold(group(3));
  for (unsigned n = 1; n <= 3; ++n) {
    route(group(n));
  }
  deleteRoute(kSource, group(2));
  // The first key's packet goes before its turn comes.
  NoCachePacketManager& held = cache();
  UnresolvedPacket* packet = nullptr;
  bool more = false;
  ASSERT_EQ(held.takeEligible(key(kSource, group(1)), id("Ethernet0"), &packet, 1, more), 1U);
  held.settle(packet, true, true);
  held.expirePacketsFromCache();
  auto [result, out] = resolve();
  EXPECT_EQ(result.packets, 1U);
  EXPECT_EQ(out.count(1), 1U);
  EXPECT_TRUE(held.resolvedQueueEmpty());
  EXPECT_EQ(held.packetCount(), 2U);
}

TEST_F(MfibResolution, aDryPoolEndsAKeyButNotTheRun) {
  // The first key's packet needs two buffers, the second's one, and one is left.
  hold(group(2));
  EXPECT_TRUE(
      receive(frame(group(1), 2500), Arrival{.intf = "Ethernet0", .segments = {1500}}).empty());
  route(group(1));
  route(group(2));
  std::vector<bess::PacketPtr> all;
  while (bess::Packet* taken = bess::PacketPool::defaultPool()->alloc()) {
    all.emplace_back(taken);
  }
  all.pop_back();
  auto [result, out] = resolve();
  EXPECT_FALSE(result.block);
  EXPECT_EQ(result.packets, 1U);
  EXPECT_EQ(out.count(1), 1U);
  EXPECT_EQ(fate(Fate::kReinjected), 1U);
  EXPECT_TRUE(cache().resolvedQueueEmpty()) << "the key is not queued again by itself";
  EXPECT_EQ(cache().packetCount(), 1U);

  out = {};
  all.clear();
  expectIdle(resolve().first);
  route(group(1));
  EXPECT_EQ(resolve().first.packets, 1U) << "queued again, it goes on as it was";
}

TEST_F(MfibResolution, aDryPoolAloneCountsAsWork) {
  hold(group(1));
  route(group(1));
  std::vector<bess::PacketPtr> all;
  while (bess::Packet* taken = bess::PacketPool::defaultPool()->alloc()) {
    all.emplace_back(taken);
  }
  expectBusyWithout(resolve().first);
  EXPECT_EQ(cache().packetCount(), 1U);
}

}  // namespace
}  // namespace SfeModules
