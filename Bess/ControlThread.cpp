#include "Bess/ControlThread.h"

#include <glog/logging.h>
#include <pthread.h>

#include <cerrno>

#include "Base/Orp/SystemException.h"
#include "Base/RcuAnnotate.h"
#include "Bess/GenericCommand.h"

ControlThread::ControlThread() : thread_([this] { loop(); }) {}

ControlThread::~ControlThread() {
  stop();
}

void ControlThread::post(std::function<void()> fn) {
  {
    std::lock_guard lock(mutex_);
    if (stopping_) {
      throw Orp::SystemException(ECANCELED, "the control thread has stopped");
    }
    queue_.push_back(std::move(fn));
  }
  wake_.notify_one();
}

void ControlThread::stop() {
  CHECK(!onThread()) << "the control thread cannot wait for itself";
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
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

bool ControlThread::beginTurn() {
  {
    const std::lock_guard lock(mutex_);
    if (stopping_ || !queue_.empty() || runner_ != std::thread::id()) {
      return false;
    }
    runner_ = std::this_thread::get_id();
  }
  urcu_qsbr_register_thread();
  return true;
}

void ControlThread::endTurn() {
  SFE_RCU_QUIESCENT();
  urcu_qsbr_unregister_thread();
  const std::lock_guard lock(mutex_);
  runner_ = std::thread::id();
  if (stopping_ || !queue_.empty()) {
    wake_.notify_one();
  }
}

void ControlThread::loop() {
  pthread_setname_np(pthread_self(), "bess-control");
  urcu_qsbr_register_thread();
  while (true) {
    std::function<void()> fn;
    SFE_RCU_QUIESCENT();
    urcu_qsbr_thread_offline();
    {
      std::unique_lock lock(mutex_);
      if (onThread()) {
        runner_ = std::thread::id();
      }
      wake_.wait(lock,
                 [this] { return runner_ == std::thread::id() && (stopping_ || !queue_.empty()); });
      runner_ = std::this_thread::get_id();
      if (!queue_.empty()) {
        fn = std::move(queue_.front());
        queue_.pop_front();
      }
    }
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
