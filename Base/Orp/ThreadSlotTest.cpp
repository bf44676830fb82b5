#include "Base/Orp/ThreadSlot.h"

#include <gtest/gtest.h>

#include <array>
#include <barrier>
#include <set>
#include <thread>
#include <vector>

namespace Orp {
namespace {

std::optional<unsigned> slotOfNewThread() {
  std::optional<unsigned> slot;
  std::thread([&slot] { slot = tryThreadSlot(); }).join();
  return slot;
}

TEST(ThreadSlot, isTheSameForTheWholeThread) {
  const unsigned slot = threadSlot();
  EXPECT_LT(slot, kMaxThreadSlots);
  EXPECT_EQ(threadSlot(), slot);
  EXPECT_EQ(tryThreadSlot(), slot);
}

TEST(ThreadSlot, isGivenBackAtTheThreadsEnd) {
  const auto first = slotOfNewThread();
  ASSERT_TRUE(first);
  for (unsigned i = 0; i < 2 * kMaxThreadSlots; ++i) {
    EXPECT_EQ(slotOfNewThread(), first);
  }
}

TEST(ThreadSlot, isNeverSharedByLiveThreads) {
  constexpr unsigned kThreads = 32;
  constexpr int kRounds = 20;
  std::array<int, kMaxThreadSlots> users{};  // plain: a shared slot is a data race on it
  for (int round = 0; round < kRounds; ++round) {
    std::array<unsigned, kThreads> slots{};
    std::barrier together(kThreads);
    std::vector<std::jthread> threads;
    for (unsigned t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        slots[t] = threadSlot();
        ++users[slots[t]];
        together.arrive_and_wait();
      });
    }
    threads.clear();
    EXPECT_EQ(std::set<unsigned>(slots.begin(), slots.end()).size(), kThreads);
  }
}

struct UsesItsSlotLate {
  unsigned expected = 0;
  bool* same = nullptr;
  ~UsesItsSlotLate() {
    if (same != nullptr) {
      *same = threadSlot() == expected;
    }
  }
};

TEST(ThreadSlot, staysWhileThreadLocalObjectsAreDestroyed) {
  bool same = false;
  std::thread([&same] {
    thread_local UsesItsSlotLate
        late;  // made before the slot is taken: destroyed after an object made now
    late.same = &same;
    late.expected = threadSlot();
  }).join();
  EXPECT_TRUE(same);
}

// Runs `last` while all slots but the main thread's are held by others.
template <class F>
void withAllSlotsTaken(F&& last) {
  threadSlot();
  constexpr unsigned kOthers = kMaxThreadSlots - 1;
  std::barrier taken(kOthers + 1);
  std::barrier done(kOthers + 1);
  std::vector<std::jthread> threads;
  for (unsigned t = 0; t < kOthers; ++t) {
    threads.emplace_back([&] {
      threadSlot();
      taken.arrive_and_wait();
      done.arrive_and_wait();
    });
  }
  taken.arrive_and_wait();
  last();
  done.arrive_and_wait();
}

TEST(ThreadSlot, tellsWhenNoneIsLeft) {
  std::optional<unsigned> late = 0;
  withAllSlotsTaken([&late] { late = slotOfNewThread(); });
  EXPECT_EQ(late, std::nullopt);
  EXPECT_NE(slotOfNewThread(), std::nullopt);
}

TEST(ThreadSlotDeathTest, endsTheProcessForAThreadTooMany) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(withAllSlotsTaken([] { std::thread([] { threadSlot(); }).join(); }),
               "threads hold a thread slot");
}

}  // namespace
}  // namespace Orp
