// Torture: registered readers against two writers. A violation shows as a number that must be 0.
//
//   (A) no reader sees a freed value                     -> staleReads
//   (B) a removed value is gone for every read side that began after a grace period
//                                                        -> seen at age 2
//   (C) every value is released exactly once             -> neverReleased, releasedTwice
//   (D) a replaced value does not come back              -> versionsBack
//   (E) what was inserted is found from then on          -> missed
#include "SfeModules/NyUrcuHt.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

#if defined(SFE_WITH_TSAN) || defined(SFE_WITH_ASAN)
constexpr unsigned kWrites = 12000;  // per writer
#else
constexpr unsigned kWrites = 400000;
#endif
constexpr unsigned kReaders = 2;
constexpr uint64_t kOwnedKeys = 64;     // written by the first writer alone, never absent
constexpr uint64_t kSharedKeys = 2000;  // above them, written by both
constexpr unsigned kWritesPerQuiescentState = 16;
constexpr size_t kMaxIds = 2 * kWrites + kOwnedKeys;
constexpr size_t kAges = 3;

constexpr uint64_t kAlive = 0x600DCAFE600DCAFE;
constexpr uint64_t kReleased = 0xDEADDEADDEADDEAD;

struct Value {
  uint64_t canary;
  uint64_t id;
  uint64_t version;  // of an owned key: grows with each replacement
};
using Table = NyRcuHt<uint64_t, Value>;

// What the threads tell about each other; one per test.
struct Score {
  using PerId = std::vector<std::atomic<uint8_t>>;
  PerId releases = PerId(kMaxIds);
  PerId age = PerId(kMaxIds);  // 0: in the table; 1: removed; 2: removed before a grace period
  std::atomic<uint64_t> nextId{0};
  std::array<std::atomic<uint64_t>, kAges> seenAtAge{};
  std::atomic<uint64_t> reads{0};
  std::atomic<uint64_t> staleReads{0};
  std::atomic<uint64_t> versionsBack{0};
  std::atomic<uint64_t> badReleases{0};
  std::atomic<unsigned> writersLeft{2};
};
Score* score = nullptr;  // for the release callback

void releaseValue(Value& value) {
  if (value.canary != kAlive) {
    ++score->badReleases;
  }
  value.canary = kReleased;
  score->releases[value.id].fetch_add(1);
}

Value newValue(uint64_t version) {
  return {kAlive, score->nextId.fetch_add(1), version};
}

void quiescentState() {
  SFE_RCU_QUIESCENT();
  urcu_qsbr_quiescent_state();
}

class RegisteredThread {
 public:
  RegisteredThread() {
    // DPDK has put the thread that started this one on one processor: there nothing runs at once.
    cpu_set_t all;
    CPU_ZERO(&all);
    for (long cpu = 0; cpu < sysconf(_SC_NPROCESSORS_CONF); ++cpu) {
      CPU_SET(cpu, &all);
    }
    pthread_setaffinity_np(pthread_self(), sizeof(all), &all);
    urcu_qsbr_register_thread();
  }
  ~RegisteredThread() {
    SFE_RCU_QUIESCENT();
    urcu_qsbr_unregister_thread();
  }
  RegisteredThread(const RegisteredThread&) = delete;
  RegisteredThread& operator=(const RegisteredThread&) = delete;
};

void checkAlive(const Value& value) {
  ++score->reads;
  if (value.canary != kAlive) {
    ++score->staleReads;
    return;
  }
  const size_t age = score->age[value.id].load();
  ++score->seenAtAge[std::min(age, kAges - 1)];
}

class Reader {
 public:
  Reader(const Table& table, unsigned seed) : table_(table), random_(seed) {}

  void run() {
    RegisteredThread registered;
    for (unsigned round = 0; score->writersLeft.load() != 0; ++round) {
      readOwned();
      readShared();
      if (round % 64 == 0) {
        walk();
      }
      quiescentState();
    }
  }

 private:
  // The value is looked at twice, so that a writer comes between.
  void readOwned() {
    const uint64_t key = random_() % kOwnedKeys;
    const Value* value = table_.find(key);
    ASSERT_NE(nullptr, value);
    if (value->version < lastVersion_[key]) {
      ++score->versionsBack;
    }
    lastVersion_[key] = value->version;
    std::this_thread::yield();
    checkAlive(*value);
  }

  void readShared() {
    Value copy{};
    if (table_.lookup(kOwnedKeys + random_() % kSharedKeys, copy)) {
      checkAlive(copy);
    }
  }

  void walk() {
    for (auto it = table_.begin(); it != table_.end(); ++it) {
      checkAlive(it.value());
    }
  }

  const Table& table_;
  std::mt19937 random_;
  std::array<uint64_t, kOwnedKeys> lastVersion_{};
};

// Replaces owned keys; a removed value grows older with the grace period that ends after.
class Owner {
 public:
  explicit Owner(Table& table) : table_(table) {}

  void replace(uint64_t key) {
    const Value value = newValue(++version_);
    const uint64_t replaced = ids_[key];
    ids_[key] = value.id;
    table_.insert(key, value);
    if (version_ > kOwnedKeys) {
      score->age[replaced].store(1);
      removed_.push_back(replaced);
    }
  }

  void fill() {
    for (uint64_t key = 0; key < kOwnedKeys; ++key) {
      replace(key);
    }
  }

  void gracePeriod() {
    SFE_RCU_QUIESCENT();
    urcu_qsbr_synchronize_rcu();
    for (uint64_t id : removed_) {
      score->age[id].fetch_add(1);
    }
    removed_.clear();
  }

 private:
  Table& table_;
  uint64_t version_ = 0;
  std::array<uint64_t, kOwnedKeys> ids_{};
  std::vector<uint64_t> removed_;
};

class Writer {
 public:
  Writer(Table& table, unsigned seed, Owner* owner) : table_(table), random_(seed), owner_(owner) {}

  void run() {
    RegisteredThread registered;
    for (unsigned i = 0; i < kWrites; ++i) {
      write(i);
      if (i % kWritesPerQuiescentState == 0) {
        quiescentState();
      }
    }
    --score->writersLeft;
  }

 private:
  void write(unsigned i) {
    const uint64_t key = kOwnedKeys + random_() % kSharedKeys;
    switch (random_() % 4) {
      case 0:
        if (owner_ != nullptr) {
          owner_->replace(random_() % kOwnedKeys);
          break;
        }
        [[fallthrough]];
      case 1:
        table_.insert(key, newValue(0));
        break;
      default:
        table_.erase(key);
        break;
    }
    if (i % 4096 == 0) {
      eraseOnWalk();
    }
    if (owner_ != nullptr && i % 64 == 0) {
      owner_->gracePeriod();
    }
  }

  void eraseOnWalk() {
    for (auto it = table_.begin(); it != table_.end(); ++it) {
      if (it.key() >= kOwnedKeys && it.key() % 3 == 0) {
        table_.eraseNode(it);
      }
    }
  }

  Table& table_;
  std::mt19937 random_;
  Owner* owner_;
};

void drain() {
  SFE_RCU_QUIESCENT();
  urcu_qsbr_barrier();
}

// Runs `body` on the calling thread, which is a registered reader, without holding back RCU.
template <class Body>
void offline(Body body) {
  SFE_RCU_QUIESCENT();
  urcu_qsbr_thread_offline();
  body();
  urcu_qsbr_thread_online();
}

void torture(Table& table) {
  Owner owner(table);
  owner.fill();
  offline([&] {
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < kReaders; ++i) {
      threads.emplace_back([&table, i] { Reader(table, i).run(); });
    }
    threads.emplace_back([&] { Writer(table, 100, &owner).run(); });
    threads.emplace_back([&] { Writer(table, 101, nullptr).run(); });
    for (std::thread& thread : threads) {
      thread.join();
    }
  });
}

// The parameter: how many entries are indexed.
class NyUrcuHtStress : public ::testing::TestWithParam<uint32_t> {};

TEST_P(NyUrcuHtStress, freesEveryValueOnceAndAfterItsReaders) {
  Score thisScore;
  score = &thisScore;
  {
    Table table(128, true, 128, nullptr, &releaseValue, GetParam());
    torture(table);
  }
  drain();

  uint64_t neverReleased = 0;
  uint64_t releasedTwice = 0;
  for (uint64_t id = 0; id < score->nextId; ++id) {
    neverReleased += score->releases[id] == 0 ? 1 : 0;
    releasedTwice += score->releases[id] > 1 ? 1 : 0;
  }
  EXPECT_EQ(0U, score->staleReads);
  EXPECT_EQ(0U, score->badReleases);
  EXPECT_EQ(0U, neverReleased);
  EXPECT_EQ(0U, releasedTwice);
  EXPECT_EQ(0U, score->versionsBack);
  EXPECT_EQ(0U, score->seenAtAge[2]);
  EXPECT_LT(0U, score->seenAtAge[0]);
  EXPECT_EQ(score->reads, score->seenAtAge[0] + score->seenAtAge[1]);
  RecordProperty("reads", std::to_string(score->reads));
  RecordProperty("readsOfRemovedValues", std::to_string(score->seenAtAge[1]));
}

// Two removers that stand on the same entry: one of them gets it, and it is released once.
TEST_P(NyUrcuHtStress, givesAnEntryToOneOfTwoRemovers) {
  constexpr uint64_t kRounds = 2000;
  static_assert(kRounds <= kMaxIds);
  Score thisScore;
  score = &thisScore;
  std::atomic<uint64_t> removed{0};
  {
    Table table(128, true, 128, nullptr, &releaseValue, GetParam());
    std::barrier together(2);
    const auto remove = [&](bool inserts) {
      RegisteredThread registered;
      for (uint64_t round = 0; round < kRounds; ++round) {
        if (inserts) {
          table.insert(round, newValue(0));
        }
        together.arrive_and_wait();
        const auto position = table.begin();
        together.arrive_and_wait();
        removed += table.eraseNode(position) ? 1 : 0;
        together.arrive_and_wait();
        quiescentState();
      }
    };
    offline([&] {
      std::thread first(remove, true);
      std::thread second(remove, false);
      first.join();
      second.join();
    });
    EXPECT_EQ(0U, table.size());
  }
  drain();
  EXPECT_EQ(kRounds, removed);
  for (uint64_t id = 0; id < kRounds; ++id) {
    ASSERT_EQ(1, score->releases[id]) << id;
  }
  EXPECT_EQ(0U, score->badReleases);
}

// Two writers insert `keysOfAWriter` keys each, and both replace any that is in, while the index
// grows around them; a reader asks for what is in. Returns: how often that was not found.
class GrowingTable {
 public:
  GrowingTable(uint32_t indexedEntries, uint64_t keysOfAWriter, unsigned seed)
      : table_(128, true, 128, nullptr, nullptr, indexedEntries),
        keysOfAWriter_(keysOfAWriter),
        seed_(seed) {}

  uint64_t missed() {
    offline([this] {
      std::thread first([this] { write(0); });
      std::thread second([this] { write(1); });
      std::thread reader([this] { read(); });
      first.join();
      second.join();
      reader.join();
    });
    for (uint64_t key = 0; key < 2 * keysOfAWriter_; ++key) {
      look(key);
    }
    return missed_;
  }

 private:
  void look(uint64_t key) { missed_ += table_.contains(key) ? 0 : 1; }

  // Some key that is in.
  uint64_t anyKey(std::mt19937& random, uint64_t parity) const {
    constexpr uint64_t kLatest = 4096;
    const uint64_t count = inserted_[parity].load(std::memory_order_acquire);
    return 2 * (count - 1 - random() % std::min(count, kLatest)) + parity;
  }

  void write(uint64_t parity) {
    RegisteredThread registered;
    std::mt19937 random(2 * seed_ + static_cast<unsigned>(parity));
    table_.insert(parity, 0);
    inserted_[parity].store(1, std::memory_order_release);
    together_.arrive_and_wait();
    for (uint64_t i = 1; i < keysOfAWriter_; ++i) {
      const uint64_t key = 2 * i + parity;
      if (i % 2 == 0) {
        table_.insert(key, i);
      } else {
        table_.findOrInsert(key, i);
      }
      look(key);
      inserted_[parity].store(i + 1, std::memory_order_release);
      const uint64_t other = anyKey(random, random() % 2);
      table_.insert(other, i);
      look(other);
      if (i % kWritesPerQuiescentState == 0) {
        quiescentState();
      }
    }
    --writing_;
  }

  void read() {
    RegisteredThread registered;
    std::mt19937 random(seed_);
    together_.arrive_and_wait();
    while (writing_.load() != 0) {
      look(anyKey(random, random() % 2));
      quiescentState();
    }
  }

  NyRcuHt<uint64_t, uint64_t> table_;
  const uint64_t keysOfAWriter_;
  const unsigned seed_;
  std::barrier<> together_{3};
  std::array<std::atomic<uint64_t>, 2> inserted_{};
  std::atomic<unsigned> writing_{2};
  std::atomic<uint64_t> missed_{0};
};

// Replaced by two writers at once, a key is always there.
TEST_P(NyUrcuHtStress, neverMissesAKeyThatTwoWritersReplace) {
  constexpr uint64_t kKeys = 4;
  NyRcuHt<uint64_t, uint64_t> table(128, true, 128, nullptr, nullptr, GetParam());
  for (uint64_t key = 0; key < kKeys; ++key) {
    table.insert(key, 0);
  }
  std::atomic<unsigned> writing{2};
  std::atomic<uint64_t> missed{0};
  std::barrier together(3);
  const auto write = [&] {
    RegisteredThread registered;
    together.arrive_and_wait();
    for (unsigned i = 0; i < kWrites / 4; ++i) {
      table.insert(i % kKeys, i);
      missed += table.contains(i % kKeys) ? 0 : 1;
      if (i % kWritesPerQuiescentState == 0) {
        quiescentState();
      }
    }
    --writing;
  };
  const auto read = [&] {
    RegisteredThread registered;
    together.arrive_and_wait();
    for (uint64_t i = 0; writing.load() != 0; ++i) {
      missed += table.contains(i % kKeys) ? 0 : 1;
      quiescentState();
    }
  };
  offline([&] {
    std::thread first(write);
    std::thread second(write);
    std::thread reader(read);
    first.join();
    second.join();
    reader.join();
  });
  drain();
  EXPECT_EQ(0U, missed);
}

TEST_P(NyUrcuHtStress, findsWhatWasInsertedWhileTheIndexGrows) {
  constexpr unsigned kLargeRounds = 4;
  constexpr unsigned kSmallRounds = kWrites / 400;  // a small index grows more often
  for (unsigned round = 0; round < kLargeRounds; ++round) {
    EXPECT_EQ(0U, GrowingTable(GetParam(), kWrites / 20, round).missed());
  }
  for (unsigned round = 0; round < kSmallRounds; ++round) {
    ASSERT_EQ(0U, GrowingTable(GetParam(), 600, round).missed());
  }
  drain();
}

INSTANTIATE_TEST_SUITE_P(Index, NyUrcuHtStress, ::testing::Values(0U, 1024U, 65536U));

}  // namespace
