#include "SfeModules/WayNumbers.h"

#include <gtest/gtest.h>

#include <set>

namespace SfeModules {
namespace {

TEST(WayNumbers, givesEachWayOutANumberOfItsOwn) {
  WayNumbers numbers;
  const IntfGateKey way = {.intfId = 7, .gate = 1};
  const IntfGateKey otherGate = {.intfId = 7, .gate = 2};
  const IntfGateKey sameSum = {.intfId = 6, .gate = 2};
  const std::set<uint8_t> given = {numbers.of(way), numbers.of(otherGate), numbers.of(sameSum)};
  EXPECT_EQ(given.size(), 3U);
  EXPECT_FALSE(given.contains(WayNumbers::kNone));
  EXPECT_EQ(numbers.of(way), numbers.of(way));
  EXPECT_EQ(numbers.of({.intfId = 0, .gate = 0}), 4);
}

TEST(WayNumbers, hasNoneForMoreWaysThanItCanTellApart) {
  WayNumbers numbers;
  std::set<uint8_t> given;
  for (uint64_t intf = 0; intf < WayNumbers::kMost; ++intf) {
    given.insert(numbers.of({.intfId = intf << 32, .gate = 1}));
  }
  EXPECT_EQ(given.size(), WayNumbers::kMost);
  EXPECT_FALSE(given.contains(WayNumbers::kNone));
  EXPECT_EQ(numbers.of({.intfId = 1, .gate = 1}), WayNumbers::kNone);
  EXPECT_EQ(numbers.of({.intfId = uint64_t{5} << 32, .gate = 1}), 6)
      << "those that have one keep it";
}

}  // namespace
}  // namespace SfeModules
