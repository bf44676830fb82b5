// Counter entries, their publication into shared memory, and event counters by name.
#include <gtest/gtest.h>
#include <urcu-qsbr.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "Base/RcuAnnotate.h"
#include "SfeModules/Testing/DamagedRecord.h"
#include "SfeModules/Testing/LogLines.h"
#include "SfeModules/Testing/MfibFixture.h"
#include "SfeModules/Testing/PacketBuilder.h"

namespace SfeModules {
namespace {

using Sfe::Multicast::IntfCounter;
using Sfe::Multicast::IntfCounterTable;
using Sfe::Multicast::MrouteCounter;
using Sfe::Multicast::MrouteCounterTable;
using std::chrono::seconds;

constexpr const char* kSource = "10.0.0.2";
constexpr const char* kGroup = "239.1.1.1";
constexpr uint32_t kSharedRecords = 60000;

std::vector<uint64_t> counts(const IntfCounter& record) {
  return {record.pktsIn(),   record.pktsOut(),    record.bytesIn(),
          record.bytesOut(), record.pktsQueued(), record.pktsDropped()};
}
std::vector<uint64_t> counts(const MrouteCounter& record) {
  return {record.pktsIn(), record.bytesIn(), record.wrongVif(), record.pktsQueued(),
          record.pktsDropped()};
}

class MfibCounters : public MfibFixture {
 protected:
  MfibCounters() { createInstance(); }

  void publish() {
    updatePellIntfCounters(mfib_);
    updatePellMrouteCounters(mfib_);
  }

  IntfCounterTable& sharedIntfs() { return *MfibTestPeer::sharedIntfs(*mfib_); }
  MrouteCounterTable& sharedRoutes() { return *MfibTestPeer::sharedRoutes(*mfib_); }
  IntfCounter sharedIntf(const std::string& intf) {
    return sharedIntfs().intf(Nynet::IntfId(id(intf)));
  }
  MrouteCounter sharedRoute(const std::string& group = kGroup) {
    return sharedRoutes().mroute(routeKey(group));
  }
  Routing::Multicast::Fib::IpGenRouteKey routeKey(const std::string& group = kGroup) {
    return ipGenRouteKey(kAfIpv4, key(kSource, group));
  }

  std::shared_ptr<IntfCounterEntry> local(const std::string& intf) {
    return mfib_->forceLookupIntfCtrUpdates(id(intf));
  }
  std::shared_ptr<MrouteCounterEntry> localRoute(const std::string& group = kGroup) {
    return mfib_->forceLookupMrtCtrUpdates(key(kSource, group));
  }

  static Bytes frame() {
    return frames::etherFrame(frames::groupMac(kGroup), "02:00:00:00:00:01", frames::kEtherTypeIpv4,
                              frames::ipPacket(frames::Ip{.source = kSource, .group = kGroup}));
  }
};

TEST_F(MfibCounters, entriesAreMadeOnceAndStartAtZero) {
  const auto intf = local("Ethernet0");
  const auto route = localRoute();
  EXPECT_EQ(intf->counts(), (std::array<uint32_t, 6>{}));
  EXPECT_EQ(intf->state, kCounterNew);
  EXPECT_EQ(route->counts(), (std::array<uint32_t, 5>{}));
  EXPECT_EQ(route->state, kCounterNew);
  EXPECT_EQ(local("Ethernet0"), intf);
  EXPECT_EQ(localRoute(), route);
}

TEST_F(MfibCounters, recordsOfAKeyStartAtZero) {
  const Nynet::IntfId intf(id("Ethernet0"));
  EXPECT_EQ(intfCounter(intf).intfId(), intf);
  EXPECT_EQ(counts(intfCounter(intf)), std::vector<uint64_t>(6));
  EXPECT_EQ(mrouteCounter(routeKey()).key(), routeKey());
  EXPECT_EQ(counts(mrouteCounter(routeKey())), std::vector<uint64_t>(5));
}

TEST_F(MfibCounters, publicationAddsEachCountAndEmptiesTheLocalTables) {
  for (uint64_t round = 1; round <= 2; ++round) {
    const auto intf = local("Ethernet0");
    intf->pktsIn = 1;
    intf->pktsOut = 2;
    intf->bytesIn = 3;
    intf->bytesOut = 4;
    intf->pktsQueued = 5;
    intf->pktsDropped = 6;
    const auto route = localRoute();
    route->pktsIn = 1;
    route->bytesIn = 2;
    route->wrongVif = 3;
    route->pktsQueued = 4;
    route->pktsDropped = 5;
    publish();
    const uint64_t r = round;
    EXPECT_EQ(counts(sharedIntf("Ethernet0")),
              (std::vector<uint64_t>{r, 2 * r, 3 * r, 4 * r, 5 * r, 6 * r}));
    EXPECT_EQ(counts(sharedRoute()), (std::vector<uint64_t>{r, 2 * r, 3 * r, 4 * r, 5 * r}));
    EXPECT_EQ(MfibTestPeer::intfCounters(*mfib_).size(), 0U);
    EXPECT_EQ(MfibTestPeer::mrouteCounters(*mfib_).size(), 0U);
  }
}

TEST_F(MfibCounters, publicationWithoutTrafficChangesNothing) {
  enable({"Ethernet0"});
  addRoute({.source = kSource, .group = kGroup, .iif = "Ethernet0", .oifs = {{"Ethernet1"}}});
  receive(frame(), "Ethernet0");
  publish();
  const IntfCounter intf = sharedIntf("Ethernet0");
  const MrouteCounter route = sharedRoute();
  EXPECT_EQ(intf.pktsIn(), 1U);
  publish();
  EXPECT_EQ(sharedIntf("Ethernet0"), intf);
  EXPECT_EQ(sharedRoute(), route);
}

TEST_F(MfibCounters, publicationAddsExactlyTheTrafficOfItsInterval) {
  enable({"Ethernet0"});
  addRoute({.source = kSource, .group = kGroup, .iif = "Ethernet0", .oifs = {{"Ethernet1"}}});
  uint64_t total = 0;
  for (const unsigned packets : {3U, 0U, 5U}) {
    for (unsigned i = 0; i < packets; ++i) {
      receive(frame(), "Ethernet0");
    }
    total += packets;
    publish();
    EXPECT_EQ(sharedRoute().pktsIn(), total);
    EXPECT_EQ(sharedRoute().bytesIn(), total * frame().size());
    EXPECT_EQ(sharedIntf("Ethernet0").pktsIn(), total);
    EXPECT_EQ(sharedIntf("Ethernet0").bytesIn(), total * frame().size());
    EXPECT_EQ(sharedIntf("Ethernet1").pktsOut(), total);
    EXPECT_EQ(sharedIntf("Ethernet1").bytesOut(), total * frame().size());
  }
}

TEST_F(MfibCounters, heldAndFreedAddUpToZeroAcrossPublications) {
  enable({"Ethernet0"});
  addRoute({.source = kSource, .group = kGroup, .iif = "Ethernet5"});
  deleteRoute(kSource, kGroup);
  for (int i = 0; i < 3; ++i) {
    receive(frame(), "Ethernet0");
  }
  publish();
  EXPECT_EQ(sharedIntf("Ethernet0").pktsQueued(), 3U);
  EXPECT_EQ(sharedRoute().pktsQueued(), 3U);
  // A route keeps its counters when the last packet goes; none is forwarded by it.
  addRoute({.source = kSource, .group = kGroup, .iif = "Ethernet5"});
  ManualClock::advance(seconds(11));
  MfibTestPeer::cache(*mfib_)->expirePacketsFromCache();
  EXPECT_EQ(local("Ethernet0")->pktsQueued, static_cast<uint32_t>(-3));
  publish();
  EXPECT_EQ(sharedIntf("Ethernet0").pktsQueued(), 0U);
  EXPECT_EQ(sharedRoute().pktsQueued(), 0U);
  EXPECT_EQ(sharedIntf("Ethernet0").pktsDropped(), 3U);
  EXPECT_EQ(sharedRoute().pktsDropped(), 3U);
}

TEST_F(MfibCounters, onlyTheChangeOfHeldPacketsIsWidenedWithItsSign) {
  constexpr uint32_t kLarge = 0x80000001;
  const auto intf = local("Ethernet0");
  for (Counter32* counter : {&intf->pktsIn, &intf->pktsOut, &intf->bytesIn, &intf->bytesOut,
                             &intf->pktsQueued, &intf->pktsDropped}) {
    *counter = kLarge;
  }
  const auto route = localRoute();
  for (Counter32* counter : {&route->pktsIn, &route->bytesIn, &route->wrongVif, &route->pktsQueued,
                             &route->pktsDropped}) {
    *counter = kLarge;
  }
  publish();
  const uint64_t negative = 0xffffffff80000001;
  EXPECT_EQ(counts(sharedIntf("Ethernet0")),
            (std::vector<uint64_t>{kLarge, kLarge, kLarge, kLarge, negative, kLarge}));
  EXPECT_EQ(counts(sharedRoute()),
            (std::vector<uint64_t>{kLarge, kLarge, kLarge, negative, kLarge}));
}

TEST_F(MfibCounters, aWithdrawnEntryDeletesItsRecordUntilItIsRevived) {
  local("Ethernet0")->state = kCounterWithdrawn;
  localRoute()->state = kCounterWithdrawn;
  for (int i = 0; i < 2; ++i) {
    IntfCounter intf(Nynet::IntfId(id("Ethernet0")));
    intf.pktsInInc(100);
    sharedIntfs().intfIs(intf);
    MrouteCounter route(routeKey());
    route.pktsInInc(100);
    sharedRoutes().mrouteIs(route);
    publish();
    EXPECT_EQ(sharedIntf("Ethernet0"), IntfCounter{});
    EXPECT_EQ(sharedRoute(), MrouteCounter{});
    EXPECT_EQ(local("Ethernet0")->state, kCounterWithdrawn) << "the entry stays";
    EXPECT_EQ(localRoute()->state, kCounterWithdrawn);
  }
}

TEST_F(MfibCounters, aRevivedEntryStartsItsRecordFromZero) {
  enable({"Ethernet0"});
  addRoute({.source = kSource, .group = kGroup, .iif = "Ethernet0", .oifs = {{"Ethernet1"}}});
  local("Ethernet0")->state = kCounterWithdrawn;
  local("Ethernet1")->state = kCounterWithdrawn;
  localRoute()->state = kCounterWithdrawn;
  IntfCounter intf(Nynet::IntfId(id("Ethernet0")));
  intf.pktsInInc(100);
  sharedIntfs().intfIs(intf);
  MrouteCounter route(routeKey());
  route.pktsInInc(100);
  sharedRoutes().mrouteIs(route);
  receive(frame(), "Ethernet0");
  EXPECT_EQ(local("Ethernet0")->state, kCounterRevived);
  EXPECT_EQ(local("Ethernet1")->state, kCounterRevived);
  EXPECT_EQ(localRoute()->state, kCounterRevived);
  publish();
  EXPECT_EQ(sharedIntf("Ethernet0").pktsIn(), 1U);
  EXPECT_EQ(sharedIntf("Ethernet1").pktsOut(), 1U);
  EXPECT_EQ(sharedRoute().pktsIn(), 1U);
  receive(frame(), "Ethernet0");
  publish();
  EXPECT_EQ(sharedIntf("Ethernet0").pktsIn(), 2U) << "and then goes on";
  EXPECT_EQ(sharedRoute().pktsIn(), 2U);
}

TEST_F(MfibCounters, theLastHeldPacketOfADeletedInterfaceTakesTheRecordsWithIt) {
  enable({"Ethernet0"});
  receive(frame(), "Ethernet0");
  publish();
  EXPECT_EQ(sharedIntf("Ethernet0").pktsQueued(), 1U);
  disable({"Ethernet0"});
  EXPECT_EQ(sharedIntf("Ethernet0").pktsQueued(), 1U) << "a packet is still held";
  ManualClock::advance(seconds(11));
  MfibTestPeer::cache(*mfib_)->expirePacketsFromCache();
  publish();
  EXPECT_EQ(sharedIntf("Ethernet0"), IntfCounter{});
  EXPECT_EQ(sharedRoute(), MrouteCounter{});
}

TEST_F(MfibCounters, aDamagedRecordIsReportedAndStartsAgain) {
  const auto vrf = L3::VrfName::defaultVrf();
  local("Ethernet0")->pktsIn = 5;
  localRoute()->pktsIn = 5;
  publish();
  damageRecord<IntfCounter>(IntfCounterTable::mountPath(Nynet::AddressFamily::kIpv4, vrf),
                            Nynet::IntfId(id("Ethernet0")));
  damageRecord<MrouteCounter>(MrouteCounterTable::mountPath(Nynet::AddressFamily::kIpv4, vrf),
                              routeKey());
  local("Ethernet0")->pktsIn = 2;
  localRoute()->pktsIn = 3;
  const uint64_t before = sharedIntfs().corruptions() + sharedRoutes().corruptions();
  publish();
  EXPECT_EQ(sharedIntfs().corruptions() + sharedRoutes().corruptions(), before + 2);
  EXPECT_EQ(sharedIntf("Ethernet0").pktsIn(), 2U);
  EXPECT_EQ(sharedRoute().pktsIn(), 3U);
}

TEST_F(MfibCounters, publicationOfNothingDoesNothing) {
  updatePellIntfCounters(nullptr);
  updatePellMrouteCounters(nullptr);
  std::unique_ptr<Module> module(Mfib::create());
  updatePellIntfCounters(module.get());
  updatePellMrouteCounters(module.get());
  module->DeInit();
  updatePellIntfCounters(module.get());
  updatePellMrouteCounters(module.get());
}

TEST_F(MfibCounters, ipv6RoutesArePublishedUnderTheirWholeAddresses) {
  const std::string source = "2001:db8::2";
  const std::string group = "ff3e::8000:1";
  for (const uint32_t af : {2U, 10U}) {
    destroyInstance();
    createInstance({.af = af});
    const MfibKey local = key(source, group);
    mfib_->forceLookupMrtCtrUpdates(local)->pktsIn = 7;
    publish();
    const auto shared = ipGenRouteKey(af, local);
    EXPECT_EQ(shared.stringValue(), "(2001:db8::2/128,ff3e::8000:1/128)");
    EXPECT_EQ(sharedRoutes().mroute(shared).pktsIn(), 7U);
  }
}

// Acts as a worker that found an entry before it was published and still counts into it.
class LateWorker {
 public:
  // `inTable` tells whether the entry is still to be found; `count` counts into the one held.
  LateWorker(std::function<void()> find, std::function<bool()> inTable, std::function<void()> count)
      : thread_([this, find, inTable, count] {
          urcu_qsbr_register_thread();
          find();
          found_.store(true);
          while (inTable()) {
            std::this_thread::yield();
          }
          count();
          SFE_RCU_QUIESCENT();
          urcu_qsbr_unregister_thread();
        }) {
    while (!found_.load()) {
      std::this_thread::yield();
    }
  }
  ~LateWorker() {
    urcu_qsbr_thread_offline();
    thread_.join();
    urcu_qsbr_thread_online();
  }
  LateWorker(const LateWorker&) = delete;
  LateWorker& operator=(const LateWorker&) = delete;

 private:
  std::atomic<bool> found_{false};
  std::thread thread_;
};

TEST_F(MfibCounters, whatAWorkerCountsWhileAnEntryIsPublishedIsAddedToo) {
  local("Ethernet0")->pktsIn = 10;
  local("Ethernet0")->pktsQueued = 2;
  const uint64_t intf = id("Ethernet0");
  IntfCounterEntry* held = nullptr;
  auto& table = MfibTestPeer::intfCounters(*mfib_);
  {
    LateWorker worker([&] { held = table.find(intf)->get(); }, [&] { return table.contains(intf); },
                      [&] {
                        held->pktsIn += 1;
                        held->pktsQueued += static_cast<uint32_t>(-1);
                      });
    updatePellIntfCounters(mfib_);
  }
  EXPECT_EQ(sharedIntf("Ethernet0").pktsIn(), 11U);
  EXPECT_EQ(sharedIntf("Ethernet0").pktsQueued(), 1U);

  localRoute()->bytesIn = 10;
  MrouteCounterEntry* heldRoute = nullptr;
  auto& routes = MfibTestPeer::mrouteCounters(*mfib_);
  {
    LateWorker worker([&] { heldRoute = routes.find(key(kSource, kGroup))->get(); },
                      [&] { return routes.contains(key(kSource, kGroup)); },
                      [&] { heldRoute->bytesIn += 5; });
    updatePellMrouteCounters(mfib_);
  }
  EXPECT_EQ(sharedRoute().bytesIn(), 15U);
}

TEST_F(MfibCounters, aWorkerThatSetsAPublishedEntryBackTakesNothingAway) {
  local("Ethernet0")->pktsIn = 10;
  const uint64_t intf = id("Ethernet0");
  IntfCounterEntry* held = nullptr;
  auto& table = MfibTestPeer::intfCounters(*mfib_);
  {
    LateWorker worker([&] { held = table.find(intf)->get(); }, [&] { return table.contains(intf); },
                      [&] {
                        held->pktsIn = 4;  // a lost update of two workers
                        held->bytesIn += 3;
                      });
    updatePellIntfCounters(mfib_);
  }
  EXPECT_EQ(sharedIntf("Ethernet0").pktsIn(), 10U);
  EXPECT_EQ(sharedIntf("Ethernet0").bytesIn(), 3U);
}

TEST_F(MfibCounters, anEntryThatIsWithdrawnWhileItIsPublishedDeletesItsRecord) {
  local("Ethernet0")->pktsIn = 10;
  const uint64_t intf = id("Ethernet0");
  IntfCounterEntry* held = nullptr;
  auto& table = MfibTestPeer::intfCounters(*mfib_);
  {
    LateWorker worker([&] { held = table.find(intf)->get(); }, [&] { return table.contains(intf); },
                      [&] { held->state = kCounterWithdrawn; });
    updatePellIntfCounters(mfib_);
  }
  EXPECT_EQ(sharedIntf("Ethernet0"), IntfCounter{});
}

TEST_F(MfibCounters, theCountersLibraryPublishesForEveryInstance) {
  local("Ethernet0")->pktsIn = 5;
  localRoute()->pktsIn = 6;
  publishCountersNow();
  EXPECT_EQ(sharedIntf("Ethernet0").pktsIn(), 5U);
  EXPECT_EQ(sharedRoute().pktsIn(), 6U);
}

// --- A full shared table --------------------------------------------------------------------

TEST_F(MfibCounters, aRouteBeyondTheLastSharedRecordIsProgrammedAllTheSame) {
  for (uint32_t n = 0; n < kSharedRecords; ++n) {
    sharedRoutes().mrouteIs(MrouteCounter(Sfe::Multicast::Testing::routeKey(n + 0x10000)));
  }
  ASSERT_EQ(sharedRoutes().size(), kSharedRecords);
  const LogLines log;
  for (const char* group : {"239.9.9.1", "239.9.9.2"}) {
    EXPECT_FALSE(
        addRoute({.source = kSource, .group = group, .iif = "Ethernet0", .oifs = {{"Ethernet1"}}})
            .has_error());
    EXPECT_TRUE(MfibTestPeer::routes(*mfib_).contains(key(kSource, group)));
  }
  EXPECT_EQ(sharedRoutes().size(), kSharedRecords);
  EXPECT_EQ(sharedRoutes().overflows(), 2U);
  EXPECT_EQ(log.with("is full with 60000 records"), 1U);
  localRoute("239.9.9.1")->pktsIn = 5;
  publish();
  EXPECT_EQ(sharedRoutes().overflows(), 3U);
  EXPECT_EQ(sharedRoute("239.9.9.1"), MrouteCounter{});
  EXPECT_EQ(log.with("is full with 60000 records"), 1U);
  const auto some = Sfe::Multicast::Testing::routeKey(0x10000 + kSharedRecords / 2);
  EXPECT_EQ(sharedRoutes().mroute(some).key(), some) << "the others are unharmed";
}

TEST_F(MfibCounters, anInterfaceBeyondTheLastSharedRecordIsEnabledAllTheSame) {
  for (uint32_t n = 0; n < kSharedRecords; ++n) {
    sharedIntfs().intfIs(IntfCounter(Sfe::Multicast::Testing::intfId(n + 100000)));
  }
  const LogLines log;
  enable({"Ethernet0", "Ethernet1"});
  EXPECT_TRUE(MfibTestPeer::intfSet(*mfib_).contains(id("Ethernet0")));
  EXPECT_TRUE(MfibTestPeer::intfSet(*mfib_).contains(id("Ethernet1")));
  EXPECT_EQ(sharedIntfs().size(), kSharedRecords);
  EXPECT_EQ(sharedIntfs().overflows(), 2U);
  EXPECT_EQ(log.with("is full with 60000 records"), 1U);
}

// --- Event counters by name -----------------------------------------------------------------

// Where the fixture lets event n, 1 .. 6, be counted.
std::atomic<uint64_t>& eventSlot(int wid, unsigned n) {
  return bessCounterRow(wid)[counterId("test.event" + std::to_string(n))];
}

const char* const kEventNames[] = {
    "nonMcastIIFMessagesCounter_",     "wrongVifMessagesCounter_",
    "wholePktMessagesCounter_",        "noCacheMessagesCounter_",
    "noCacheMessagesResolvedCounter_", "noCacheMessagesExpiredCounter_"};

TEST_F(MfibCounters, readsEachEventCounterByItsName) {
  for (uint32_t i = 0; i < 6; ++i) {
    eventSlot(harness_.wid(), i + 1) = 100 + i;
    EXPECT_EQ(mfib_->getCounter(&harness_.context(), kEventNames[i]), static_cast<int>(100 + i));
  }
  for (const char* unknown : {"", "noCacheMessagesCounter", "NoCacheMessagesCounter_"}) {
    EXPECT_EQ(mfib_->getCounter(&harness_.context(), unknown), -1) << unknown;
  }
}

TEST_F(MfibCounters, neverCountsResolvedAndExpiredMessages) {
  enable({"Ethernet0"});
  receive(frame(), "Ethernet0");
  ManualClock::advance(seconds(11));
  MfibTestPeer::cache(*mfib_)->expirePacketsFromCache();
  receive(frame(), "Ethernet0");
  addRoute({.source = kSource, .group = kGroup, .iif = "Ethernet0", .oifs = {{"Ethernet1"}}});
  sfe::pb::MfibTaskIdArg answer;
  ASSERT_TRUE(mfib_->regMfibTasks({}).data().UnpackTo(&answer));
  EXPECT_EQ(harness_.runTask(*mfib_, answer.task_id()).second.count(1), 1U);
  EXPECT_EQ(mfib_->getCounter(&harness_.context(), "noCacheMessagesCounter_"), 2);
  EXPECT_EQ(mfib_->getCounter(&harness_.context(), "noCacheMessagesResolvedCounter_"), 0);
  EXPECT_EQ(mfib_->getCounter(&harness_.context(), "noCacheMessagesExpiredCounter_"), 0);
}

TEST_F(MfibCounters, readsALargeEventCounterAsANegativeNumber) {
  eventSlot(harness_.wid(), 4) = 0x80000000;
  EXPECT_EQ(mfib_->getCounter(&harness_.context(), "noCacheMessagesCounter_"),
            std::numeric_limits<int>::min());
  eventSlot(harness_.wid(), 4) = 0x500000003;
  EXPECT_EQ(mfib_->getCounter(&harness_.context(), "noCacheMessagesCounter_"), 3);
}

TEST_F(MfibCounters, readsTheRowOfTheContextsWorkerAndZeroWithoutOne) {
  createCounterRow(5);
  eventSlot(5, 4) = 55;
  Context other{.task = &harness_.task()};
  other.wid = 5;
  EXPECT_EQ(mfib_->getCounter(&other, "noCacheMessagesCounter_"), 55);
  EXPECT_EQ(mfib_->getCounter(&harness_.context(), "noCacheMessagesCounter_"), 0);
  eventSlot(5, 4) = 0;
  destroyCounterRow(5);
  EXPECT_EQ(mfib_->getCounter(&other, "noCacheMessagesCounter_"), 0);
  EXPECT_EQ(mfib_->getCounter(&other, "unknown"), -1);
}

}  // namespace
}  // namespace SfeModules
