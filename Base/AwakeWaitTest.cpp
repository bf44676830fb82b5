#include "Base/AwakeWait.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

using std::chrono::microseconds;

// Time passes in this test alone.
struct TestClock {
  using duration = std::chrono::nanoseconds;
  using rep = duration::rep;
  using period = duration::period;
  using time_point = std::chrono::time_point<TestClock>;
  static constexpr bool is_steady = true;
  static time_point now() { return now_; }
  static inline time_point now_{};
};

class AwakeWaitTest : public testing::Test {
 protected:
  using Wait = AwakeWait<TestClock>;

  // Waits for an event that comes after that time; a look takes a microsecond.
  void waitFor(microseconds time) {
    const auto event = TestClock::now() + time;
    looks_ = 0;
    slept_ = false;
    wait_.wait(
        [&] {
          ++looks_;
          TestClock::now_ += microseconds(1);
          return TestClock::now() > event;
        },
        [&] {
          slept_ = true;
          TestClock::now_ = std::max(TestClock::now(), event);
        });
  }
  void waitFor(microseconds time, int times) {
    for (int i = 0; i < times; ++i) {
      waitFor(time);
    }
  }

  Wait wait_{2};
  int looks_ = 0;
  bool slept_ = false;
};

TEST_F(AwakeWaitTest, sleepsAtFirst) {
  waitFor(microseconds(50), Wait::kEnough);
  EXPECT_TRUE(slept_);
  EXPECT_EQ(looks_, 1);
}

TEST_F(AwakeWaitTest, staysAwakeWhenEventsComeSoonOneAfterAnother) {
  waitFor(microseconds(50), Wait::kEnough + 1);
  EXPECT_FALSE(slept_);
  EXPECT_GT(looks_, 10);
}

TEST_F(AwakeWaitTest, sleepsWhenAnEventTakesLong) {
  waitFor(microseconds(50), 2 * Wait::kEnough);
  const auto start = TestClock::now();
  waitFor(Wait::kSoon * 5);
  EXPECT_TRUE(slept_);
  EXPECT_LE(microseconds(looks_), Wait::kAwake + microseconds(2));
  EXPECT_EQ(TestClock::now() - start, Wait::kSoon * 5);
}

TEST_F(AwakeWaitTest, isNotAwakeAnyMoreWhenEventsAreRareAgain) {
  waitFor(microseconds(50), 2 * Wait::kEnough);
  waitFor(Wait::kSoon * 5, Wait::kTries);
  EXPECT_GT(looks_, 1);
  waitFor(Wait::kSoon * 5);
  EXPECT_EQ(looks_, 1);
  // They have to come soon for a while, again.
  waitFor(microseconds(50), Wait::kEnough);
  EXPECT_TRUE(slept_);
  waitFor(microseconds(50));
  EXPECT_FALSE(slept_);
}

TEST_F(AwakeWaitTest, isNeverAwakeForEventsThatAreRare) {
  for (int i = 0; i < 100; ++i) {
    waitFor(Wait::kSoon * 2);
    EXPECT_EQ(looks_, 1);
  }
}

TEST_F(AwakeWaitTest, isRarelyAwakeInVain) {
  // Each comes soon, and none of them soon enough.
  int awake = 0;
  for (int i = 0; i < 900; ++i) {
    waitFor(Wait::kAwake * 4);
    EXPECT_TRUE(slept_);
    awake += looks_ > 1 ? 1 : 0;
  }
  EXPECT_GT(awake, 50);
  EXPECT_LE(awake, 900 * Wait::kTries / Wait::kEnough);
}

TEST_F(AwakeWaitTest, forgivesAnEventThatIsLateOnce) {
  waitFor(microseconds(50), 2 * Wait::kEnough);
  waitFor(Wait::kSoon * 20);
  EXPECT_TRUE(slept_);
  waitFor(microseconds(50));
  EXPECT_FALSE(slept_);
}

TEST_F(AwakeWaitTest, learnsNothingFromEventsThatAreThere) {
  waitFor(microseconds(-1), 100);
  EXPECT_EQ(looks_, 1);
  EXPECT_FALSE(slept_);
  waitFor(microseconds(50));
  EXPECT_TRUE(slept_);
}

TEST(AwakeWaitAloneTest, sleepsOnTheOnlyProcessor) {
  AwakeWait<TestClock> wait(1);
  for (int i = 0; i < 100; ++i) {
    int looks = 0;
    wait.wait([&] { return ++looks > 1; }, [] {});
    EXPECT_EQ(looks, 1);
  }
}

}  // namespace
