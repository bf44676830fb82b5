#include "bessd/Watchdog.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

namespace Bessd {
namespace {

using namespace std::chrono_literals;

class WatchdogTest : public testing::Test {
 protected:
  // What the watchdog says of one worker, `later` than at the last time.
  std::string after(std::chrono::seconds later, uint64_t rounds, size_t tasks = 1, bool on = true) {
    now_ += later;
    return watchdog_.check({worker(0, rounds, tasks, on)});
  }
  static WorkerStatus worker(int wid, uint64_t rounds, size_t tasks = 1, bool running = true) {
    WorkerStatus status;
    status.wid = wid;
    status.tasks = tasks;
    status.running = running;
    status.stats.rounds = rounds;
    return status;
  }

  std::chrono::steady_clock::time_point now_;
  Watchdog watchdog_{10s, [this] { return now_; }};
};

TEST_F(WatchdogTest, isContentWithoutWorkers) {
  EXPECT_EQ(watchdog_.check({}), "");
}

TEST_F(WatchdogTest, isContentWhileRoundsAdvance) {
  EXPECT_EQ(after(0s, 0), "");
  EXPECT_EQ(after(20s, 1), "");
  EXPECT_EQ(after(20s, 2), "");
}

TEST_F(WatchdogTest, namesAWorkerThatStandsStillForLongerThanThePatience) {
  EXPECT_EQ(after(0s, 7), "");
  EXPECT_EQ(after(10s, 7), "");
  EXPECT_EQ(after(1s, 7), "worker 0 has made no progress for 11 s");
  EXPECT_EQ(after(9s, 7), "worker 0 has made no progress for 20 s");
  EXPECT_EQ(after(1s, 8), "");
}

TEST_F(WatchdogTest, countsThePatienceFromTheLastProgress) {
  EXPECT_EQ(after(0s, 7), "");
  EXPECT_EQ(after(9s, 8), "");
  EXPECT_EQ(after(9s, 8), "");
  EXPECT_NE(after(2s, 8), "");
}

TEST_F(WatchdogTest, letsAPausedWorkerStandStill) {
  EXPECT_EQ(after(0s, 7), "");
  EXPECT_EQ(after(60s, 7, 1, false), "");
  EXPECT_EQ(after(10s, 7), "");
  EXPECT_NE(after(1s, 7), "");
}

TEST_F(WatchdogTest, letsAWorkerWithoutTasksStandStill) {
  EXPECT_EQ(after(0s, 7, 0), "");
  EXPECT_EQ(after(60s, 7, 0), "");
  EXPECT_EQ(after(5s, 7, 1), "");
  EXPECT_NE(after(6s, 7, 1), "");
}

TEST_F(WatchdogTest, forgetsAWorkerThatIsGone) {
  EXPECT_EQ(after(0s, 7), "");
  now_ += 20s;
  EXPECT_EQ(watchdog_.check({}), "");
  EXPECT_EQ(after(20s, 7), "");
}

TEST_F(WatchdogTest, tellsTheStuckWorkersFromTheOthers) {
  const auto look = [&](uint64_t moving) {
    return watchdog_.check({worker(0, 5), worker(3, moving), worker(9, 5)});
  };
  EXPECT_EQ(look(1), "");
  now_ += 12s;
  EXPECT_EQ(look(2),
            "worker 0 has made no progress for 12 s, worker 9 has made no progress for 12 s");
}

}  // namespace
}  // namespace Bessd
