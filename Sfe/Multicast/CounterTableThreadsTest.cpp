// Two writers and readers in the counter tables at the same time.
#include <gtest/gtest.h>

#include <atomic>
#include <initializer_list>
#include <thread>

#include "Base/Bindle/Exceptions.h"
#include "Sfe/Multicast/CounterTableReader.h"
#include "Sfe/Multicast/TableTesting.h"

namespace Sfe::Multicast {
namespace {

using namespace Testing;

class CounterTableThreadsTest : public TableTest {
 protected:
  // Waits for threads without holding up their grace periods.
  static void joinOffline(std::initializer_list<std::thread*> threads) {
    SFE_RCU_QUIESCENT();
    urcu_qsbr_thread_offline();
    for (std::thread* thread : threads) {
      thread->join();
    }
    urcu_qsbr_thread_online();
  }

  // Two threads take `step(random number)` many times, at once.
  template <class Step>
  static void churn(Step step) {
    constexpr int kRounds = 20000;
    const auto run = [&step](uint64_t seed) {
      const RcuThread rcu;
      for (int round = 0; round < kRounds; ++round) {
        seed = seed * 6364136223846793005u + 1442695040888963407u;
        step(seed);
        rcu.quiescent();
      }
    };
    std::thread first(run, 1);
    std::thread second(run, 2);
    joinOffline({&first, &second});
  }
  // For a third of these numbers; their middle bits say which record.
  static bool deletes(uint64_t seed) { return (seed >> 60) % 3 == 0; }
};

// The publisher adds to its records while control makes and deletes others: no count is lost.
TEST_F(CounterTableThreadsTest, losesNoCountBesideAnotherWriter) {
  constexpr uint64_t kOwn = 20;
  constexpr uint64_t kRounds = 500;
  const auto table = mountTable<IntfCounterTable>(systemName_, 2 * kOwn);
  std::atomic<bool> done{false};
  std::thread control([&] {
    const RcuThread rcu;
    for (uint64_t n = 0; !done.load(); ++n) {
      table->intfIs(uniformRecord(intfId(kOwn + n % kOwn), n));
      table->intfDel(intfId(kOwn + (n + 7) % kOwn));
      rcu.quiescent();
    }
  });
  for (uint64_t round = 0; round < kRounds; ++round) {
    for (uint64_t n = 0; n < kOwn; ++n) {
      IntfCounter record = table->intf(intfId(n));
      record = record == IntfCounter() ? IntfCounter(intfId(n)) : record;
      record.pktsInInc(1);
      record.bytesOutInc(n);
      table->intfIs(record);
    }
    rcu_.quiescent();
  }
  done.store(true);
  joinOffline({&control});
  for (uint64_t n = 0; n < kOwn; ++n) {
    EXPECT_EQ(table->intf(intfId(n)).pktsIn(), kRounds);
    EXPECT_EQ(table->intf(intfId(n)).bytesOut(), kRounds * n);
  }
  EXPECT_EQ(table->overflows(), 0u);
  EXPECT_EQ(table->corruptions(), 0u);
}

// Both writers make, overwrite and delete the same few keys; slots are freed and used again all the
// time. Whoever looks finds whole records, of the key that was asked for.
TEST_F(CounterTableThreadsTest, neverMixesRecordsOfSlotsThatAreUsedAgain) {
  constexpr uint64_t kKeys = 6;
  const auto table = mountTable<IntfCounterTable>(systemName_, kKeys);
  std::atomic<uint64_t> mixtures{0};
  churn([&](uint64_t seed) {
    const Nynet::IntfId id = intfId((seed >> 33) % kKeys);
    if (deletes(seed)) {
      table->intfDel(id);
    } else {
      table->intfIs(uniformRecord(id, seed));
    }
    const IntfCounter seen = table->intf(id);
    if (!(seen == IntfCounter()) && (seen.intfId() != id || !isUniform(seen))) {
      mixtures.fetch_add(1);
    }
  });
  EXPECT_EQ(mixtures.load(), 0u);
  EXPECT_EQ(table->overflows(), 0u);
  EXPECT_EQ(table->corruptions(), 0u);
  uint64_t present = 0;
  for (uint64_t n = 0; n < kKeys; ++n) {
    present += table->intf(intfId(n)) == IntfCounter() ? 0 : 1;
  }
  EXPECT_EQ(table->size(), present);
  EXPECT_EQ(IntfCounterReader(systemName_, table->path()).snapshot().size(), present);
}

// More keys than slots: records are made, dropped and deleted by both.
TEST_F(CounterTableThreadsTest, makesNewRecordsInATableThatIsOftenFull) {
  constexpr uint32_t kSlots = 6;
  constexpr uint32_t kKeys = 8;
  const auto table = mountTable<MrouteCounterTable>(systemName_, kSlots);
  std::atomic<uint64_t> mixtures{0};
  churn([&](uint64_t seed) {
    const auto key = routeKey((seed >> 33) % kKeys);
    if (deletes(seed)) {
      table->mrouteDel(key);
    } else {
      table->mrouteNew(MrouteCounter(key));
    }
    const MrouteCounter seen = table->mroute(key);
    if (!(seen == MrouteCounter()) && seen != MrouteCounter(key)) {
      mixtures.fetch_add(1);
    }
  });
  EXPECT_EQ(mixtures.load(), 0u);
  EXPECT_GT(table->overflows(), 0u);
  EXPECT_EQ(table->corruptions(), 0u);
  uint64_t present = 0;
  for (uint32_t n = 0; n < kKeys; ++n) {
    present += table->mroute(routeKey(n)) == MrouteCounter() ? 0 : 1;
  }
  EXPECT_EQ(table->size(), present);
  EXPECT_LE(present, kSlots);
}

TEST_F(CounterTableThreadsTest, showsReadersWholeRecordsWhileTheyAreWritten) {
  constexpr uint64_t kKeys = 4;
  constexpr int kSnapshots = 300;
  const auto table = mountTable<IntfCounterTable>(systemName_, kKeys);
  std::atomic<bool> done{false};
  std::thread writer([&] {
    const RcuThread rcu;
    for (uint64_t value = 1; !done.load(); ++value) {
      table->intfIs(uniformRecord(intfId(value % kKeys), value));
      if (value % 16 == 0) {
        table->intfDel(intfId((value / 16) % kKeys));
      }
      rcu.quiescent();
    }
  });
  const IntfCounterReader reader(systemName_, table->path());
  for (int i = 0; i < kSnapshots; ++i) {
    for (const IntfCounter& record : reader.snapshot()) {
      ASSERT_TRUE(isUniform(record)) << record.pktsIn() << " and " << record.pktsDropped();
    }
  }
  done.store(true);
  joinOffline({&writer});
}

TEST_F(CounterTableThreadsTest, deletesAllWhileAnotherThreadWrites) {
  constexpr uint64_t kKeys = 32;
  const auto table = mountTable<IntfCounterTable>(systemName_, kKeys);
  std::thread writer([&] {
    const RcuThread rcu;
    for (uint64_t n = 0; n < 5000; ++n) {
      table->intfIs(uniformRecord(intfId(n % kKeys), n));
      rcu.quiescent();
    }
  });
  for (int i = 0; i < 200; ++i) {
    table->intfDelAll();
    rcu_.quiescent();
  }
  joinOffline({&writer});
  table->intfDelAll();
  EXPECT_EQ(table->size(), 0u);
  for (uint64_t n = 0; n < kKeys; ++n) {
    table->intfIs(uniformRecord(intfId(n), n));
  }
  EXPECT_EQ(table->size(), kKeys);
  EXPECT_EQ(table->corruptions(), 0u);
}

// A writer that is over and over inside a damaged record, and one that takes note of it.
TEST_F(CounterTableThreadsTest, survivesDamageWhileBothWrite) {
  constexpr uint64_t kKeys = 4;
  const auto table = mountTable<IntfCounterTable>(systemName_, kKeys);
  RawObject raw(systemName_, table->path());
  auto publish = [&](uint64_t rounds) {
    const RcuThread rcu;
    for (uint64_t n = 0; n < rounds; ++n) {
      const Nynet::IntfId id = intfId(n % kKeys);
      try {
        table->intf(id);
      } catch (const Bindle::CorruptionDetectedException& e) {
        table->doCorruptionDetected(e.what());
      }
      table->intfIs(uniformRecord(id, n));
      rcu.quiescent();
    }
  };
  std::thread first(publish, 3000);
  std::thread second(publish, 3000);
  for (size_t n = 0; n < 2000; ++n) {
    const size_t slots = raw.bytes().size() - kHeaderBytes;
    raw.flip(kHeaderBytes + (n * 7919) % slots, static_cast<uint8_t>(1 << (n % 8)));
  }
  joinOffline({&first, &second});
  std::thread third(publish, kKeys);
  joinOffline({&third});
  for (uint64_t n = 0; n < kKeys; ++n) {
    EXPECT_EQ(table->intf(intfId(n)), uniformRecord(intfId(n), n));
  }
  EXPECT_EQ(table->size(), kKeys);
}

}  // namespace
}  // namespace Sfe::Multicast
