#include "Sfe/Multicast/FreeSlots.h"

#include <gtest/gtest.h>

#include <set>
#include <thread>
#include <vector>

namespace Sfe::Multicast {
namespace {

TEST(FreeSlots, givesEverySlotOnce) {
  for (const uint32_t capacity : {1u, 63u, 64u, 65u, 200u}) {
    FreeSlots free(capacity);
    std::set<uint32_t> taken;
    while (const auto slot = free.take()) {
      EXPECT_LT(*slot, capacity);
      EXPECT_TRUE(taken.insert(*slot).second);
    }
    EXPECT_EQ(taken.size(), capacity);
    EXPECT_FALSE(free.take(capacity - 1));
    free.give(capacity - 1);
    EXPECT_EQ(free.take(), capacity - 1);
  }
}

TEST(FreeSlots, takesOneThatIsAskedFor) {
  FreeSlots free(70);
  EXPECT_TRUE(free.take(66));
  EXPECT_FALSE(free.take(66));
  free.give(66);
  EXPECT_TRUE(free.take(66));
}

TEST(FreeSlots, givesNoSlotToTwoThreads) {
  constexpr uint32_t kCapacity = 100;
  constexpr int kRounds = 2000;
  FreeSlots free(kCapacity);
  std::vector<int> users(kCapacity);  // plain: two users of one slot are a data race
  auto use = [&] {
    for (int round = 0; round < kRounds; ++round) {
      if (const auto slot = free.take()) {
        ++users[*slot];
        free.give(*slot);
      }
    }
  };
  std::thread other(use);
  use();
  other.join();
  int total = 0;
  for (const int count : users) {
    total += count;
  }
  EXPECT_EQ(total, 2 * kRounds);
}

}  // namespace
}  // namespace Sfe::Multicast
