// The one thread that runs every command and every change of the graph, as a queue of closures.
//
// Threads    : post and call on any thread; stop by the owner, once.
// Errors     : what a closure throws goes to its caller (call) or is logged (post). After stop()
// both
//              throw std::system_error(ECANCELED).
// RCU        : registered as a QSBR reader, offline while it waits for work. call() takes an online
//              caller offline while it waits: it is a quiescent state of the caller.
// Cost       : a wait looks for its end for kLinger before it sleeps, since waking a core that
//              has gone to sleep takes longer than most commands: a stream of calls, each sent when
//              the last is answered, meets a thread that is awake. A thread that nobody calls
//              sleeps.
// Invariants :
//   (1) closures run one after another in the order of arrival.
//   (2) every closure that was accepted runs, also when stop() comes in between.
#pragma once

#include <urcu-qsbr.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <type_traits>
#include <utility>

class ControlThread {
 public:
  ControlThread();
  ~ControlThread();  // stops
  ControlThread(const ControlThread&) = delete;
  ControlThread& operator=(const ControlThread&) = delete;

  // Queues `fn` and returns.
  void post(std::function<void()> fn);

  // Runs `fn` on the control thread and returns what it returns. Called on the control thread
  // itself it runs at once.
  template <class F>
  std::invoke_result_t<F> call(F&& fn) {
    if (onThread()) {
      return std::forward<F>(fn)();
    }
    struct Called {
      explicit Called(F&& f) : task(std::forward<F>(f)) {}
      std::packaged_task<std::invoke_result_t<F>()> task;
      std::atomic<bool> done{false};
    };
    auto called = std::make_shared<Called>(std::forward<F>(fn));
    auto result = called->task.get_future();
    post([called] {
      called->task();
      called->done.store(true, std::memory_order_release);
    });
    waitOffline([&] {
      if (!linger([&] { return called->done.load(std::memory_order_acquire); })) {
        result.wait();
      }
    });
    return result.get();
  }

  static constexpr std::chrono::microseconds kLinger{200};

  // Runs what is queued, refuses more, and ends the thread. Not on the control thread.
  void stop();

  bool onThread() const { return std::this_thread::get_id() == id_; }

 private:
  void loop();
  std::function<void()> next();
  static void waitOffline(const std::function<void()>& wait);
  // Returns: whether `over` became true within kLinger.
  static bool linger(const std::function<bool()>& over);

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> queue_;  // guarded by mutex_
  bool stopping_ = false;                    // guarded by mutex_
  bool asleep_ = false;                      // guarded by mutex_: wake_ is waited for
  std::atomic<bool> work_{false};            // something is queued, or the thread is to stop
  std::thread thread_;
  const std::thread::id id_;
};
