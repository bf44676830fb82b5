#include "Bess/Worker.h"

#include <glog/logging.h>
#include <linux/futex.h>
#include <pthread.h>
#include <rte_errno.h>
#include <rte_lcore.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <urcu-qsbr.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "Base/Orp/SystemException.h"
#include "Base/RcuAnnotate.h"
#include "Bess/Cores.h"
#include "Bess/Eal.h"
#include "Bess/ModuleGraph.h"
#include "Bess/Scheduler.h"

constinit thread_local Worker current_worker;

ScopedWorkerIdentity::ScopedWorkerIdentity(int wid, int core, bess::PacketPool* pool)
    : saved_(current_worker) {
  current_worker.wid_ = wid;
  current_worker.core_ = core;
  current_worker.pool_ = pool;
}

ScopedWorkerIdentity::~ScopedWorkerIdentity() {
  current_worker = saved_;
}

namespace {

constexpr uint64_t kFirstSleepNs = 1'000;
// Reached within a few rounds without work.
constexpr uint64_t kShortSleepNs = 100'000;
// A worker that has had nothing to do for some time may sleep for this part of it, up to the most:
// traffic that flows is not kept waiting, and a daemon that idles costs next to nothing.
constexpr uint64_t kIdlePart = 64;
constexpr uint64_t kMaxSleepNs = 4'000'000;

// What control and the workers tell each other: one lock and one condition for all of them, taken
// on pauses, launches and ends only.
std::mutex stateMutex;
std::condition_variable stateChanged;
int pauseDepth = 0;  // guarded by stateMutex

// A total with one writer.
class Total {
 public:
  void add(uint64_t n) { value_.store(get() + n, std::memory_order_relaxed); }
  void set(uint64_t n) { value_.store(n, std::memory_order_relaxed); }
  uint64_t get() const { return value_.load(std::memory_order_relaxed); }

 private:
  std::atomic<uint64_t> value_{0};
};

uint64_t monotonicNs() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                   std::chrono::steady_clock::now().time_since_epoch())
                                   .count());
}

void goOffline() {
  SFE_RCU_QUIESCENT();
  urcu_qsbr_thread_offline();
}

}  // namespace

class WorkerThread {
 public:
  WorkerThread(int wid, const WorkerOptions& options)
      : wid_(wid), options_(options), scheduler_(wid, options.spin) {}

  // Returns once the thread is in its loop. Errors: what kept it from getting there.
  void start();
  void stop();

  // Both: stateMutex held.
  void requestAttention();
  bool paused() const { return paused_; }

  Scheduler& scheduler() { return scheduler_; }
  WorkerStatus status() const;

 private:
  void threadMain(std::promise<void>* started);
  void pin() const;
  void loop();
  bool attend();
  void waitWithoutTasks();
  void sleep(uint64_t nowNs, const Scheduler::Round& round);
  void publish(const Scheduler::Round& round);

  const int wid_;
  const WorkerOptions options_;
  std::thread thread_;

  std::atomic<uint32_t> attention_{1};  // not 0: control wants something, see attend()
  bool paused_ = false;                 // guarded by stateMutex
  bool stopping_ = false;               // guarded by stateMutex

  // The worker's, and control's while it is paused.
  Scheduler scheduler_;
  uint64_t sleepNs_ = 0;
  uint64_t workedNs_ = 0;  // when a round did something last

  // Written by the worker.
  Total rounds_, idleRounds_, busyNs_, idleNs_, batches_, packets_, bits_, silentDrops_;
};

void WorkerThread::start() {
  // Shared: the thread is still inside its promise when the result can be had already.
  auto started = std::make_shared<std::promise<void>>();
  std::future<void> result = started->get_future();
  thread_ = std::thread([this, started] { threadMain(started.get()); });
  try {
    result.get();
  } catch (...) {
    thread_.join();
    throw;
  }
}

// A worker that sleeps wakes up.
void WorkerThread::requestAttention() {
  static_assert(sizeof(attention_) == sizeof(uint32_t));
  attention_.store(1, std::memory_order_release);
  syscall(SYS_futex, &attention_, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

void WorkerThread::stop() {
  {
    std::lock_guard lock(stateMutex);
    stopping_ = true;
    requestAttention();
  }
  stateChanged.notify_all();
  thread_.join();
}

void WorkerThread::pin() const {
  cpu_set_t set = bess::usableCoreSet();
  if (options_.core >= 0) {
    CPU_ZERO(&set);
    CPU_SET(options_.core, &set);
  }
  if (int error = pthread_setaffinity_np(pthread_self(), sizeof(set), &set); error != 0) {
    throw Orp::SystemException(error, "worker " + std::to_string(wid_) + " cannot run on core " +
                                          std::to_string(options_.core));
  }
}

void WorkerThread::threadMain(std::promise<void>* started) {
  try {
    pthread_setname_np(pthread_self(), ("bess-w" + std::to_string(wid_)).c_str());
    pin();
    // Gives the thread a packet cache of its own.
    if (rte_thread_register() != 0) {
      throw Orp::SystemException(rte_errno,
                                 "worker " + std::to_string(wid_) + " is refused by DPDK");
    }
  } catch (...) {
    started->set_exception(std::current_exception());
    return;
  }
  {
    ScopedWorkerIdentity identity(wid_, options_.core,
                                  bess::PacketPool::defaultPool(static_cast<int>(rte_socket_id())));
    urcu_qsbr_register_thread();
    started->set_value();
    loop();
    SFE_RCU_QUIESCENT();
    urcu_qsbr_unregister_thread();
  }
  rte_thread_unregister();
}

void WorkerThread::loop() {
  uint64_t last = monotonicNs();
  workedNs_ = last;
  while (true) {
    if (attention_.load(std::memory_order_acquire) != 0 && !attend()) {
      return;
    }
    const uint64_t start = monotonicNs();
    idleNs_.add(start - last);
    const Scheduler::Round round = scheduler_.runRound(start);
    SFE_RCU_QUIESCENT();
    urcu_qsbr_quiescent_state();
    publish(round);
    last = monotonicNs();
    (round.worked ? busyNs_ : idleNs_).add(last - start);
    if (round.worked) {
      sleepNs_ = 0;
      workedNs_ = last;
    } else if (scheduler_.tasks().empty()) {
      waitWithoutTasks();
    } else if (!options_.spin) {
      sleep(last, round);
    }
  }
}

void WorkerThread::publish(const Scheduler::Round& round) {
  rounds_.add(1);
  if (!round.worked) {
    idleRounds_.add(1);
  }
  packets_.add(round.packets);
  bits_.add(round.bits);
  batches_.set(scheduler_.context().batches);
  silentDrops_.set(scheduler_.context().silentDrops);
}

// Stands still while the workers are paused. Returns: false when the thread is to end.
bool WorkerThread::attend() {
  goOffline();
  bool goOn = false;
  {
    std::unique_lock lock(stateMutex);
    paused_ = true;
    stateChanged.notify_all();
    stateChanged.wait(lock, [this] { return pauseDepth == 0 || stopping_; });
    paused_ = false;
    attention_.store(0, std::memory_order_relaxed);
    goOn = !stopping_;
  }
  workedNs_ = monotonicNs();  // a pause is no silence
  urcu_qsbr_thread_online();
  return goOn;
}

// Tasks come only while the worker is paused, so until then there is nothing to look for.
void WorkerThread::waitWithoutTasks() {
  goOffline();
  {
    std::unique_lock lock(stateMutex);
    stateChanged.wait(lock, [this] { return attention_.load(std::memory_order_relaxed) != 0; });
  }
  urcu_qsbr_thread_online();
}

// A task that had nothing to do is looked at again when it is due, or later in a worker that has
// been idle for some time; a limited one is never late.
void WorkerThread::sleep(uint64_t nowNs, const Scheduler::Round& round) {
  sleepNs_ = std::clamp(sleepNs_ * 2, kFirstSleepNs, kShortSleepNs);
  const auto until = [nowNs](uint64_t dueNs) { return dueNs <= nowNs ? 0 : dueNs - nowNs; };
  const uint64_t due = until(round.dueNs);
  const uint64_t idle = std::min((nowNs - workedNs_) / kIdlePart, kMaxSleepNs);
  const uint64_t ns =
      std::max(due == 0 ? sleepNs_ : std::min(sleepNs_, due), std::min(idle, until(round.limitNs)));
  goOffline();
  const timespec time = {.tv_sec = 0, .tv_nsec = static_cast<long>(ns)};  // NOLINT: its type
  syscall(SYS_futex, &attention_, FUTEX_WAIT_PRIVATE, 0, &time, nullptr, 0);
  urcu_qsbr_thread_online();
}

WorkerStatus WorkerThread::status() const {
  WorkerStatus status;
  status.wid = wid_;
  status.core = options_.core;
  status.tasks = scheduler_.tasks().size();
  status.stats = {.rounds = rounds_.get(),
                  .idleRounds = idleRounds_.get(),
                  .busyNs = busyNs_.get(),
                  .idleNs = idleNs_.get(),
                  .batches = batches_.get(),
                  .packets = packets_.get(),
                  .bits = bits_.get(),
                  .silentDrops = silentDrops_.get()};
  return status;
}

namespace {

// Control's.
std::array<std::unique_ptr<WorkerThread>, MAX_WORKERS> workers;

std::vector<WorkerObserver>& observers() {
  static std::vector<WorkerObserver>& list = *new std::vector<WorkerObserver>;
  return list;
}

void notifyObservers(int wid, bool up) {
  for (const WorkerObserver& observer : observers()) {
    observer(wid, up);
  }
}

std::string nameOf(int wid) {
  return "worker " + std::to_string(wid);
}

void checkLaunch(int wid, int core) {
  if (wid < 0 || wid >= MAX_WORKERS) {
    throw Orp::SystemException(EINVAL,
                               nameOf(wid) + ": ids are 0 to " + std::to_string(MAX_WORKERS - 1));
  }
  if (workers[wid] != nullptr) {
    throw Orp::SystemException(EEXIST, nameOf(wid) + " runs already");
  }
  if (core < -1 || core >= CPU_SETSIZE || (core >= 0 && !CPU_ISSET(core, &bess::usableCoreSet()))) {
    throw Orp::SystemException(EINVAL, nameOf(wid) + ": there is no core " + std::to_string(core) +
                                           " that this process may use");
  }
  if (!bess::ealRunning()) {
    throw Orp::SystemException(EAGAIN, nameOf(wid) + ": DPDK is not started");
  }
}

}  // namespace

void launchWorker(int wid, const WorkerOptions& options) {
  checkLaunch(wid, options.core);
  auto worker = std::make_unique<WorkerThread>(wid, options);
  notifyObservers(wid, true);
  try {
    worker->start();
  } catch (...) {
    notifyObservers(wid, false);
    throw;
  }
  workers[wid] = std::move(worker);
}

void destroyWorker(int wid) {
  if (!isWorkerRunning(wid)) {
    throw Orp::SystemException(ENOENT, nameOf(wid) + " does not run");
  }
  if (const size_t tasks = workers[wid]->scheduler().tasks().size(); tasks != 0) {
    throw Orp::SystemException(EBUSY, nameOf(wid) + " has " + std::to_string(tasks) + " attached " +
                                          (tasks == 1 ? "task" : "tasks"));
  }
  workers[wid]->stop();
  workers[wid].reset();
  notifyObservers(wid, false);
}

void destroyAllWorkers() {
  for (int wid = 0; wid < MAX_WORKERS; wid++) {
    if (workers[wid] != nullptr) {
      workers[wid]->stop();
      workers[wid].reset();
      notifyObservers(wid, false);
    }
  }
}

void pauseWorkers() {
  std::unique_lock lock(stateMutex);
  pauseDepth++;
  for (const auto& worker : workers) {
    if (worker != nullptr) {
      worker->requestAttention();
    }
  }
  stateChanged.notify_all();
  stateChanged.wait(lock, [] {
    return std::all_of(workers.begin(), workers.end(),
                       [](const auto& worker) { return worker == nullptr || worker->paused(); });
  });
}

void resumeWorkers() {
  bool last = false;
  {
    std::lock_guard lock(stateMutex);
    CHECK_GT(pauseDepth, 0) << "resumed without a pause";
    last = pauseDepth == 1;
  }
  if (last) {
    ModuleGraph::sendEvent(bess::Event::kPreResume);
  }
  {
    std::lock_guard lock(stateMutex);
    pauseDepth--;
  }
  stateChanged.notify_all();
}

bool workersPaused() {
  std::lock_guard lock(stateMutex);
  return pauseDepth > 0;
}

bool isWorkerRunning(int wid) {
  return wid >= 0 && wid < MAX_WORKERS && workers[wid] != nullptr;
}

void attachTask(Task* task, int wid, uint64_t ratePerSecond) {
  if (!isWorkerRunning(wid)) {
    throw Orp::SystemException(ENOENT, nameOf(wid) + " does not run");
  }
  workers[wid]->scheduler().attach(task, ratePerSecond);
}

void detachTask(Task* task) {
  if (isWorkerRunning(task->worker())) {
    workers[task->worker()]->scheduler().detach(task);
  }
}

std::vector<WorkerStatus> workerStatus() {
  std::vector<WorkerStatus> result;
  const bool running = !workersPaused();
  for (const auto& worker : workers) {
    if (worker != nullptr) {
      result.push_back(worker->status());
      result.back().running = running;
    }
  }
  return result;
}

void addWorkerObserver(WorkerObserver observer) {
  observers().push_back(std::move(observer));
}
