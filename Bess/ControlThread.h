// The one thread that runs every command and every change of the graph, as a queue of closures.
//
// Threads    : post and call on any thread; stop by the owner, once.
// Errors     : what a closure throws goes to its caller (call) or is logged (post). After stop()
// both
//              throw std::system_error(ECANCELED).
// RCU        : registered as a QSBR reader, offline while it waits for work. call() takes an online
//              caller offline while it waits: it is a quiescent state of the caller.
// Invariants :
//   (1) closures run one after another in the order of arrival.
//   (2) every closure that was accepted runs, also when stop() comes in between.
#pragma once

#include <urcu-qsbr.h>

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
    using Promised = std::packaged_task<std::invoke_result_t<F>()>;
    auto task = std::make_shared<Promised>(std::forward<F>(fn));
    auto result = task->get_future();
    post([task] { (*task)(); });
    waitOffline([&result] { result.wait(); });
    return result.get();
  }

  // Runs what is queued, refuses more, and ends the thread. Not on the control thread.
  void stop();

  bool onThread() const { return std::this_thread::get_id() == id_; }

 private:
  void loop();
  static void waitOffline(const std::function<void()>& wait);

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> queue_;  // guarded by mutex_
  bool stopping_ = false;                    // guarded by mutex_
  std::thread thread_;
  const std::thread::id id_;
};
