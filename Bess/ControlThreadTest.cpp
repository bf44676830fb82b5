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

// Runs its part on a thread that is no QSBR reader, as callHere wants it; grace periods do not wait
// for the caller meanwhile.
template <class F>
void onOwnThread(F&& part) {
  const bool online = urcu_qsbr_read_ongoing() != 0;
  if (online) {
    urcu_qsbr_thread_offline();
  }
  std::thread(std::forward<F>(part)).join();
  if (online) {
    urcu_qsbr_thread_online();
  }
}

TEST(ControlThreadTest, letsACallerTakeItsPlaceWhileItIsIdle) {
  ControlThread control;
  onOwnThread([&] {
    const auto self = std::this_thread::get_id();
    EXPECT_EQ(control.callHere([] { return std::this_thread::get_id(); }), self);
    EXPECT_TRUE(control.callHere([&] { return control.onThread(); }));
    EXPECT_FALSE(control.onThread());
    EXPECT_EQ(control.callHere([&] { return control.call([] { return 7; }); }), 7);
    EXPECT_EQ(control.callHere([&] { return control.callHere([] { return 8; }); }), 8);
    EXPECT_THROW(control.callHere([] { throw std::out_of_range("x"); }), std::out_of_range);
    // A registered reader meanwhile, and none afterwards.
    EXPECT_TRUE(control.tryCallHere([] {
      EXPECT_NE(urcu_qsbr_read_ongoing(), 0);
      urcu_qsbr_synchronize_rcu();
    }));
    EXPECT_EQ(urcu_qsbr_read_ongoing(), 0);
  });
  EXPECT_NE(control.call([] { return std::this_thread::get_id(); }), std::this_thread::get_id());
}

TEST(ControlThreadTest, runsTheClosuresOfABusyTimeItself) {
  ControlThread control;
  std::promise<void> started;
  std::promise<void> gate;
  control.post([&] {
    started.set_value();
    gate.get_future().wait();
  });
  started.get_future().wait();
  onOwnThread([&] { EXPECT_FALSE(control.tryCallHere([] {})); });
  std::vector<int> order;
  control.post([&] { order.push_back(1); });
  std::thread caller([&] { control.callHere([&] { order.push_back(2); }); });
  gate.set_value();
  caller.join();
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST(ControlThreadTest, runsWhatIsPostedDuringATurnOfAnotherThreadAfterIt) {
  ControlThread control;
  std::atomic<bool> ended{false};
  std::promise<bool> seen;
  onOwnThread([&] {
    control.callHere([&] {
      control.post([&] { seen.set_value(ended); });
      // Whoever comes after it has to wait for it.
      onOwnThread([&] { EXPECT_FALSE(control.tryCallHere([] {})); });
      ended = true;
    });
  });
  EXPECT_TRUE(seen.get_future().get());
}

TEST(ControlThreadTest, runsOneClosureAtATimeWhoeverRunsThem) {
  ControlThread control;
  constexpr int kCallers = 4;
  constexpr int kEach = 1000;
  int inside = 0;  // not atomic: the thread sanitizer sees two at once too
  int ran = 0;
  const auto closure = [&] {
    EXPECT_EQ(++inside, 1);
    ++ran;
    --inside;
  };
  std::vector<std::thread> callers;
  for (int c = 0; c < kCallers; c++) {
    callers.emplace_back([&, c] {
      for (int i = 0; i < kEach; i++) {
        if ((i + c) % 3 == 0) {
          control.call(closure);
        } else if ((i + c) % 3 == 1 || !control.tryCallHere(closure)) {
          control.callHere(closure);
        }
      }
    });
  }
  for (auto& caller : callers) {
    caller.join();
  }
  EXPECT_EQ(ran, kCallers * kEach);
}

TEST(ControlThreadTest, waitsForATurnOfAnotherThreadWhenItStops) {
  ControlThread control;
  std::promise<void> started;
  std::promise<void> gate;
  std::atomic<bool> ended{false};
  std::thread caller([&] {
    control.callHere([&] {
      started.set_value();
      gate.get_future().wait();
      ended = true;
    });
  });
  started.get_future().wait();
  std::thread opener([&] { gate.set_value(); });
  control.stop();
  EXPECT_TRUE(ended);
  opener.join();
  caller.join();
  EXPECT_THROW(control.callHere([] {}), std::system_error);
  EXPECT_FALSE(control.tryCallHere([] {}));
}

}  // namespace
