#include "Bess/Modules/PortOut.h"

#include <glog/logging.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "Bess/Modules/ShowCounters.h"
#include "Bess/PortRegistry.h"

namespace {

// Every instance with a port; the control thread's.
std::vector<const PortOut*>& instances() {
  static auto* all = new std::vector<const PortOut*>;
  return *all;
}

}  // namespace

CommandResponse PortOut::Init(const bess::pb::PortOutArg& arg) {
  bess::Port& port = bess::PortRegistry::global().get(arg.port());
  port.addUser(name(), false);
  port_ = &port;
  instances().push_back(this);
  return CommandSuccess();
}

void PortOut::DeInit() {
  std::erase(instances(), this);
  if (port_ != nullptr) {
    port_->removeUser(name());
    port_ = nullptr;
  }
}

void PortOut::ProcessBatch(Context* ctx, bess::PacketBatch* batch) {
  auto n = static_cast<uint16_t>(batch->cnt());
  uint64_t lengths[bess::PacketBatch::kMaxBurst + 1];
  for (uint16_t i = 0; i < n; ++i) {
    lengths[i] = batch->pkts()[i]->totalLen();
  }
  uint16_t sent = std::min(n, port_->send(port_->txQueueOf(ctx->wid), batch->pkts(), n));
  batch->clear();
  uint64_t bytes = 0;
  for (uint16_t i = 0; i < sent; ++i) {
    bytes += lengths[i];
  }
  counters_.add(
      ctx->wid,
      {.packets = sent, .bytes = bytes, .batches = 1, .drops = static_cast<uint64_t>(n - sent)});
}

// Workers may have come and gone: those that send now claim their queues again.
int PortOut::OnEvent(bess::Event event) {
  if (event == bess::Event::kPreResume && port_ != nullptr) {
    port_->releaseTxQueues();
  }
  return 0;
}

std::string PortOut::GetDesc() const {
  return port_ == nullptr ? ""
                          : port_->name() + ", " + std::to_string(port_->txQueues()) + " queues";
}

void PortOut::AddActiveWorker(int wid, const Task* task) {
  if (activeWorkers() == 0) {
    workers_.reset();
  }
  if (wid >= 0 && wid < MAX_WORKERS) {
    workers_.set(static_cast<size_t>(wid));
  }
  Module::AddActiveWorker(wid, task);
}

CheckConstraintResult PortOut::CheckModuleConstraints() const {
  if (port_ == nullptr) {
    return CheckConstraintResult::kOk;
  }
  Workers together;
  for (const PortOut* other : instances()) {
    if (other->port_ == port_ && other->activeWorkers() != 0) {
      together |= other->workers_;
    }
  }
  if (together.count() <= port_->txQueues()) {
    return CheckConstraintResult::kOk;
  }
  LOG(ERROR) << name() << ": " << together.count() << " workers would send through port "
             << port_->name() << ", which has " << port_->txQueues()
             << " transmit queues; open the port with one for each worker";
  return CheckConstraintResult::kFatal;
}

CommandResponse PortOut::showCounters(const bess::pb::EmptyModuleArg&) {
  return moduleCounters(counters_);
}

static const ModuleRegistration<PortOut> kClass(
    {.name = "PortOut",
     .help = "sends what it gets through a port; each worker needs a transmit queue of its own",
     .igates = 1,
     .ogates = 0,
     .commands = {makeCommand<&PortOut::showCounters>("showCounters",
                                                      "EmptyModuleArg",
                                                      GenericCommand::kThreadSafe)},
     .init = makeInit<&PortOut::Init>(),
     .nameTemplate = "port_out"});
