// A task's run queue together with the output gate step of Module::RunChooseModule.
#include "Bess/Task.h"

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <vector>

#include "Bess/BatchSizes.h"
#include "Bess/Module.h"
#include "Bess/PacketPool.h"
#include "Bess/Testing/ModuleHarness.h"
#include "Bess/Testing/TestModules.h"

namespace {

using bess::Packet;
using bess::PacketBatch;
using bess::PacketPool;
using bess::testing::Scripted;
using bess::testing::Sizes;

class TaskTest : public ::testing::Test {
 protected:
  PacketBatch* batchOf(int n) {
    PacketBatch* batch = task_.AllocPacketBatch();
    for (int i = 0; i < n; i++) {
      batch->add(pool_.alloc());
    }
    return batch;
  }

  PacketPool pool_{"task-test", 512, 256};
  std::vector<int> sizes_;
  Scripted from_;
  Sizes a_{&sizes_};
  Task task_{&from_, nullptr};
  Context ctx_{.task = &task_, .wid = 3};
};

TEST_F(TaskTest, skipsEmptyBatch) {
  from_.connectGate(0, &a_, 0);
  from_.RunNextModule(&ctx_, batchOf(0));
  from_.RunChooseModule(&ctx_, 5, batchOf(0));
  task_.runPending(&ctx_);
  EXPECT_TRUE(sizes_.empty());
  EXPECT_EQ(ctx_.silentDrops, 0U);
}

TEST_F(TaskTest, deadEndsWhatLeavesByGateThatLeadsNowhere) {
  from_.connectGate(2, &a_, 0);
  PacketBatch* beyond = batchOf(3);
  PacketBatch* hole = batchOf(4);
  from_.RunChooseModule(&ctx_, 3, beyond);
  from_.RunChooseModule(&ctx_, 1, hole);
  EXPECT_TRUE(beyond->empty());
  EXPECT_TRUE(hole->empty());
  EXPECT_EQ(from_.deadEnds(3), 7U);
  EXPECT_EQ(from_.deadEnds(2), 0U);
  EXPECT_EQ(from_.deadEnds(), 7U);
  EXPECT_EQ(ctx_.silentDrops, 7U);
  EXPECT_EQ(pool_.inUse(), 0U);
}

TEST_F(TaskTest, neverMergesIntoTheNextBatch) {
  from_.connectGate(0, &a_, 0);
  from_.RunNextModule(&ctx_, batchOf(1));
  from_.RunNextModule(&ctx_, batchOf(2));
  task_.runPending(&ctx_);
  EXPECT_EQ(sizes_, (std::vector<int>{1, 2}));
}

TEST_F(TaskTest, mergesIntoPendingBatchUpTo32) {
  from_.connectGate(0, &a_, 0);
  from_.RunNextModule(&ctx_, batchOf(1));
  from_.RunNextModule(&ctx_, batchOf(20));
  PacketBatch* fits = batchOf(12);
  from_.RunNextModule(&ctx_, fits);
  EXPECT_TRUE(fits->empty());
  task_.runPending(&ctx_);
  EXPECT_EQ(sizes_, (std::vector<int>{1, 32}));
}

TEST_F(TaskTest, countsBatchesByTheirSize) {
  from_.connectGate(0, &a_, 0);
  const auto before = bess::BatchSizes::of(ctx_.wid);
  uint64_t packets = 0;
  for (const int size : {1, 2, 3, 4, 5, 8, 9, 16, 17, 32}) {
    from_.RunNextModule(&ctx_, batchOf(size));
    task_.runPending(&ctx_);
    packets += static_cast<uint64_t>(size);
  }
  const auto after = bess::BatchSizes::of(ctx_.wid);
  const std::array<uint64_t, bess::BatchSizes::kBuckets> expected = {1, 1, 2, 2, 2, 2};
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(after.batches[i] - before.batches[i], expected[i]) << i;
  }
  EXPECT_EQ(after.packets - before.packets, packets);
}

TEST_F(TaskTest, runsNewestOfTheBatchesThatDoNotMergeFirst) {
  from_.connectGate(0, &a_, 0);
  from_.RunNextModule(&ctx_, batchOf(1));
  from_.RunNextModule(&ctx_, batchOf(20));
  from_.RunNextModule(&ctx_, batchOf(13));
  // The newest is the pending one now: it is what takes more.
  from_.RunNextModule(&ctx_, batchOf(5));
  task_.runPending(&ctx_);
  EXPECT_EQ(sizes_, (std::vector<int>{1, 18, 20}));
  EXPECT_EQ(a_.igate(0)->pending(3), nullptr);
}

TEST_F(TaskTest, keepsBatchesOfTwoWorkersApart) {
  from_.connectGate(0, &a_, 0);
  Task other(&from_, nullptr);
  Context otherCtx{.task = &other, .wid = 4};
  for (Context* ctx : {&ctx_, &otherCtx}) {
    from_.RunNextModule(ctx, batchOf(1));
    from_.RunNextModule(ctx, batchOf(2));
  }
  task_.runPending(&ctx_);
  EXPECT_EQ(sizes_, (std::vector<int>{1, 2}));
  other.runPending(&otherCtx);
  EXPECT_EQ(sizes_, (std::vector<int>{1, 2, 1, 2}));
}

TEST_F(TaskTest, runsWhatAModulePassesOnBeforeWhatWaits) {
  Scripted middle;
  std::vector<int> last;
  Sizes end(&last);
  middle.onBatch = [&](Context* ctx, PacketBatch* batch) {
    last.push_back(-ctx->currentIgate);
    middle.RunNextModule(ctx, batch);
  };
  from_.connectGate(0, &middle, 1);
  from_.connectGate(1, &middle, 2);
  middle.connectGate(0, &end, 0);
  from_.RunChooseModule(&ctx_, 0, batchOf(4));
  from_.RunChooseModule(&ctx_, 1, batchOf(5));
  task_.runPending(&ctx_);
  EXPECT_EQ(last, (std::vector<int>{-1, 4, -2, 5}));
}

TEST_F(TaskTest, givesTheSameBatchesToTheNextRun) {
  PacketBatch* first = task_.AllocPacketBatch();
  for (unsigned i = 1; i < Task::kMaxBatches; i++) {
    task_.AllocPacketBatch();
  }
  task_.runPending(&ctx_);
  EXPECT_EQ(task_.AllocPacketBatch(), first);
}

TEST_F(TaskTest, batchesEmittedPacketsByGate) {
  std::vector<int> others;
  Sizes b(&others);
  from_.connectGate(0, &a_, 0);
  from_.connectGate(9, &b, 0);
  for (int i = 0; i < 40; i++) {
    from_.EmitPacket(&ctx_, pool_.alloc());
    from_.EmitPacket(&ctx_, pool_.alloc(), 9);
  }
  from_.EmitPacket(&ctx_, pool_.alloc(), 7);
  from_.EmitPacket(&ctx_, pool_.alloc(), 0xFFFF);
  task_.runPending(&ctx_);
  EXPECT_EQ(sizes_, (std::vector<int>{32, 8}));
  EXPECT_EQ(others.size(), 2U);
  EXPECT_EQ(others[0] + others[1], 40);
  EXPECT_EQ(from_.deadEnds(3), 2U);
  EXPECT_EQ(pool_.inUse(), 0U);
}

TEST_F(TaskTest, freesDroppedPacketsAtTheEndOfTheRun) {
  for (int i = 0; i < 20; i++) {
    from_.DropPacket(&ctx_, pool_.alloc());
  }
  EXPECT_EQ(pool_.inUse(), 20U);
  for (int i = 0; i < 20; i++) {
    from_.DropPacket(&ctx_, pool_.alloc());
  }
  task_.runPending(&ctx_);
  EXPECT_EQ(pool_.inUse(), 0U);
  EXPECT_EQ(from_.drops(3), 40U);
  EXPECT_EQ(from_.drops(), 40U);
  EXPECT_EQ(ctx_.silentDrops, 0U);
}

TEST_F(TaskTest, runCallsTheModuleWithItsTagAndAnEmptyBatch) {
  int tag = 2;
  Task task(&from_, &tag);
  Context ctx{.task = &task, .wid = 0};
  from_.connectGate(0, &a_, 0);
  from_.onRun = [&](Context* c, PacketBatch* batch, void* arg) {
    EXPECT_TRUE(batch->empty());
    EXPECT_EQ(arg, &tag);
    batch->add(pool_.alloc());
    from_.RunNextModule(c, batch);
    return TaskResult{.block = false, .packets = 1, .bits = 672};
  };
  EXPECT_EQ(task.run(&ctx).bits, 672U);
  EXPECT_EQ(sizes_, (std::vector<int>{1}));
  EXPECT_EQ(task.runs(), 1U);
  EXPECT_EQ(ctx.batches, 1U);
}

using TaskDeathTest = TaskTest;

TEST_F(TaskDeathTest, diesOfWorkerIdsBeyondTheLimit) {
  from_.connectGate(0, &a_, 0);
  for (int wid : {-1, MAX_WORKERS}) {
    ctx_.wid = wid;
    EXPECT_DEATH(
        {
          from_.RunNextModule(&ctx_, batchOf(1));
          from_.RunNextModule(&ctx_, batchOf(1));
        },
        "Check failed: wid < MAX_WORKERS && wid >= 0 ");
  }
}

TEST_F(TaskDeathTest, diesOfTheBatchAfterTheLast) {
  EXPECT_DEATH(
      for (unsigned i = 0; i <= Task::kMaxBatches; i++) { task_.AllocPacketBatch(); },
      "pbatch_idx_ < 1024");
}

}  // namespace
