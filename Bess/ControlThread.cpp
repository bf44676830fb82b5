#include "Bess/ControlThread.h"

#include <glog/logging.h>
#include <pthread.h>
#include <rte_pause.h>

#include <cerrno>

#include "Base/Orp/SystemException.h"
#include "Base/RcuAnnotate.h"
#include "Bess/GenericCommand.h"

ControlThread::ControlThread() : thread_([this] { loop(); }), id_(thread_.get_id()) {}

ControlThread::~ControlThread() {
  stop();
}

void ControlThread::post(std::function<void()> fn) {
  bool asleep = false;
  {
    std::lock_guard lock(mutex_);
    if (stopping_) {
      throw Orp::SystemException(ECANCELED, "the control thread has stopped");
    }
    queue_.push_back(std::move(fn));
    work_.store(true, std::memory_order_release);
    asleep = asleep_;
  }
  if (asleep) {
    wake_.notify_one();
  }
}

void ControlThread::stop() {
  CHECK(!onThread()) << "the control thread cannot wait for itself";
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    work_.store(true, std::memory_order_release);
  }
  wake_.notify_one();
  if (thread_.joinable()) {
    // What is still queued may wait for a grace period.
    waitOffline([this] { thread_.join(); });
  }
}

void ControlThread::waitOffline(const std::function<void()>& wait) {
  const bool online = urcu_qsbr_read_ongoing() != 0;
  if (online) {
    SFE_RCU_QUIESCENT();
    urcu_qsbr_thread_offline();
  }
  wait();
  if (online) {
    urcu_qsbr_thread_online();
  }
}

// Yields now and then: whoever is to end the wait may need this core.
bool ControlThread::linger(const std::function<bool()>& over) {
  constexpr int kLooks = 50;
  const auto end = std::chrono::steady_clock::now() + kLinger;
  do {
    for (int i = 0; i < kLooks; ++i) {
      if (over()) {
        return true;
      }
      rte_pause();
    }
    std::this_thread::yield();
  } while (std::chrono::steady_clock::now() < end);
  return false;
}

// Waits for work. Returns: nothing when the thread is to end.
std::function<void()> ControlThread::next() {
  linger([this] { return work_.load(std::memory_order_acquire); });
  std::unique_lock lock(mutex_);
  asleep_ = true;
  wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
  asleep_ = false;
  if (queue_.empty()) {
    return nullptr;
  }
  std::function<void()> fn = std::move(queue_.front());
  queue_.pop_front();
  work_.store(stopping_ || !queue_.empty(), std::memory_order_relaxed);
  return fn;
}

void ControlThread::loop() {
  pthread_setname_np(pthread_self(), "bess-control");
  urcu_qsbr_register_thread();
  while (true) {
    SFE_RCU_QUIESCENT();
    urcu_qsbr_thread_offline();
    std::function<void()> fn = next();
    urcu_qsbr_thread_online();
    if (!fn) {
      break;
    }
    try {
      fn();
    } catch (...) {
      LOG(ERROR) << "control: " << errorFromException(std::current_exception()).errmsg();
    }
  }
  SFE_RCU_QUIESCENT();
  urcu_qsbr_unregister_thread();
}
