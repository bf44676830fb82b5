#include "Bess/Modules/PortInc.h"

#include <cerrno>

#include "Bess/Modules/ShowCounters.h"
#include "Bess/PortRegistry.h"

CommandResponse PortInc::Init(const bess::pb::PortIncArg& arg) {
  bess::Port& port = bess::PortRegistry::global().get(arg.port());
  port.addUser(name(), true);
  port_ = &port;
  for (uintptr_t queue = 0; queue < port.rxQueues(); ++queue) {
    if (RegisterTask(reinterpret_cast<void*>(queue)) == kInvalidTaskId) {
      return CommandFailure(ENOMEM,
                            "no task is left for receive queue %zu; a module has at most %u",
                            static_cast<size_t>(queue), kMaxTasksPerModule);
    }
  }
  return CommandSuccess();
}

void PortInc::DeInit() {
  if (port_ != nullptr) {
    port_->removeUser(name());
    port_ = nullptr;
  }
}

TaskResult PortInc::RunTask(Context* ctx, bess::PacketBatch* batch, void* arg) {
  auto queue = static_cast<uint16_t>(reinterpret_cast<uintptr_t>(arg));
  uint16_t n = port_->receive(queue, batch->pkts(), bess::PacketBatch::kMaxBurst);
  if (n == 0) {
    return {.block = true, .packets = 0, .bits = 0};
  }
  batch->setCnt(n);
  uint64_t bytes = 0;
  for (const bess::Packet* pkt : *batch) {
    bytes += pkt->totalLen();
  }
  counters_.add(ctx->wid, {.packets = n, .bytes = bytes, .batches = 1});
  RunNextModule(ctx, batch);
  return {.block = false, .packets = n, .bits = wireBits(n, bytes)};
}

std::string PortInc::GetDesc() const {
  return port_ == nullptr ? ""
                          : port_->name() + ", " + std::to_string(port_->rxQueues()) + " queues";
}

CommandResponse PortInc::showCounters(const bess::pb::EmptyModuleArg&) {
  return moduleCounters(counters_);
}

static const ModuleRegistration<PortInc> kClass(
    {.name = "PortInc",
     .help = "brings what a port receives into the graph; one task for each receive queue",
     .igates = 0,
     .ogates = 1,
     .commands = {makeCommand<&PortInc::showCounters>("showCounters",
                                                      "EmptyModuleArg",
                                                      GenericCommand::kThreadSafe)},
     .init = makeInit<&PortInc::Init>(),
     .nameTemplate = "port_inc"});
