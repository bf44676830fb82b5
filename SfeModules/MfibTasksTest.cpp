// Batches, the commands that register the tasks, cleanup runs and runs of neither task.
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

#include "SfeModules/Testing/LogLines.h"
#include "SfeModules/Testing/StateFiles.h"
#include "SfeModules/Testing/TasksFixture.h"

namespace SfeModules {
namespace {

using std::chrono::seconds;

class MfibTasks : public TasksFixture {};

// --- Registration ---------------------------------------------------------------------------

TEST_F(MfibTasks, registeringAnswersWithTaskWorkerVrfAndModule) {
  const sfe::pb::MfibTaskIdArg answer = answerOf(mfib_->regMfibTasks({}));
  EXPECT_EQ(answer.task_id(), mfib_->tasks().size() - 1);
  EXPECT_EQ(answer.worker_id(), -1) << "the control thread is no worker";
  EXPECT_EQ(answer.vrf_name(), "default");
  EXPECT_EQ(answer.module_name(), mfib_->name());
  EXPECT_NE(answer.task_id(), resolution_) << "a second task, beside the first";
  harness_.run([&] {
    const sfe::pb::MfibTaskIdArg cleanup = answerOf(mfib_->regCleanupTask({}));
    EXPECT_EQ(cleanup.task_id(), mfib_->tasks().size() - 1);
    EXPECT_EQ(cleanup.worker_id(), 0);
    EXPECT_EQ(cleanup.vrf_name(), "default");
    EXPECT_EQ(cleanup.module_name(), mfib_->name());
  });
  EXPECT_EQ(mfib_->tasks().size(), 4U);
}

TEST_F(MfibTasks, registeringTracesItsStepsInOrder) {
  const TraceLevel level(6);
  const LogLines log;
  mfib_->regMfibTasks({});
  EXPECT_LT(log.at("CommandResponse SfeModules::Mfib::regMfibTasks(const "
                   "sfe::pb::MfibTaskIdArg&): Registering NoCacheManager task... "),
            log.at("Create mount path for dumping state from bessd"));
  EXPECT_EQ(log.with("Create mount path for dumping state from bessd"), 1U);
  mfib_->regCleanupTask({});
  EXPECT_EQ(log.with("CommandResponse SfeModules::Mfib::regCleanupTask(const "
                     "sfe::pb::MfibTaskIdArg&): Registering CleanupTask task... "),
            1U);
  EXPECT_EQ(log.with("Create mount path for dumping state from bessd"), 1U);
}

TEST_F(MfibTasks, registeringFailsWhenTheModuleHasNoTaskLeft) {
  while (mfib_->RegisterTask(nullptr) != kInvalidTaskId) {
  }
  for (const CommandResponse& response : {mfib_->regMfibTasks({}), mfib_->regCleanupTask({})}) {
    ASSERT_TRUE(response.has_error());
    EXPECT_EQ(response.error().code(), ENOMEM);
    EXPECT_EQ(response.error().errmsg(), "Task creation failed");
  }
}

TEST_F(MfibTasks, onlyTheResolutionTaskBringsTheStateFile) {
  route(group(1));
  EXPECT_EQ(stateFile("/Mroute4_default").substr(0, 35), "Source: 10.0.0.2 Group: 239.2.0.1\nI");
  destroyInstance();
  createInstance();
  mfib_->regCleanupTask({});
  EXPECT_FALSE(stateFileExists("/Mroute4_default"));
  mfib_->regMfibTasks({});
  EXPECT_TRUE(stateFileExists("/Mroute4_default"));
  EXPECT_EQ(stateFile("/Mroute4_default"), "");
}

// --- Batches --------------------------------------------------------------------------------

TEST_F(MfibTasks, anEmptyBatchDoesNothing) {
  EXPECT_TRUE(receiveBatch({}).empty());
  harness_.run([&] {
    bess::PacketBatch* batch = harness_.task().AllocPacketBatch();
    mfib_->ProcessBatch(&harness_.context(), batch);
    harness_.task().runPending(&harness_.context());
  });
  EXPECT_TRUE(harness_.take(*mfib_).empty());
  EXPECT_EQ(MfibTestPeer::intfCounters(*mfib_).size(), 0U);
}

TEST_F(MfibTasks, aBatchReadsTheClockOnceAndOnceMoreForEachPacketItHolds) {
  route(group(1));
  auto readings = [&](unsigned count, const std::string& to) {
    std::vector<bess::PacketPtr> packets;
    for (unsigned i = 0; i < count; ++i) {
      packets.push_back(arriving(frame(to), {.intf = "Ethernet0"}));
    }
    const ClockReadings clock;
    receiveBatch(std::move(packets));
    return clock.count();
  };
  EXPECT_EQ(readings(20, group(1)), 1U);
  EXPECT_EQ(readings(20, group(2)), 1U + 3U) << "three are held, the others refused";
}

TEST_F(MfibTasks, aBatchKeepsPacketsOfOneInterfaceAndGateTogether) {
  route(group(1));
  std::vector<bess::PacketPtr> packets;
  for (int i = 0; i < 32; ++i) {
    packets.push_back(arriving(frame(group(1)), {.intf = "Ethernet0"}));
  }
  EXPECT_EQ(receiveBatch(std::move(packets)).count(1), 32U);
}

TEST_F(MfibTasks, packetsForAGateThatLeadsNowhereAreCountedAndFreed) {
  route(group(1), "Ethernet0", 100);
  route(group(2), "Ethernet0", 9999);  // beyond the class's gates
  const size_t before = packetsInUse();
  const uint64_t deadEnds = mfib_->deadEnds(harness_.wid());
  const uint64_t silent = harness_.context().silentDrops;
  EXPECT_TRUE(receive(frame(group(1)), "Ethernet0").empty());
  EXPECT_TRUE(receive(frame(group(2)), "Ethernet0").empty());
  EXPECT_EQ(mfib_->deadEnds(harness_.wid()), deadEnds + 2);
  EXPECT_EQ(harness_.context().silentDrops, silent + 2);
  EXPECT_EQ(packetsInUse(), before);
}

TEST_F(MfibTasks, aWorkerBeyondTheLimitIsFatalWhenASecondGateIsUsed) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  addRoute({.source = kSource,
            .group = group(1),
            .iif = "Ethernet0",
            .oifs = {{"Ethernet1", 1}, {"Ethernet2", 2}}});
  EXPECT_DEATH(
      {
        harness_.context().wid = MAX_WORKERS;
        receive(frame(group(1)), "Ethernet0");
      },
      "Check failed: wid < MAX_WORKERS && wid >= 0 ");
}

// --- Cleanup and other runs -----------------------------------------------------------------

TEST_F(MfibTasks, aCleanupRunBlocksUnlessSomethingWasDone) {
  expectIdle(cleanUp());
  MfibTestPeer::sgAlerts(*mfib_).insert(key(kSource, group(1)), ManualClock::now() - seconds(60));
  expectBusyWithout(cleanUp());
  expectIdle(cleanUp());
  hold(group(1));
  ManualClock::advance(seconds(11));
  expectBusyWithout(cleanUp());
  EXPECT_EQ(cache().packetCount(), 0U);
  expectIdle(cleanUp());
  mfib_->addWrongVifTimestamp(key(kSource, group(1)), 5, ManualClock::now() - seconds(60));
  MfibTestPeer::runTaskCount(*mfib_) = 30;
  expectBusyWithout(cleanUp());
  MfibTestPeer::runTaskCount(*mfib_) = 30;
  expectIdle(cleanUp());
}

TEST_F(MfibTasks, aCleanupRunReviewsBeforeItCountsItself) {
  EXPECT_EQ(MfibTestPeer::runTaskCount(*mfib_), 0U);
  mfib_->addWrongVifTimestamp(key(kSource, group(1)), 5, ManualClock::now() - seconds(60));
  cleanUp();  // run 0 is one in thirty
  EXPECT_EQ(MfibTestPeer::wrongVifTimes(*mfib_).size(), 0U);
  EXPECT_EQ(MfibTestPeer::runTaskCount(*mfib_), 1U);
  resolve();
  EXPECT_EQ(MfibTestPeer::runTaskCount(*mfib_), 1U) << "only cleanup runs count";
}

TEST_F(MfibTasks, aRunWithoutTagOrBatchOrWithAnotherTagOnlyExpires) {
  static int cleanupTag = 2;
  static int otherTag = 1;
  static int resolutionTag = 0;
  bess::PacketBatch batch;
  batch.clear();
  const std::array<std::pair<void*, bess::PacketBatch*>, 4> runs = {
      {{nullptr, &batch}, {&cleanupTag, nullptr}, {&resolutionTag, nullptr}, {&otherTag, &batch}}};
  for (const auto& [tag, given] : runs) {
    hold(group(1));
    route(group(1));
    MfibTestPeer::sgAlerts(*mfib_).insert(key(kSource, group(7)), ManualClock::now() - seconds(60));
    auto run = [&, tag = tag, given = given] {
      TaskResult result;
      harness_.run([&] { result = mfib_->RunTask(&harness_.context(), given, tag); });
      return result;
    };
    expectIdle(run());
    EXPECT_FALSE(cache().resolvedQueueEmpty());
    EXPECT_EQ(MfibTestPeer::sgAlerts(*mfib_).size(), 1U);
    EXPECT_EQ(MfibTestPeer::runTaskCount(*mfib_), 0U);
    ManualClock::advance(seconds(11));
    expectBusyWithout(run());
    EXPECT_EQ(cache().packetCount(), 0U);
    resolve();
    deleteRoute(kSource, group(1));
  }
}

}  // namespace
}  // namespace SfeModules
