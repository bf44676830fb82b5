#include "Bess/Scheduler.h"

#include <glog/logging.h>

#include <algorithm>

namespace {
constexpr uint64_t kNsPerSecond = 1'000'000'000;
constexpr uint64_t kFirstBackoffNs = 1'000;
}  // namespace

Scheduler::Scheduler(int wid, bool spin) : spin_(spin) {
  ctx_.wid = wid;
}

Scheduler::~Scheduler() {
  while (!tasks_.empty()) {
    detach(tasks_.back());
  }
}

void Scheduler::attach(Task* task, uint64_t ratePerSecond) {
  CHECK_EQ(task->worker_, -1);
  task->worker_ = ctx_.wid;
  task->ratePerSecond_ = ratePerSecond;
  task->intervalNs_ = ratePerSecond == 0 ? 0 : kNsPerSecond / ratePerSecond;
  task->dueNs_ = 0;
  task->backoffNs_ = 0;
  tasks_.push_back(task);
}

void Scheduler::detach(Task* task) {
  CHECK_EQ(std::erase(tasks_, task), 1U);
  task->worker_ = -1;
  task->ratePerSecond_ = 0;
}

Scheduler::Round Scheduler::runRound(uint64_t nowNs) {
  Round round;
  ctx_.currentNs = nowNs;
  for (Task* task : tasks_) {
    if (task->dueNs_ <= nowNs) {
      runTask(task, nowNs, &round);
    }
    round.dueNs = std::min(round.dueNs, task->dueNs_);
    if (task->intervalNs_ != 0) {
      round.limitNs = std::min(round.limitNs, task->dueNs_);
    }
  }
  return round;
}

void Scheduler::runTask(Task* task, uint64_t nowNs, Round* round) {
  ctx_.task = task;
  const TaskResult result = task->run(&ctx_);
  round->packets += result.packets;
  round->bits += result.bits;

  // The first run of a task, and one that comes late, starts a new count of its rate.
  const uint64_t oldest = nowNs > kBacklogNs ? nowNs - kBacklogNs : 0;
  const uint64_t base = task->dueNs_ == 0 ? nowNs : std::max(task->dueNs_, oldest);
  task->dueNs_ = base + task->intervalNs_;
  if (!result.block) {
    round->worked = true;
    task->backoffNs_ = 0;
  } else if (!spin_) {
    task->backoffNs_ = std::clamp(task->backoffNs_ * 2, kFirstBackoffNs, kMaxBackoffNs);
    task->dueNs_ = std::max(task->dueNs_, nowNs + task->backoffNs_);
  }
}
