#include "Bess/ControlThread.h"

#include <gtest/gtest.h>
#include <urcu-qsbr.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

namespace {

TEST(ControlThreadTest, returnsWhatTheClosureReturns) {
  ControlThread control;
  EXPECT_EQ(control.call([] { return 42; }), 42);
  EXPECT_FALSE(control.onThread());
  EXPECT_TRUE(control.call([&] { return control.onThread(); }));
}

TEST(ControlThreadTest, throwsWhatTheClosureThrows) {
  ControlThread control;
  EXPECT_THROW(control.call([] { throw std::out_of_range("x"); }), std::out_of_range);
  control.post([] { throw std::runtime_error("nobody waits for this"); });
  EXPECT_EQ(control.call([] { return 1; }), 1);
}

TEST(ControlThreadTest, runsNestedCallAtOnce) {
  ControlThread control;
  EXPECT_EQ(control.call([&] { return control.call([] { return 7; }); }), 7);
}

TEST(ControlThreadTest, keepsTheOrderOfEachCaller) {
  ControlThread control;
  constexpr int kCallers = 4;
  constexpr int kEach = 500;
  std::vector<std::vector<int>> seen(kCallers);
  std::vector<std::thread> callers;
  for (int c = 0; c < kCallers; c++) {
    callers.emplace_back([&, c] {
      for (int i = 0; i < kEach; i++) {
        control.post([&seen, c, i] { seen[c].push_back(i); });
      }
      control.call([] {});
    });
  }
  for (auto& caller : callers) {
    caller.join();
  }
  for (const auto& order : seen) {
    ASSERT_EQ(order.size(), static_cast<size_t>(kEach));
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
  }
}

TEST(ControlThreadTest, runsWhatIsQueuedBeforeItStops) {
  ControlThread control;
  std::promise<void> gate;
  std::atomic<int> ran{0};
  control.post([&] { gate.get_future().wait(); });
  for (int i = 0; i < 10; i++) {
    control.post([&] { ran++; });
  }
  gate.set_value();
  control.stop();
  EXPECT_EQ(ran, 10);
  EXPECT_THROW(control.post([] {}), std::system_error);
  EXPECT_THROW(control.call([] { return 1; }), std::system_error);
  control.stop();
}

TEST(ControlThreadTest, waitsForGracePeriodsWhileItsCallerWaits) {
  ControlThread control;
  // The test's own thread is an online reader: call() must take it offline.
  ASSERT_NE(urcu_qsbr_read_ongoing(), 0);
  control.call([] { urcu_qsbr_synchronize_rcu(); });
  EXPECT_NE(urcu_qsbr_read_ongoing(), 0);
  // An idle control thread is offline.
  urcu_qsbr_synchronize_rcu();
}

}  // namespace
