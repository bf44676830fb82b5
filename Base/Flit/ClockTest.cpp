#include "Base/Flit/Clock.h"

#include <gtest/gtest.h>

namespace Flit {
namespace {

TEST(TickScale, convertsBetweenItsMoments) {
  const Moment from = {1000, 500, 10'000};
  const Moment to = {3000, 1500, 20'000};  // two ticks a nanosecond
  const TickScale scale(from, to);
  EXPECT_EQ(scale.unixNs(3000), 20'000u);
  EXPECT_EQ(scale.unixNs(1000), 19'000u);
  EXPECT_EQ(scale.unixNs(2000), 19'500u);
}

TEST(TickScale, convertsTicksJustAfterTheLaterMoment) {
  const TickScale scale({0, 0, 1'000'000}, {1000, 1000, 1'001'000});
  EXPECT_EQ(scale.unixNs(1100), 1'001'100u);
}

TEST(TickScale, survivesMomentsThatAreTheSame) {
  const Moment moment = {1000, 1000, 5000};
  EXPECT_EQ(TickScale(moment, moment).unixNs(900), 4900u);
}

TEST(Ticks, neverGoBackOnOneThread) {
  uint64_t last = ticks();
  for (int i = 0; i < 100000; ++i) {
    const uint64_t now = ticks();
    ASSERT_GE(now, last);
    last = now;
  }
}

TEST(Ticks, tellTheTimeOfDay) {
  constexpr uint64_t kMillisecond = 1'000'000;
  const uint64_t before = clockNs(CLOCK_REALTIME);
  const uint64_t now = ticks();
  const uint64_t after = clockNs(CLOCK_REALTIME);
  const uint64_t told = TickScale(firstMoment(), momentNow()).unixNs(now);
  EXPECT_GE(told + kMillisecond, before);
  EXPECT_LE(told, after + kMillisecond);
}

}  // namespace
}  // namespace Flit
