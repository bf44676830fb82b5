#include "Bess/Worker.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <urcu-qsbr.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "Bess/Cores.h"
#include "Bess/Module.h"
#include "Bess/Testing/ModuleHarness.h"
#include "Bess/Testing/TestModules.h"

namespace {

using bess::testing::Ticker;

class WorkerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (bess::PacketPool::defaultPool() == nullptr) {
      bess::PacketPool::createDefaultPools(bess::testing::ModuleHarness::kPoolCount);
    }
  }
  void TearDown() override { destroyAllWorkers(); }

  static int launchError(int wid, int core) {
    try {
      launchWorker(wid, core);
    } catch (const std::system_error& e) {
      return e.code().value();
    }
    return 0;
  }
  void attach(int wid, uint64_t rate = 0) {
    ScopedWorkerPause pause;
    attachTask(&task_, wid, rate);
  }

  Ticker ticker_;
  Task task_{&ticker_, nullptr};
};

TEST_F(WorkerTest, isNobodyOnAThreadThatIsNoWorker) {
  EXPECT_EQ(current_worker.wid(), -1);
  EXPECT_EQ(current_worker.packetPool(), bess::PacketPool::defaultPool());
  {
    ScopedWorkerIdentity identity(7);
    EXPECT_EQ(current_worker.wid(), 7);
    std::thread([] { EXPECT_EQ(current_worker.wid(), -1); }).join();
  }
  EXPECT_EQ(current_worker.wid(), -1);
}

TEST_F(WorkerTest, runsAttachedTask) {
  launchWorker(4);
  attach(4);
  ticker_.awaitRuns(10);
  EXPECT_EQ(ticker_.lastWid, 4);
  pauseWorkers();
  const auto status = workerStatus();
  resumeWorkers();
  ASSERT_EQ(status.size(), 1U);
  EXPECT_EQ(status[0].wid, 4);
  EXPECT_EQ(status[0].core, -1);
  EXPECT_EQ(status[0].tasks, 1U);
  EXPECT_FALSE(status[0].running);
  EXPECT_GE(status[0].stats.rounds, 10U);
  EXPECT_GE(status[0].stats.packets, 10U);
  EXPECT_EQ(status[0].stats.bits, status[0].stats.packets * 8);
  EXPECT_GT(status[0].stats.busyNs, 0U);
}

TEST_F(WorkerTest, pinsToItsCore) {
  const int core = bess::usableCores().back();
  class Where : public Ticker {
   public:
    TaskResult RunTask(Context* ctx, bess::PacketBatch* batch, void* arg) override {
      cpu_set_t set;
      pthread_getaffinity_np(pthread_self(), sizeof(set), &set);
      cores = CPU_COUNT(&set);
      core = sched_getcpu();
      return Ticker::RunTask(ctx, batch, arg);
    }
    std::atomic<int> cores{0};
    std::atomic<int> core{-1};
  } where;
  Task task(&where, nullptr);
  launchWorker(0, core);
  {
    ScopedWorkerPause pause;
    attachTask(&task, 0, 0);
  }
  where.awaitRuns(1);
  EXPECT_EQ(where.cores, 1);
  EXPECT_EQ(where.core, core);
  destroyAllWorkers();
}

TEST_F(WorkerTest, refusesWhatCannotBe) {
  EXPECT_EQ(launchError(-1, -1), EINVAL);
  EXPECT_EQ(launchError(MAX_WORKERS, -1), EINVAL);
  EXPECT_EQ(launchError(0, CPU_SETSIZE - 1), EINVAL);
  EXPECT_EQ(launchError(0, CPU_SETSIZE), EINVAL);
  EXPECT_EQ(launchError(0, -2), EINVAL);
  EXPECT_EQ(launchError(0, -1), 0);
  EXPECT_EQ(launchError(0, -1), EEXIST);
  EXPECT_THROW(destroyWorker(1), std::system_error);
  attach(0);
  EXPECT_THROW(destroyWorker(0), std::system_error);
  EXPECT_TRUE(isWorkerRunning(0));
  {
    ScopedWorkerPause pause;
    EXPECT_THROW(attachTask(&task_, 3, 0), std::system_error);
    detachTask(&task_);
    detachTask(&task_);
  }
  destroyWorker(0);
  EXPECT_FALSE(isWorkerRunning(0));
}

TEST_F(WorkerTest, runsAsManyWorkersAsThereMayBe) {
  for (int wid = 0; wid < MAX_WORKERS; wid++) {
    launchWorker(wid);
  }
  EXPECT_EQ(workerStatus().size(), 36U);
  ScopedWorkerPause pause;
}

TEST_F(WorkerTest, standsStillUntilEveryPauseHasEnded) {
  launchWorker(0);
  attach(0);
  ticker_.awaitRuns(1);
  pauseWorkers();
  pauseWorkers();
  const int seen = ticker_.runs;
  resumeWorkers();
  EXPECT_TRUE(workersPaused());
  launchWorker(1);  // begins paused
  EXPECT_EQ(ticker_.runs, seen);
  resumeWorkers();
  EXPECT_FALSE(workersPaused());
  ticker_.awaitRuns(1);
}

TEST_F(WorkerTest, endsWhilePaused) {
  launchWorker(0);
  launchWorker(1);
  attach(0);
  pauseWorkers();
  destroyWorker(1);
  destroyAllWorkers();
  EXPECT_EQ(task_.worker(), -1);
  resumeWorkers();
}

TEST_F(WorkerTest, doesNotHoldUpGracePeriods) {
  launchWorker(0);
  urcu_qsbr_synchronize_rcu();  // without tasks
  attach(0);
  ticker_.awaitRuns(1);
  urcu_qsbr_synchronize_rcu();  // busy
  ticker_.block = true;
  ticker_.awaitRuns(20);
  urcu_qsbr_synchronize_rcu();  // mostly asleep
  ScopedWorkerPause pause;
  urcu_qsbr_synchronize_rcu();
}

TEST_F(WorkerTest, keepsItsRateWhileItSleepsInBetween) {
  launchWorker(0);
  attach(0, 2000);
  ticker_.awaitRuns(20);
  pauseWorkers();
  EXPECT_GT(workerStatus()[0].stats.idleRounds, 0U);
  EXPECT_GT(workerStatus()[0].stats.idleNs, workerStatus()[0].stats.busyNs);
  resumeWorkers();
}

TEST_F(WorkerTest, runsWithoutSleepWhenItSpins) {
  launchWorker(0, WorkerOptions{.core = -1, .spin = true});
  ticker_.block = true;
  attach(0);
  ticker_.awaitRuns(1000);
}

TEST_F(WorkerTest, countsSilentDropsAndBatches) {
  class Leak : public Ticker {
   public:
    TaskResult RunTask(Context* ctx, bess::PacketBatch* batch, void* arg) override {
      batch->add(current_worker.packetPool()->alloc());
      RunNextModule(ctx, batch);
      return Ticker::RunTask(ctx, batch, arg);
    }
  } leak;
  Task task(&leak, nullptr);
  launchWorker(2);
  {
    ScopedWorkerPause pause;
    attachTask(&task, 2, 0);
  }
  leak.awaitRuns(5);
  pauseWorkers();
  EXPECT_EQ(workerStatus()[0].stats.silentDrops, static_cast<uint64_t>(leak.runs));
  EXPECT_EQ(leak.deadEnds(2), static_cast<uint64_t>(leak.runs));
  resumeWorkers();
  destroyAllWorkers();
}

TEST_F(WorkerTest, tellsObserversOfLaunchAndEnd) {
  // Observers stay for the life of the process: the list must, too.
  static std::vector<std::pair<int, bool>> seen;
  addWorkerObserver([](int wid, bool up) { seen.emplace_back(wid, up); });
  launchWorker(3);
  destroyWorker(3);
  EXPECT_EQ(seen, (std::vector<std::pair<int, bool>>{{3, true}, {3, false}}));
}

TEST(WorkerDeathTest, diesOfResumeWithoutPause) {
  EXPECT_DEATH(resumeWorkers(), "resumed without a pause");
}

}  // namespace
