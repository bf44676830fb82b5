#include "SfeModules/NyUrcuHt.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <latch>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <utility>
#include <vector>

namespace {

struct RouteKey {
  std::array<uint8_t, 16> source{};
  std::array<uint8_t, 16> group{};
};

using Times = NyRcuHt<uint64_t, std::chrono::system_clock::time_point>;
using Numbers = NyRcuHt<uint64_t, uint64_t>;

// Counts its own destruction.
struct Tracked {
  Tracked(int n, std::atomic<int>& count) : number(n), destroyed(count) {}
  ~Tracked() { ++destroyed; }
  int number;
  std::atomic<int>& destroyed;
};
using Shared = NyRcuHt<uint64_t, std::shared_ptr<Tracked>>;

// Returns when everything retired so far is freed.
void drain() {
  SFE_RCU_QUIESCENT();
  urcu_qsbr_barrier();
}

uint64_t valueOf(const Numbers& table, uint64_t key) {
  uint64_t value = 0;
  EXPECT_TRUE(table.lookup(key, value)) << key;
  return value;
}

TEST(NyUrcuHt, findsWhatWasInserted) {
  Numbers table(128, true);
  EXPECT_TRUE(table.insert(1, 10));
  EXPECT_TRUE(table.insert(2, 20));
  uint64_t value = 0;
  cds_lfht_iter iter;
  EXPECT_TRUE(table.lookup(2, value, iter));
  EXPECT_EQ(20U, value);
  EXPECT_EQ(1, Numbers::nyMatch(iter.node, std::array<uint64_t, 1>{2}.data()));
  EXPECT_EQ(0, Numbers::nyMatch(iter.node, std::array<uint64_t, 1>{1}.data()));
  EXPECT_EQ(10U, *table.find(1));
  EXPECT_TRUE(table.contains(1));
}

TEST(NyUrcuHt, keepsAValueThatIsThereAlready) {
  std::atomic<int> destroyed{0};
  Shared table;
  const auto* first = table.findOrInsert(1, std::make_shared<Tracked>(10, destroyed));
  EXPECT_EQ(10, (*first)->number);
  EXPECT_EQ(first, table.findOrInsert(1, std::make_shared<Tracked>(20, destroyed)));
  EXPECT_EQ(1, destroyed);
  EXPECT_EQ(10, (*table.find(1))->number);
  EXPECT_EQ(1U, table.size());
}

TEST(NyUrcuHt, givesThreadsThatInsertAtOnceTheSameValue) {
  constexpr uint64_t kKeys = 2000;
  Numbers table;
  std::array<std::vector<const uint64_t*>, 2> found;
  std::latch start(2);
  auto insertAll = [&](uint64_t thread) {
    urcu_qsbr_register_thread();
    start.arrive_and_wait();
    for (uint64_t key = 0; key < kKeys; ++key) {
      found.at(thread).push_back(table.findOrInsert(key, thread));
    }
    SFE_RCU_QUIESCENT();
    urcu_qsbr_unregister_thread();
  };
  std::thread other(insertAll, 1);
  std::thread one(insertAll, 0);
  other.join();
  one.join();
  EXPECT_EQ(found[0], found[1]);
  EXPECT_EQ(kKeys, table.size());
}

TEST(NyUrcuHt, leavesTheValueAloneWhenTheKeyIsAbsent) {
  Numbers table;
  uint64_t value = 7;
  cds_lfht_iter iter;
  EXPECT_FALSE(table.lookup(1, value, iter));
  EXPECT_EQ(7U, value);
  EXPECT_EQ(nullptr, iter.node);
  EXPECT_EQ(nullptr, table.find(1));
  EXPECT_FALSE(table.contains(1));
}

TEST(NyUrcuHt, tellsKeysApartByEveryByte) {
  NyRcuHt<RouteKey, int*> table;
  std::array<int, 33> values{};
  table.insert(RouteKey{}, values.data());
  for (size_t i = 0; i < 32; ++i) {
    RouteKey key;
    (i < 16 ? key.source[i] : key.group[i - 16]) = 1;
    EXPECT_FALSE(table.contains(key)) << i;
    EXPECT_TRUE(table.insert(key, &values[i + 1])) << i;
    EXPECT_EQ(&values[i + 1], *table.find(key)) << i;
  }
  EXPECT_EQ(33U, table.size());
}

TEST(NyUrcuHt, replacesLeavingOneEntry) {
  Numbers table;
  EXPECT_TRUE(table.insert(1, 10));
  EXPECT_FALSE(table.insert(1, 11));
  EXPECT_EQ(11U, valueOf(table, 1));
  EXPECT_EQ(1U, table.size());
}

TEST(NyUrcuHt, ignoresTheErasureOfAnAbsentKey) {
  Numbers table;
  table.insert(1, 10);
  EXPECT_FALSE(table.erase(2));
  EXPECT_TRUE(table.erase(1));
  EXPECT_FALSE(table.erase(1));
  EXPECT_EQ(0U, table.size());
}

// A reader finds an entry, the writer takes it away by `remove`, the reader looks again before its
// quiescent state; then the entry goes.
void expectKeptForReader(void (*remove)(Shared&)) {
  std::atomic<int> destroyed{0};
  Shared table;
  table.insert(1, std::make_shared<Tracked>(5, destroyed));
  std::latch found(1);
  std::latch removed(1);
  std::thread reader([&] {
    urcu_qsbr_register_thread();
    const std::shared_ptr<Tracked>* value = table.find(1);
    found.count_down();
    removed.wait();
    EXPECT_EQ(0, destroyed);
    EXPECT_EQ(5, (*value)->number);
    SFE_RCU_QUIESCENT();
    urcu_qsbr_unregister_thread();
  });
  found.wait();
  remove(table);
  removed.count_down();
  reader.join();
  drain();
  EXPECT_EQ(1, destroyed);
}

TEST(NyUrcuHt, keepsAnErasedValueForAReaderThatFoundIt) {
  expectKeptForReader([](Shared& table) { EXPECT_TRUE(table.erase(1)); });
}

TEST(NyUrcuHt, keepsAReplacedValueForAReaderThatFoundIt) {
  expectKeptForReader([](Shared& table) { EXPECT_FALSE(table.insert(1, nullptr)); });
}

TEST(NyUrcuHt, countsRetiredNodesUntilTheyAreFreed) {
  Numbers table(128, true);
  Numbers atOnce(128, false);
  for (Numbers* each : {&table, &atOnce}) {
    each->insert(1, 10);
    each->insert(2, 20);
  }
  drain();
  const RcuCallbacks::Counts before = RcuCallbacks::counts();
  EXPECT_EQ(0U, before.waiting());
  EXPECT_TRUE(table.erase(1));
  EXPECT_FALSE(table.insert(2, 21));
  EXPECT_FALSE(table.erase(1));
  // This thread is a reader that may still look at both.
  EXPECT_EQ(2U, RcuCallbacks::counts().waiting());
  drain();
  EXPECT_EQ(0U, RcuCallbacks::counts().waiting());
  EXPECT_TRUE(atOnce.erase(1));
  EXPECT_EQ(before.queued + 2, RcuCallbacks::counts().queued);
  EXPECT_EQ(before.run + 2, RcuCallbacks::counts().run);
}

TEST(NyUrcuHt, keepsAValueThatWasCopiedOut) {
  std::atomic<int> destroyed{0};
  Shared table;
  table.insert(1, std::make_shared<Tracked>(5, destroyed));
  std::shared_ptr<Tracked> copy;
  ASSERT_TRUE(table.lookup(1, copy));
  table.erase(1);
  drain();
  EXPECT_EQ(0, destroyed);
  copy.reset();
  EXPECT_EQ(1, destroyed);
}

TEST(NyUrcuHt, freesBeforeReturningWhenItIsNotDeferred) {
  std::atomic<int> destroyed{0};
  Shared table(128, false);
  table.insert(1, std::make_shared<Tracked>(1, destroyed));
  table.insert(1, std::make_shared<Tracked>(2, destroyed));
  EXPECT_EQ(1, destroyed);
  table.erase(1);
  EXPECT_EQ(2, destroyed);
}

TEST(NyUrcuHt, walksOverEveryEntryOnce) {
  Numbers table;
  std::set<uint64_t> expected;
  for (uint64_t key = 0; key < 1000; ++key) {
    table.insert(key, key * 3);
    expected.insert(key);
  }
  for (Numbers::NyRcuHtIterator it = table.begin(); it != table.end(); ++it) {
    const auto [key, value] = *it;
    EXPECT_EQ(key, it.key());
    EXPECT_EQ(key * 3, it.value());
    EXPECT_EQ(1U, expected.erase(value / 3));
  }
  EXPECT_TRUE(expected.empty());
}

TEST(NyUrcuHt, hasNothingToWalkOverWhenEmpty) {
  Numbers table;
  EXPECT_EQ(table.begin(), table.end());
}

TEST(NyUrcuHt, erasesUnderAWalk) {
  Numbers table;
  for (uint64_t key = 0; key < 500; ++key) {
    table.insert(key, key);
  }
  size_t seen = 0;
  for (auto it = table.begin(); it != table.end(); ++it, ++seen) {
    if (it.key() % 2 == 0) {
      EXPECT_TRUE(table.eraseNode(it));
    }
  }
  EXPECT_EQ(500U, seen);
  EXPECT_EQ(250U, table.size());
  for (uint64_t key = 0; key < 500; ++key) {
    EXPECT_EQ(key % 2 != 0, table.contains(key)) << key;
  }
}

TEST(NyUrcuHt, freesOnceWhatTwoPositionsErase) {
  std::atomic<int> destroyed{0};
  Shared table;
  table.insert(1, std::make_shared<Tracked>(5, destroyed));
  auto first = table.begin();
  auto second = table.begin();
  EXPECT_TRUE(table.eraseNode(first));
  EXPECT_FALSE(table.eraseNode(second));
  EXPECT_EQ(5, second.value()->number);
  EXPECT_EQ(table.end(), ++second);
  drain();
  EXPECT_EQ(1, destroyed);
}

TEST(NyUrcuHt, erasesNothingThatWasReplacedUnderAPosition) {
  Numbers table;
  table.insert(1, 10);
  auto position = table.begin();
  table.insert(1, 11);
  EXPECT_FALSE(table.eraseNode(position));
  EXPECT_EQ(11U, valueOf(table, 1));
}

TEST(NyUrcuHt, growsAndShrinks) {
  constexpr uint64_t kKeys = 20000;
  Numbers table;
  for (uint64_t key = 0; key < kKeys; ++key) {
    table.insert(key, ~key);
  }
  EXPECT_EQ(kKeys, table.size());
  for (uint64_t key = 0; key < kKeys; ++key) {
    ASSERT_EQ(~key, valueOf(table, key));
    ASSERT_TRUE(table.erase(key));
  }
  EXPECT_EQ(0U, table.size());
  drain();
}

TEST(NyUrcuHt, hashesByKeyAndSeed) {
  Numbers table;
  EXPECT_EQ(Numbers::nyHash(5, table.seed()), table.nyHash(5));
  EXPECT_NE(Numbers::nyHash(5, 1), Numbers::nyHash(5, 2));
  EXPECT_NE(Numbers::nyHash(5, 1), Numbers::nyHash(6, 1));
  const RouteKey key{{10, 0, 0, 1}, {239, 1, 1, 1}};
  using Routes = NyRcuHt<RouteKey, bool>;
  EXPECT_EQ(rte_hash_crc(std::array<RouteKey, 1>{key}.data(), sizeof(key), 9),
            Routes::nyHash(key, 9));
}

TEST(NyUrcuHt, takesItsSeedFromTheTimeOfConstruction) {
  const auto before = static_cast<uint32_t>(std::time(nullptr));
  Numbers table;
  const auto after = static_cast<uint32_t>(std::time(nullptr));
  EXPECT_LE(before, table.seed());
  EXPECT_GE(after, table.seed());
}

TEST(NyUrcuHt, holdsEveryKindOfValue) {
  NyRcuHt<uint64_t, bool> flags;
  flags.insert(1, true);
  EXPECT_TRUE(*flags.find(1));
  Times times(16, true, 16);
  const auto now = std::chrono::system_clock::now();
  times.insert(1, now);
  EXPECT_EQ(now, *times.find(1));
  EXPECT_EQ(16U, times.initialSize());
  EXPECT_TRUE(times.deferredFree());
}

TEST(NyUrcuHt, destroysTablesThatAreValues) {
  std::atomic<int> destroyed{0};
  NyRcuHt<RouteKey, std::shared_ptr<Shared>> outer;
  const auto fill = [&](uint8_t number) {
    auto inner = std::make_shared<Shared>(16, true, 16);
    inner->insert(number, std::make_shared<Tracked>(number, destroyed));
    outer.insert(RouteKey{{number}, {}}, std::move(inner));
  };
  fill(1);
  fill(2);
  EXPECT_TRUE(outer.erase(RouteKey{{1}, {}}));
  drain();
  EXPECT_EQ(1, destroyed);
}

// What the release callbacks were called with, in order; they run on RCU's thread.
class Released {
 public:
  void add(uint64_t what) {
    std::lock_guard guard(mutex_);
    calls_.push_back(what);
  }
  // Returns: the calls since the last take().
  std::vector<uint64_t> take() {
    std::lock_guard guard(mutex_);
    return std::exchange(calls_, {});
  }

 private:
  std::mutex mutex_;
  std::vector<uint64_t> calls_;
};
Released released;

TEST(NyUrcuHt, callsTheReleaseCallbacksOncePerNode) {
  {
    Numbers table(
        128, true, 128, [](uint64_t& key) { released.add(key); },
        [](uint64_t& value) { released.add(value); });
    table.insert(1, 10);
    table.insert(1, 11);
    drain();
    EXPECT_EQ((std::vector<uint64_t>{1, 10}), released.take());
    table.erase(1);
    drain();
    EXPECT_EQ((std::vector<uint64_t>{1, 11}), released.take());
    table.insert(2, 20);
  }
  EXPECT_EQ((std::vector<uint64_t>{2, 20}), released.take());
}

TEST(NyUrcuHt, callsTheOneReleaseCallbackThatIsSet) {
  {
    Numbers table(128, true, 128, nullptr, [](uint64_t& value) { released.add(value); });
    table.insert(1, 10);
  }
  EXPECT_EQ(std::vector<uint64_t>{10}, released.take());
}

TEST(NyUrcuHt, callsTheReleaseCallbackBeforeTheDestructor) {
  std::atomic<int> destroyed{0};
  {
    Shared table(128, true, 128, nullptr,
                 [](std::shared_ptr<Tracked>& value) { EXPECT_EQ(0, value->destroyed); });
    table.insert(1, std::make_shared<Tracked>(5, destroyed));
  }
  EXPECT_EQ(1, destroyed);
}

TEST(NyUrcuHt, freesEveryValueWithItself) {
  std::atomic<int> destroyed{0};
  {
    Shared table;
    for (int i = 0; i < 300; ++i) {
      table.insert(static_cast<uint64_t>(i), std::make_shared<Tracked>(i, destroyed));
    }
    EXPECT_EQ(0, destroyed);
  }
  EXPECT_EQ(300, destroyed);
}

TEST(NyUrcuHt, leavesAnOnlineThreadOnlineAtItsEnd) {
  ASSERT_NE(0, urcu_qsbr_read_ongoing());
  std::make_unique<Numbers>()->insert(1, 1);
  EXPECT_NE(0, urcu_qsbr_read_ongoing());
}

TEST(NyUrcuHt, leavesAnOfflineThreadOfflineAtItsEnd) {
  auto table = std::make_unique<Numbers>();
  table->insert(1, 1);
  urcu_qsbr_thread_offline();
  table.reset();
  EXPECT_EQ(0, urcu_qsbr_read_ongoing());
  urcu_qsbr_thread_online();
}

TEST(NyUrcuHt, refusesASizeThatIsNoPowerOfTwo) {
  testing::internal::CaptureStderr();
  std::string what;
  try {
    Numbers table(100, true);
  } catch (const std::runtime_error& error) {
    what = error.what();
  }
  EXPECT_EQ("failed to construct", what);
  EXPECT_EQ("Error allocating hash table\n", testing::internal::GetCapturedStderr());
}

NyRcuHt<uint64_t, uint64_t>* refilled = nullptr;

TEST(NyUrcuHt, reportsAnEntryThatWasAddedWhileItWasDestroyed) {
  refilled = new Numbers(128, true, 128, nullptr, [](uint64_t& value) {
    if (value == 10) {
      refilled->insert(2, 20);
    }
  });
  refilled->insert(1, 10);
  cds_lfht* kept = refilled->table();
  testing::internal::CaptureStderr();
  std::string what;
  try {
    delete refilled;
  } catch (const std::runtime_error& error) {
    what = error.what();
  }
  EXPECT_EQ("failed to destruct object", what);
  EXPECT_EQ("Destroying hash table failed\n", testing::internal::GetCapturedStderr());
  EXPECT_NE(0, urcu_qsbr_read_ongoing());

  cds_lfht_iter iter;
  cds_lfht_first(kept, &iter);
  ASSERT_NE(nullptr, iter.node);
  ASSERT_EQ(0, cds_lfht_del(kept, iter.node));
  drain();
  Numbers::freeNodeAsync(&Numbers::Node::of(iter.node)->rcuHead);
  EXPECT_EQ(0, cds_lfht_destroy(kept, nullptr));
}

TEST(NyUrcuHtDeathTest, stopsTheProcessWhenTheEndIsDereferenced) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        Numbers table;
        Numbers::NyRcuHtIterator end = table.end();
        static_cast<void>(*end);
      },
      "std::pair<_T1, _T2> NyRcuHt<K, V, A>::NyRcuHtIterator::operator\\*\\(\\).*Assertion "
      "`nyNode' failed");
}

TEST(NyUrcuHtDeathTest, stopsTheProcessWhenTheEndIsErased) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        Numbers table;
        table.eraseNode(table.end());
      },
      "Assertion `nyNode' failed");
}

}  // namespace
