#include "Bess/Module.h"

#include <algorithm>
#include <cerrno>
#include <numeric>
#include <system_error>
#include <utility>

Module::Module() = default;

Module::~Module() {
  for (const auto& gate : ogates_) {
    if (gate != nullptr) {
      gate->next()->removeFeeder(gate.get());
    }
  }
  for (const auto& gate : igates_) {
    while (gate != nullptr && !gate->feeders().empty()) {
      // Not disconnectGate: it would take the input gate away under this loop.
      OutputGate* feeder = gate->feeders().back();
      gate->removeFeeder(feeder);
      feeder->module()->dropGate(feeder->index());
    }
  }
}

void Module::DeInit() {}

TaskResult Module::RunTask(Context* /*ctx*/, bess::PacketBatch* /*batch*/, void* /*arg*/) {
  return {.block = true, .packets = 0, .bits = 0};
}

void Module::ProcessBatch(Context* ctx, bess::PacketBatch* batch) {
  for (bess::Packet* pkt : *batch) {
    DropPacket(ctx, pkt);
  }
  batch->clear();
}

int Module::OnEvent(bess::Event /*event*/) {
  return -ENOTSUP;
}

std::string Module::GetDesc() const {
  return {};
}

void Module::AddActiveWorker(int wid, const Task* /*task*/) {
  if (wid >= 0 && wid < MAX_WORKERS) {
    active_[wid] = true;
  }
}

CheckConstraintResult Module::CheckModuleConstraints() const {
  return activeWorkers() > maxAllowedWorkers_ ? CheckConstraintResult::kFatal
                                              : CheckConstraintResult::kOk;
}

task_id_t Module::RegisterTask(void* arg) {
  if (tasks_.size() >= kMaxTasksPerModule) {
    return kInvalidTaskId;
  }
  const auto id = static_cast<task_id_t>(tasks_.size());
  tasks_.push_back(std::make_unique<Task>(this, arg, id));
  isTask_ = true;
  return id;
}

void Module::addState(std::string name,
                      std::string help,
                      std::function<std::string(const std::string& arg)> text) {
  if (bess::findState(states_, name) != nullptr) {
    throw std::system_error(EEXIST, std::generic_category(), "state '" + name + "'");
  }
  states_.push_back({std::move(name), std::move(help), std::move(text)});
}

uint64_t Module::deadEnds() const {
  uint64_t sum = 0;
  for (int wid = 0; wid < MAX_WORKERS; wid++) {
    sum += deadEnds(wid);
  }
  return sum;
}

uint64_t Module::drops() const {
  uint64_t sum = 0;
  for (int wid = 0; wid < MAX_WORKERS; wid++) {
    sum += drops(wid);
  }
  return sum;
}

int Module::activeWorkers() const {
  return static_cast<int>(std::count(active_.begin(), active_.end(), true));
}

InputGate* Module::igate(gate_idx_t index) const {
  return index < igates_.size() ? igates_[index].get() : nullptr;
}

OutputGate* Module::ogate(gate_idx_t index) const {
  return index < ogates_.size() ? ogates_[index].get() : nullptr;
}

void Module::connectGate(gate_idx_t ogate, Module* next, gate_idx_t igate) {
  CHECK_LT(ogate, kMaxGates);
  CHECK_LT(igate, kMaxGates);
  CHECK(this->ogate(ogate) == nullptr) << name_ << ": gate " << ogate << " is connected";
  if (next->igates_.size() <= igate) {
    next->igates_.resize(igate + 1);
  }
  if (ogates_.size() <= ogate) {
    ogates_.resize(ogate + 1);
  }
  auto& input = next->igates_[igate];
  if (input == nullptr) {
    input = std::make_unique<InputGate>(next, igate);
  }
  ogates_[ogate] = std::make_unique<OutputGate>(this, ogate, input.get());
  input->feeders_.push_back(ogates_[ogate].get());
}

void Module::disconnectGate(gate_idx_t ogate) {
  CHECK(this->ogate(ogate) != nullptr) << name_ << ": gate " << ogate << " is not connected";
  InputGate* input = ogates_[ogate]->next();
  input->removeFeeder(ogates_[ogate].get());
  if (input->feeders().empty()) {
    input->module()->igates_[input->index()].reset();
  }
  dropGate(ogate);
}

void Module::dropGate(gate_idx_t ogate) {
  ogates_[ogate].reset();
  while (!ogates_.empty() && ogates_.back() == nullptr) {
    ogates_.pop_back();
  }
}

void Module::deadEnd(Context* ctx, bess::PacketBatch* batch) {
  const auto n = static_cast<uint64_t>(batch->cnt());
  count(ctx->wid, &WorkerCounts::deadEnds, n);
  ctx->silentDrops += n;
  bess::Packet::Free(batch);
}
