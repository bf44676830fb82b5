// The one thread that runs every command and every change of the graph, as a queue of closures.
//
// While it has nothing to do another thread may take its place for one closure: whoever waits for
// the closure anyway saves the wake-up of the control thread and his own.
//
// Threads    : post and call on any thread; callHere and tryCallHere on a thread that is no QSBR
//              reader of its own; stop by the owner, once.
// Errors     : what a closure throws goes to its caller (call) or is logged (post). After stop()
// both
//              throw std::system_error(ECANCELED).
// RCU        : registered as a QSBR reader, offline while it waits for work; a thread in its place
//              is a registered reader meanwhile. call() takes an online caller offline while it
//              waits: it is a quiescent state of the caller.
// Invariants :
//   (1) closures run one after another in the order of arrival, whichever thread runs them.
//   (2) every closure that was accepted runs, also when stop() comes in between.
#pragma once

#include <urcu-qsbr.h>

#include <atomic>
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

  // The same; `fn` runs on the calling thread when the control thread has nothing to do.
  template <class F>
  std::invoke_result_t<F> callHere(F&& fn) {
    if (const Turn turn(*this); turn) {
      return std::forward<F>(fn)();
    }
    return call(std::forward<F>(fn));
  }
  // Runs `fn` on the calling thread if the control thread has nothing to do. Returns: whether it
  // did; false once it has stopped.
  template <class F>
  bool tryCallHere(F&& fn) {
    const Turn turn(*this);
    if (turn) {
      std::forward<F>(fn)();
    }
    return static_cast<bool>(turn);
  }

  // Runs what is queued, refuses more, and ends the thread. Not from inside a closure.
  void stop();

  // Whether the caller is inside a closure.
  bool onThread() const { return runner_ == std::this_thread::get_id(); }

 private:
  // The caller has the control thread's place while it lives, if that was free.
  class Turn {
   public:
    explicit Turn(ControlThread& control) : control_(control), taken_(control.beginTurn()) {}
    ~Turn() {
      if (taken_) {
        control_.endTurn();
      }
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    explicit operator bool() const { return taken_; }

   private:
    ControlThread& control_;
    const bool taken_;
  };
  bool beginTurn();
  void endTurn();
  void loop();
  static void waitOffline(const std::function<void()>& wait);

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> queue_;  // guarded by mutex_
  bool stopping_ = false;                    // guarded by mutex_
  std::atomic<std::thread::id> runner_{};    // who is inside a closure; changed under mutex_
  std::thread thread_;
};
