// The multicast module is destroyed and made again while its source sends on.
//
// SFE_SOAK_REBUILDS: how often; by default 20.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "Bess/PacketPool.h"
#include "Bess/Worker.h"
#include "Sfe/Counters/Counters.h"
#include "SfeModules/Testing/MfibFixture.h"
#include "tests/soak/Isolation.h"
#include "tests/soak/Router.h"

namespace soak {
namespace {

using SfeModules::Fate;

constexpr unsigned kRounds = 20;
constexpr int kChanges = 40;
constexpr uint64_t kPacketsPerChange = 64;
constexpr std::chrono::milliseconds kPublishPeriod(2);

// What went through the instances that are gone.
struct Totals {
  uint64_t in = 0;
  uint64_t passed = 0;
  uint64_t left = 0;
  uint64_t held = 0;
};

// Cuts the module off and reads it, with no packet on its way.
void takeOut(Router& router, Totals& totals) {
  const ScopedWorkerPause pause;
  totals.in += router.tracked("mfib", false, 0);
  totals.passed += router.tracked("mfib", true, 0);
  totals.left += router.mfib().deadEnds();
  for (const unsigned gate : {1, 2, 3}) {
    totals.left += router.tracked("mfib", true, gate);
  }
  totals.held += SfeModules::MfibTestPeer::cache(router.mfib())->packetCount();
  router.disconnectGenerator();
  router.detachMfib();
}

TEST(Rebuild, losesNoPacketWhenTheModuleComesAndGoesUnderTraffic) {
  auto router = std::make_unique<Router>(RouterSettings{.af = 1, .workers = 2});
  const unsigned poolAtStart = bess::PacketPool::defaultPool()->inUse();
  SfeModules::startCounterPublisher(kPublishPeriod);
  router->generator().runningIs(true);
  Totals totals;
  const unsigned rounds = setting("SFE_SOAK_REBUILDS", kRounds);
  for (unsigned round = 0; round < rounds; ++round) {
    router->createMfib();
    router->connectGenerator();
    for (int change = 0; change < kChanges; ++change) {
      router->changeSomething();
      router->generator().awaitSent(kPacketsPerChange);
    }
    takeOut(*router, totals);
    router->destroyMfib();  // while the generator sends into the void
  }
  router->stopGenerator();
  SfeModules::stopCounterPublisher();

  const Router& r = *router;
  EXPECT_EQ(r.generator().poolDry(), 0U);
  EXPECT_EQ(totals.in + r.generator().deadEnds(), r.generator().sent());
  EXPECT_EQ(totals.in + r.fate(Fate::kReinjected),
            r.fate(Fate::kPassed) + r.fate(Fate::kForwarded) + r.fate(Fate::kHeld) + r.drops() -
                r.fate(Fate::kDropExpired));
  // A packet that was re-injected stays in the cache until the next expiry pass takes it out.
  const uint64_t gone = r.fate(Fate::kReinjected) + r.fate(Fate::kDropExpired);
  EXPECT_LE(r.fate(Fate::kHeld), gone + totals.held);
  EXPECT_GE(r.fate(Fate::kHeld), gone);
  EXPECT_EQ(totals.passed, r.fate(Fate::kPassed));
  EXPECT_EQ(totals.left, r.fate(Fate::kForwarded) + r.fate(Fate::kCopied));
  EXPECT_GT(totals.held, 0U);
  EXPECT_EQ(bess::PacketPool::defaultPool()->inUse(), poolAtStart);
}

}  // namespace
}  // namespace soak
