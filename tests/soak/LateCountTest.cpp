// A worker that was held up between reading a counter and writing it back undoes what another
// counted meanwhile. When a publication came in between, the record keeps what it has.
#include <gtest/gtest.h>
#include <urcu-qsbr.h>

#include <latch>
#include <memory>
#include <string>
#include <thread>

#include "Base/RcuAnnotate.h"
#include "Bess/Testing/ModuleHarness.h"
#include "Sfe/Counters/Counters.h"
#include "SfeModules/CounterEntries.h"
#include "SfeModules/Testing/MfibFixture.h"
#include "tests/soak/Isolation.h"

namespace soak {
namespace {

using SfeModules::MfibTestPeer;

constexpr uint32_t kCounted = 100;

// Puts `stale` into an entry after it was published and before the publisher's grace period ends.
template <class Table, class Key, class Write>
void publishAround(Table& table, const Key& key, Write stale) {
  std::latch found(1);
  std::thread worker([&] {
    urcu_qsbr_register_thread();
    auto& entry = SfeModules::countingEntry(table, key);
    found.count_down();
    while (table.contains(key)) {
      std::this_thread::yield();  // unlinked: the counts have been read
    }
    stale(entry);
    SFE_RCU_QUIESCENT();
    urcu_qsbr_unregister_thread();
  });
  found.wait();
  SfeModules::publishCountersNow();
  {
    const ScopedOffline offline;
    worker.join();
  }
}

class LateCount : public ::testing::Test {
 protected:
  LateCount() {
    sfe::pb::MfibArg arg;
    arg.set_vrfname("default");
    arg.set_af(1);
    mfib_ = &harness_.create<SfeModules::Mfib>("Mfib", arg);
  }

  bess::testing::ModuleHarness harness_;
  SfeModules::Mfib* mfib_ = nullptr;
};

TEST_F(LateCount, takesNothingBackFromAnIntf) {
  const auto intf = Nynet::IntfId::fromName("Ethernet1");
  auto& table = MfibTestPeer::intfCounters(*mfib_);
  auto& entry = SfeModules::countingEntry(table, intf.value());
  entry.pktsIn = kCounted;
  entry.pktsQueued = 2;
  publishAround(table, intf.value(), [](auto& late) {
    late.pktsIn = 1;
    late.pktsOut = 3;     // what was counted late is added
    late.pktsQueued = 1;  // one left: this one does go down
  });
  const auto record = MfibTestPeer::sharedIntfs(*mfib_)->intf(intf);
  EXPECT_EQ(record.pktsIn(), kCounted);
  EXPECT_EQ(record.pktsOut(), 3U);
  EXPECT_EQ(record.pktsQueued(), 1U);
}

TEST_F(LateCount, takesNothingBackFromARoute) {
  const uint8_t source[] = {10, 0, 0, 2};
  const uint8_t group[] = {239, 1, 1, 1};
  const auto key = SfeModules::MfibKey::of(source, group, sizeof(source));
  auto& table = MfibTestPeer::mrouteCounters(*mfib_);
  auto& entry = SfeModules::countingEntry(table, key);
  entry.bytesIn = kCounted;
  entry.pktsQueued = 2;
  publishAround(table, key, [](auto& late) {
    late.bytesIn = 1;
    late.wrongVif = 3;
    late.pktsQueued = 1;
  });
  const auto record = MfibTestPeer::sharedRoutes(*mfib_)->mroute(SfeModules::ipGenRouteKey(1, key));
  EXPECT_EQ(record.bytesIn(), kCounted);
  EXPECT_EQ(record.wrongVif(), 3U);
  EXPECT_EQ(record.pktsQueued(), 1U);
}

}  // namespace
}  // namespace soak
