// Registration, passes and the publisher thread.
#include <gtest/gtest.h>
#include <urcu-qsbr.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <latch>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Sfe/Counters/Counters.h"

namespace SfeModules {
namespace {

using std::chrono::milliseconds;

// A registered callback that calls a function object.
class Callback {
 public:
  explicit Callback(std::function<void()> body) : body_(std::move(body)) {
    handle_ =
        registerCounterUpdate([](void* self) { static_cast<Callback*>(self)->body_(); }, this);
  }
  ~Callback() { unregister(); }

  void unregister() {
    if (registered_) {
      registered_ = false;
      unregisterCounterUpdate(handle_);
    }
  }

 private:
  const std::function<void()> body_;
  CounterUpdateHandle handle_;
  bool registered_ = true;
};

TEST(Publication, callsEveryCallbackOnceInTheOrderOfRegistration) {
  std::vector<int> calls;
  Callback first([&] { calls.push_back(1); });
  Callback second([&] { calls.push_back(2); });
  publishCountersNow();
  EXPECT_EQ(calls, (std::vector<int>{1, 2}));
  first.unregister();
  publishCountersNow();
  EXPECT_EQ(calls, (std::vector<int>{1, 2, 2}));
}

TEST(Publication, goesOnAfterACallbackThatThrows) {
  int calls = 0;
  Callback bad([] { throw std::runtime_error("bad"); });
  Callback worse([] { throw 7; });
  Callback good([&] { ++calls; });
  publishCountersNow();
  publishCountersNow();
  EXPECT_EQ(calls, 2);
}

TEST(Publication, letsACallbackTakeItselfAndOthersOut) {
  int self = 0;
  int victim = 0;
  int last = 0;
  std::unique_ptr<Callback> victimCallback;
  std::unique_ptr<Callback> selfCallback;
  selfCallback = std::make_unique<Callback>([&] {
    ++self;
    selfCallback->unregister();
    victimCallback->unregister();
  });
  victimCallback = std::make_unique<Callback>([&] { ++victim; });
  Callback lastCallback([&] { ++last; });
  publishCountersNow();
  publishCountersNow();
  EXPECT_EQ(self, 1);
  EXPECT_EQ(victim, 0);
  EXPECT_EQ(last, 2);
}

TEST(Publication, letsACallbackRegisterAnother) {
  int added = 0;
  std::unique_ptr<Callback> later;
  Callback adder([&] {
    if (later == nullptr) {
      later = std::make_unique<Callback>([&] { ++added; });
    }
  });
  publishCountersNow();
  publishCountersNow();
  EXPECT_GE(added, 1);
  EXPECT_LE(added, 2);
}

TEST(Publication, isIgnoredFromInsideACallback) {
  int calls = 0;
  Callback callback([&] {
    ++calls;
    publishCountersNow();
  });
  publishCountersNow();
  EXPECT_EQ(calls, 1);
}

TEST(Publisher, saysThePeriodThatItWasGivenLast) {
  startCounterPublisher(std::chrono::milliseconds(70));
  EXPECT_EQ(counterPublisherPeriod(), std::chrono::milliseconds(70));
  startCounterPublisher(std::chrono::milliseconds(80));
  EXPECT_EQ(counterPublisherPeriod(), std::chrono::milliseconds(80));
  stopCounterPublisher();
}

TEST(Publisher, publishesPeriodicallyOnAnOnlineThread) {
  std::latch calls(3);
  std::atomic<bool> online{true};
  std::atomic<int> left{3};
  Callback callback([&] {
    online = online && urcu_qsbr_read_ongoing() != 0;
    if (left.fetch_sub(1) > 0) {
      calls.count_down();
    }
  });
  startCounterPublisher(milliseconds(1));
  calls.wait();
  stopCounterPublisher();
  EXPECT_TRUE(online);
}

TEST(Publisher, takesOnANewPeriodAtOnce) {
  std::latch called(1);
  std::atomic<bool> first{true};
  Callback callback([&] {
    if (first.exchange(false)) {
      called.count_down();
    }
  });
  startCounterPublisher(std::chrono::hours(1));
  startCounterPublisher(milliseconds(1));
  called.wait();
  stopCounterPublisher();
}

TEST(Publisher, startsAgainAfterItWasStopped) {
  for (int i = 0; i < 3; ++i) {
    std::latch called(1);
    std::atomic<bool> first{true};
    Callback callback([&] {
      if (first.exchange(false)) {
        called.count_down();
      }
    });
    startCounterPublisher(milliseconds(1));
    called.wait();
    stopCounterPublisher();
    stopCounterPublisher();
  }
}

// Between passes it is offline: a grace period does not have to wait for it.
TEST(Publisher, delaysNoGracePeriodBetweenPasses) {
  startCounterPublisher(std::chrono::hours(1));
  urcu_qsbr_synchronize_rcu();
  stopCounterPublisher();
}

TEST(Publisher, isWaitedForByUnregister) {
  std::latch entered(1);
  std::latch leave(1);
  std::atomic<bool> inside{false};
  std::atomic<bool> first{true};
  Callback callback([&] {
    if (first.exchange(false)) {
      inside = true;
      entered.count_down();
      leave.wait();
      inside = false;
    }
  });
  startCounterPublisher(milliseconds(1));
  entered.wait();
  std::thread helper([&] { leave.count_down(); });
  callback.unregister();
  EXPECT_FALSE(inside);
  helper.join();
  stopCounterPublisher();
}

// The waiting thread is online at first: it must not hold up the callback's grace period.
TEST(Publisher, mayWaitForAGracePeriodWhileItIsUnregistered) {
  std::latch entered(1);
  std::atomic<bool> first{true};
  Callback callback([&] {
    if (first.exchange(false)) {
      entered.count_down();
      urcu_qsbr_synchronize_rcu();
    }
  });
  urcu_qsbr_register_thread();
  startCounterPublisher(milliseconds(1));
  entered.wait();
  callback.unregister();
  stopCounterPublisher();
  urcu_qsbr_unregister_thread();
}

// What a callback uses may be freed as soon as it is unregistered.
TEST(Publisher, runsNoCallbackAfterItsUnregistration) {
  startCounterPublisher(milliseconds(1));
  auto churn = [] {
    for (int i = 0; i < 300; ++i) {
      auto value = std::make_unique<int>(0);
      Callback callback([target = value.get()] { ++*target; });
      if (i % 8 == 0) {
        publishCountersNow();
      }
      callback.unregister();
      value.reset();
    }
  };
  std::thread other(churn);
  churn();
  other.join();
  stopCounterPublisher();
}

}  // namespace
}  // namespace SfeModules
