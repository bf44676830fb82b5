#include "Bess/Modules/Source.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Bess/Modules/ShowCounters.h"
#include "Bess/PacketPool.h"
#include "Bess/Worker.h"

CommandResponse Source::Init(const bess::pb::SourceArg& arg) {
  CommandResponse response = setSource(arg);
  if (!response.has_error() && RegisterTask(nullptr) == kInvalidTaskId) {
    return CommandFailure(ENOMEM, "no task is left");
  }
  return response;
}

CommandResponse Source::setSource(const bess::pb::SourceArg& arg) {
  bess::PacketPool* pool = bess::PacketPool::defaultPool();
  if (pool == nullptr) {
    return CommandFailure(ENOMEM, "there is no packet pool");
  }
  if (arg.packet().empty() || arg.packet().size() > pool->dataRoom()) {
    return CommandFailure(EINVAL, "packet has %zu bytes, 1 to %u fit into the daemon's packets",
                          arg.packet().size(), pool->dataRoom());
  }
  packet_ = arg.packet();
  rate_ = arg.rate();
  endless_ = arg.count() == 0;
  left_ = arg.count();
  credit_ = 1.0;
  lastNs_ = 0;
  return CommandSuccess();
}

size_t Source::allowance(uint64_t nowNs) {
  size_t most = bess::PacketBatch::kMaxBurst;
  if (rate_ != 0) {
    constexpr double kNsPerSecond = 1e9;
    double elapsed = lastNs_ == 0 || nowNs < lastNs_ ? 0 : static_cast<double>(nowNs - lastNs_);
    auto rate = static_cast<double>(rate_);
    credit_ = std::min(credit_ + elapsed * rate / kNsPerSecond, rate * kBacklogSeconds + 1.0);
    most = std::min(most, static_cast<size_t>(credit_));
    lastNs_ = nowNs;
  }
  return endless_ ? most : static_cast<size_t>(std::min<uint64_t>(most, left_));
}

TaskResult Source::RunTask(Context* ctx, bess::PacketBatch* batch, void*) {
  size_t n = allowance(ctx->currentNs);
  if (n == 0) {
    return {.block = true, .packets = 0, .bits = 0};
  }
  bess::PacketPool* pool = current_worker.packetPool();
  if (packet_.size() > pool->dataRoom() || !pool->allocBulk(batch->pkts(), n)) {
    counters_.add(ctx->wid, {.drops = n});
    return {.block = true, .packets = 0, .bits = 0};
  }
  batch->setCnt(static_cast<int>(n));
  for (bess::Packet* pkt : *batch) {
    std::memcpy(pkt->append(static_cast<uint16_t>(packet_.size())), packet_.data(), packet_.size());
  }
  credit_ -= rate_ == 0 ? 0 : static_cast<double>(n);
  left_ -= endless_ ? 0 : n;
  uint64_t bytes = n * packet_.size();
  counters_.add(ctx->wid, {.packets = n, .bytes = bytes, .batches = 1});
  RunNextModule(ctx, batch);
  return {.block = false, .packets = static_cast<uint32_t>(n), .bits = wireBits(n, bytes)};
}

std::string Source::GetDesc() const {
  return std::to_string(packet_.size()) + " bytes, " +
         (rate_ == 0 ? "full speed" : std::to_string(rate_) + " packets per second");
}

CommandResponse Source::showCounters(const bess::pb::EmptyModuleArg&) {
  return moduleCounters(counters_);
}

static const ModuleRegistration<Source> kClass(
    {.name = "Source",
     .help = "sends one packet again and again, at full speed or at a rate",
     .igates = 0,
     .ogates = 1,
     .commands = {makeCommand<&Source::setSource>("setSource", "SourceArg"),
                  makeCommand<&Source::showCounters>("showCounters",
                                                     "EmptyModuleArg",
                                                     GenericCommand::kThreadSafe)},
     .init = makeInit<&Source::Init>(),
     .nameTemplate = "source"});
