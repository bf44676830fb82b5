// Time is passed in: rates are measured by counting runs.
#include "Bess/Scheduler.h"

#include <gtest/gtest.h>

#include "Bess/Testing/TestModules.h"

namespace {

using bess::testing::Ticker;

constexpr uint64_t kMs = 1'000'000;
constexpr uint64_t kSecond = 1000 * kMs;
constexpr uint64_t kStart = 5 * kSecond;

class SchedulerTest : public ::testing::Test {
 protected:
  // Rounds at each `step` of `duration`, as a worker that is never late would run them.
  void run(Scheduler& scheduler, uint64_t duration, uint64_t step) {
    for (const uint64_t end = now_ + duration; now_ < end; now_ += step) {
      scheduler.runRound(now_);
    }
  }

  uint64_t now_ = kStart;
  Ticker ticker_;
  Task task_{&ticker_, nullptr};
  Scheduler scheduler_{2};
};

TEST_F(SchedulerTest, runsUnlimitedTaskOncePerRound) {
  scheduler_.attach(&task_, 0);
  EXPECT_EQ(task_.worker(), 2);
  run(scheduler_, 100, 1);
  EXPECT_EQ(ticker_.runs, 100);
}

TEST_F(SchedulerTest, holdsRateOverSeconds) {
  scheduler_.attach(&task_, 100);
  run(scheduler_, 10 * kSecond, kMs / 10);
  EXPECT_EQ(ticker_.runs, 1000);
}

TEST_F(SchedulerTest, holdsRateWhenRoundsAreIrregular) {
  scheduler_.attach(&task_, 1000);
  for (int i = 0; i < 1000; i++) {
    run(scheduler_, kMs / 2, kMs / 4);
    run(scheduler_, kMs / 2, kMs / 10);
  }
  EXPECT_NEAR(ticker_.runs, 1000, 1);
}

TEST_F(SchedulerTest, doesNotMakeUpForALongPause) {
  scheduler_.attach(&task_, 1000);
  run(scheduler_, kMs, kMs);
  now_ += 10 * kSecond;
  ticker_.runs = 0;
  run(scheduler_, 100 * kMs, kMs / 10);
  EXPECT_NEAR(ticker_.runs, 100, 2);
}

TEST_F(SchedulerTest, saysWhenTheNextTaskIsDue) {
  EXPECT_EQ(scheduler_.runRound(now_).dueNs, Scheduler::kNever);
  scheduler_.attach(&task_, 10);
  EXPECT_EQ(scheduler_.runRound(now_).dueNs, now_ + kSecond / 10);
  EXPECT_FALSE(scheduler_.runRound(now_ + 1).worked);
}

TEST_F(SchedulerTest, backsOffBlockedTaskUpTo100Microseconds) {
  ticker_.block = true;
  scheduler_.attach(&task_, 0);
  std::vector<uint64_t> waits;
  for (int i = 0; i < 10; i++) {
    const auto round = scheduler_.runRound(now_);
    EXPECT_FALSE(round.worked);
    waits.push_back(round.dueNs - now_);
    now_ = round.dueNs;
  }
  EXPECT_EQ(waits, (std::vector<uint64_t>{1000, 2000, 4000, 8000, 16000, 32000, 64000, 100'000,
                                          100'000, 100'000}));
  ticker_.block = false;
  EXPECT_TRUE(scheduler_.runRound(now_).worked);
  ticker_.block = true;
  EXPECT_EQ(scheduler_.runRound(now_).dueNs, now_ + 1000);
}

TEST_F(SchedulerTest, doesNotBackOffWhenItSpins) {
  Scheduler spinning(0, true);
  ticker_.block = true;
  spinning.attach(&task_, 0);
  run(spinning, 100, 1);
  EXPECT_EQ(ticker_.runs, 100);
}

TEST_F(SchedulerTest, addsUpWhatTasksReport) {
  Ticker second;
  Task other(&second, nullptr);
  scheduler_.attach(&task_, 0);
  scheduler_.attach(&other, 0);
  const auto round = scheduler_.runRound(now_);
  EXPECT_EQ(round.packets, 2U);
  EXPECT_EQ(round.bits, 16U);
  EXPECT_TRUE(round.worked);
}

TEST_F(SchedulerTest, leavesDetachedTaskAlone) {
  scheduler_.attach(&task_, 7);
  EXPECT_EQ(task_.ratePerSecond(), 7U);
  scheduler_.detach(&task_);
  EXPECT_EQ(task_.worker(), -1);
  run(scheduler_, 10, 1);
  EXPECT_EQ(ticker_.runs, 0);
}

TEST_F(SchedulerTest, detachesWhatIsLeftWhenItGoes) {
  {
    Scheduler scheduler(1);
    scheduler.attach(&task_, 0);
  }
  EXPECT_EQ(task_.worker(), -1);
}

}  // namespace
