#include "Bess/Modules/Sink.h"

#include "Bess/Modules/ShowCounters.h"

CommandResponse Sink::Init(const bess::pb::SinkArg&) {
  return CommandSuccess();
}

void Sink::ProcessBatch(Context* ctx, bess::PacketBatch* batch) {
  PacketCounters::Totals n{.packets = static_cast<uint64_t>(batch->cnt()), .batches = 1};
  for (const bess::Packet* pkt : *batch) {
    n.bytes += pkt->totalLen();
  }
  counters_.add(ctx->wid, n);
  bess::Packet::Free(batch);
}

std::string Sink::GetDesc() const {
  return std::to_string(counters_.total().packets) + " packets";
}

CommandResponse Sink::showCounters(const bess::pb::EmptyModuleArg&) {
  return moduleCounters(counters_);
}

static const ModuleRegistration<Sink> kClass(
    {.name = "Sink",
     .help = "counts and frees what it gets",
     .igates = 1,
     .ogates = 0,
     .commands = {makeCommand<&Sink::showCounters>("showCounters",
                                                   "EmptyModuleArg",
                                                   GenericCommand::kThreadSafe)},
     .init = makeInit<&Sink::Init>(),
     .nameTemplate = "sink"});
