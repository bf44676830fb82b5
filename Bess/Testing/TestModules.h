// Small modules for the framework's own tests.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "Bess/Module.h"
#include "Bess/Worker.h"

namespace bess::testing {

// Passes what comes in by gate n on to gate n.
class Relay : public Module {
 public:
  Relay() { maxAllowedWorkers_ = MAX_WORKERS; }
  void ProcessBatch(Context* ctx, PacketBatch* batch) override {
    RunChooseModule(ctx, ctx->currentIgate, batch);
  }
};

// Does what the test says.
class Scripted : public Module {
 public:
  Scripted() { maxAllowedWorkers_ = MAX_WORKERS; }
  void ProcessBatch(Context* ctx, PacketBatch* batch) override { onBatch(ctx, batch); }
  TaskResult RunTask(Context* ctx, PacketBatch* batch, void* arg) override {
    return onRun(ctx, batch, arg);
  }

  std::function<void(Context*, PacketBatch*)> onBatch;
  std::function<TaskResult(Context*, PacketBatch*, void*)> onRun;
};

// Writes down the sizes of the batches it gets, and frees them.
class Sizes : public Module {
 public:
  explicit Sizes(std::vector<int>* sizes) : sizes_(sizes) { maxAllowedWorkers_ = MAX_WORKERS; }
  void ProcessBatch(Context* /*ctx*/, PacketBatch* batch) override {
    sizes_->push_back(batch->cnt());
    Packet::Free(batch);
  }

 private:
  std::vector<int>* const sizes_;
};

// Counts its runs; a thread can wait for the next one.
class Ticker : public Module {
 public:
  Ticker() { maxAllowedWorkers_ = MAX_WORKERS; }
  TaskResult RunTask(Context* /*ctx*/, PacketBatch* /*batch*/, void* /*arg*/) override {
    lastWid.store(current_worker.wid());
    runs.fetch_add(1);
    runs.notify_all();
    return {.block = block.load(), .packets = 1, .bits = 8};
  }
  void awaitRuns(int more) {
    const int goal = runs.load() + more;
    for (int seen = runs.load(); seen < goal; seen = runs.load()) {
      runs.wait(seen);
    }
  }

  std::atomic<int> runs{0};
  std::atomic<int> lastWid{-2};
  std::atomic<bool> block{false};
};

}  // namespace bess::testing
