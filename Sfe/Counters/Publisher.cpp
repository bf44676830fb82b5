// The list of publication callbacks, the passes over it, and the thread that makes them.
#include <glog/logging.h>
#include <pthread.h>
#include <urcu-qsbr.h>

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>

#include "Base/RcuAnnotate.h"
#include "Sfe/Counters/Counters.h"

namespace SfeModules {
namespace {

using Clock = std::chrono::steady_clock;
using Callbacks = std::list<std::pair<CounterUpdate, void*>>;

// While it lives the calling thread delays no grace period. Nothing for a thread that is not
// online.
class ScopedOffline {
 public:
  ScopedOffline() : wasOnline_(urcu_qsbr_read_ongoing() != 0) {
    if (wasOnline_) {
      SFE_RCU_QUIESCENT();
      urcu_qsbr_thread_offline();
    }
  }
  ~ScopedOffline() {
    if (wasOnline_) {
      urcu_qsbr_thread_online();
    }
  }
  ScopedOffline(const ScopedOffline&) = delete;
  ScopedOffline& operator=(const ScopedOffline&) = delete;

 private:
  const bool wasOnline_;
};

class Publisher {
 public:
  CounterUpdateHandle add(CounterUpdate update, void* argument);
  void remove(CounterUpdateHandle handle);
  void pass(bool quiescentBetween);
  void start(std::chrono::milliseconds period);
  std::chrono::milliseconds period();
  void stop();

 private:
  void run();
  bool beginPass();
  static void call(const std::pair<CounterUpdate, void*>& callback);

  std::mutex mutex_;  // guards the callbacks and the state of the pass; never held in a callback
  Callbacks callbacks_;
  Callbacks::iterator next_ = callbacks_.end();     // of the pass under way
  Callbacks::iterator running_ = callbacks_.end();  // end: no callback is running
  bool passing_ = false;
  std::thread::id passThread_;  // whose pass is under way
  std::condition_variable callbackDone_;
  std::condition_variable passDone_;

  std::mutex threadMutex_;  // guards starting and stopping
  std::thread thread_;

  std::mutex timerMutex_;  // guards what follows
  std::condition_variable timer_;
  std::chrono::milliseconds period_{1000};
  bool periodChanged_ = false;
  bool stopping_ = false;
};

CounterUpdateHandle Publisher::add(CounterUpdate update, void* argument) {
  const std::lock_guard lock(mutex_);
  return callbacks_.emplace(callbacks_.end(), update, argument);
}

void Publisher::remove(CounterUpdateHandle handle) {
  std::unique_lock lock(mutex_);
  if (running_ == handle && passThread_ != std::this_thread::get_id()) {
    const ScopedOffline offline;
    callbackDone_.wait(lock, [&] { return running_ != handle; });
  }
  if (next_ == handle) {
    ++next_;
  }
  if (running_ == handle) {
    running_ = callbacks_.end();
  }
  callbacks_.erase(handle);
}

void Publisher::call(const std::pair<CounterUpdate, void*>& callback) {
  try {
    callback.first(callback.second);
  } catch (const std::exception& e) {
    LOG(ERROR) << "A counter publication failed: " << e.what();
  } catch (...) {
    LOG(ERROR) << "A counter publication failed";
  }
}

// Makes the calling thread the one that passes. Returns: false when it is that one already.
bool Publisher::beginPass() {
  std::unique_lock lock(mutex_);
  if (passThread_ == std::this_thread::get_id()) {
    return false;
  }
  if (passing_) {
    const ScopedOffline offline;
    passDone_.wait(lock, [this] { return !passing_; });
  }
  passing_ = true;
  passThread_ = std::this_thread::get_id();
  return true;
}

// quiescentBetween: the thread holds nothing of RCU between two callbacks.
void Publisher::pass(bool quiescentBetween) {
  if (!beginPass()) {
    return;
  }
  std::unique_lock lock(mutex_);
  for (next_ = callbacks_.begin(); next_ != callbacks_.end();) {
    running_ = next_++;
    const std::pair<CounterUpdate, void*> callback = *running_;
    lock.unlock();
    call(callback);
    if (quiescentBetween) {
      SFE_RCU_QUIESCENT();
      urcu_qsbr_quiescent_state();
    }
    lock.lock();
    running_ = callbacks_.end();
    callbackDone_.notify_all();
  }
  passing_ = false;
  passThread_ = std::thread::id();
  passDone_.notify_one();
}

void Publisher::run() {
  pthread_setname_np(pthread_self(), "sfe-counters");
  urcu_qsbr_register_thread();
  urcu_qsbr_thread_offline();
  std::unique_lock lock(timerMutex_);
  Clock::time_point due = Clock::now() + period_;
  while (!stopping_) {
    if (periodChanged_) {
      periodChanged_ = false;
      due = Clock::now() + period_;
    }
    if (timer_.wait_until(lock, due, [this] { return stopping_ || periodChanged_; })) {
      continue;
    }
    const std::chrono::milliseconds period = period_;
    lock.unlock();
    urcu_qsbr_thread_online();
    pass(/*quiescentBetween=*/true);
    SFE_RCU_QUIESCENT();
    urcu_qsbr_thread_offline();
    due = std::max(due + period, Clock::now());  // a pass that overran is not made up for
    lock.lock();
  }
  lock.unlock();
  urcu_qsbr_unregister_thread();
}

void Publisher::start(std::chrono::milliseconds period) {
  CHECK(period.count() > 0) << "publication period";
  const std::lock_guard starting(threadMutex_);
  {
    const std::lock_guard lock(timerMutex_);
    period_ = period;
    periodChanged_ = true;
    stopping_ = false;
  }
  timer_.notify_all();
  if (!thread_.joinable()) {
    thread_ = std::thread([this] { run(); });
  }
}

std::chrono::milliseconds Publisher::period() {
  const std::lock_guard lock(timerMutex_);
  return period_;
}

void Publisher::stop() {
  const ScopedOffline offline;
  const std::lock_guard stopping(threadMutex_);
  if (!thread_.joinable()) {
    return;
  }
  CHECK(thread_.get_id() != std::this_thread::get_id()) << "stopped from inside a callback";
  {
    const std::lock_guard lock(timerMutex_);
    stopping_ = true;
  }
  timer_.notify_all();
  thread_.join();
}

// Lives until the process ends: a module may unregister from a static destructor.
Publisher& publisher() {
  static auto* const thePublisher = new Publisher;
  return *thePublisher;
}

}  // namespace

CounterUpdateHandle registerCounterUpdate(CounterUpdate update, void* argument) {
  return publisher().add(update, argument);
}

void unregisterCounterUpdate(CounterUpdateHandle handle) {
  publisher().remove(handle);
}

void startCounterPublisher(std::chrono::milliseconds period) {
  publisher().start(period);
}

std::chrono::milliseconds counterPublisherPeriod() {
  return publisher().period();
}

void stopCounterPublisher() {
  publisher().stop();
}

void publishCountersNow() {
  publisher().pass(/*quiescentBetween=*/false);
}

}  // namespace SfeModules
