#include "Bess/Task.h"

#include "Bess/BatchSizes.h"
#include "Bess/Module.h"

Task::Task(Module* module, void* arg, task_id_t id)
    : module_(module),
      arg_(arg),
      id_(id),
      pbatches_(std::make_unique_for_overwrite<bess::PacketBatch[]>(kMaxBatches)) {
  queue_.reserve(kMaxBatches);
  deadBatch_.clear();
}

Task::~Task() = default;

TaskResult Task::run(Context* ctx) {
  ctx->currentIgate = 0;
  const TaskResult result = module_->RunTask(ctx, AllocPacketBatch(), arg_);
  runPending(ctx);
  runs_.store(runs() + 1, std::memory_order_relaxed);
  return result;
}

void Task::runPending(Context* ctx) {
  flushEmitted(ctx);
  Pending next{nullptr, nullptr};
  while (takeNext(ctx, &next)) {
    deliver(ctx, next);
  }
  endRun();
}

bool Task::takeNext(Context* ctx, Pending* next) {
  if (next_.gate != nullptr) {
    *next = std::exchange(next_, {nullptr, nullptr});
    return true;
  }
  if (queue_.empty()) {
    return false;
  }
  *next = queue_.back();
  queue_.pop_back();
  bess::PacketBatch*& pending = next->gate->pending(ctx->wid);
  if (pending == next->batch) {
    pending = nullptr;
  }
  return true;
}

void Task::deliver(Context* ctx, const Pending& next) {
  next.gate->runHooks(next.batch);
  ctx->currentIgate = next.gate->index();
  ctx->batches++;
  bess::BatchSizes::count(ctx->wid, next.batch->cnt());
  next.gate->module()->ProcessBatch(ctx, next.batch);
  flushEmitted(ctx);
}

void Task::flushEmitted(Context* ctx) {
  for (gate_idx_t gate : emittedGates_) {
    emitter_->RunChooseModule(ctx, gate, std::exchange(emitted_[gate], nullptr));
  }
  emittedGates_.clear();
}

void Task::endRun() {
  bess::Packet::Free(&deadBatch_);
  pbatch_idx_ = 0;
}
