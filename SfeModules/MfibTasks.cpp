// Batches, the two tasks and the commands that register them.

#include <array>
#include <cerrno>
#include <utility>

#include "Base/Trace.h"
#include "Bess/Worker.h"
#include "SfeModules/ForwardingPass.h"
#include "SfeModules/Fuse.h"
#include "SfeModules/Mfib.h"
#include "SfeModules/MrouteDump.h"

namespace SfeModules {

namespace {

// Tells the tasks apart; their addresses are the tasks' arguments, so they live as long as the
// library.
constexpr int kResolutionTask = 0;
constexpr int kCleanupTask = 2;
int resolutionTag = kResolutionTask;
int cleanupTag = kCleanupTask;

constexpr uint32_t kMaxBurst = bess::PacketBatch::kMaxBurst;
constexpr uint64_t kWireOverheadBytes = 24;  // preamble, gap and checksum of a frame on the wire

}  // namespace

void Mfib::flush(Context* ctx, OutputBatchMap& map) {
  ForwardingPass::sendAll(*this, ctx, map);
}

TaskResult Mfib::RunTask(Context* ctx, bess::PacketBatch* batch, void* arg) {
  const int* tag = static_cast<const int*>(arg);
  RunTotals totals;
  if (tag != nullptr && batch != nullptr && *tag == kResolutionTask) {
    if (noCacheMgr_->resolvedQueueEmpty()) {
      return {.block = !noCacheMgr_->expirePacketsFromCache(), .packets = 0, .bits = 0};
    }
    totals = resolveHeldPackets(ctx);
    batch->setCnt(0);
  } else if (tag != nullptr && batch != nullptr && *tag == kCleanupTask) {
    const bool reviewed = wrongVifTimestampReview();
    const bool cleaned = sgAlertCleanup();
    runTaskCount_.store(runTaskCount_.load(std::memory_order_relaxed) + 1,
                        std::memory_order_relaxed);
    totals.didWork = reviewed || cleaned;
  }
  const bool expired = noCacheMgr_->expirePacketsFromCache();
  if (!totals.didWork && !expired) {
    return {.block = true, .packets = 0, .bits = 0};
  }
  const uint64_t bits = (totals.packets * kWireOverheadBytes + totals.bytes) * 8;
  return {.block = false, .packets = totals.packets, .bits = bits};
}

// Re-injects held packets whose route has arrived, as many keys as one burst has room for.
Mfib::RunTotals Mfib::resolveHeldPackets(Context* ctx) {
  OutputBatchMap map(1);
  const TimePoint now = Clock::now();
  RunTotals totals;
  MfibKey key;
  while (uint64_t{noCacheMgr_->maxUnresolvedPktBuffers_} + totals.taken <= kMaxBurst - 1 &&
         noCacheMgr_->takeResolvedKey(key)) {
    reinjectKey(ctx, key, map, now, totals);
  }
  flush(ctx, map);
  return totals;
}

void Mfib::reinjectKey(Context* ctx,
                       const MfibKey& key,
                       OutputBatchMap& map,
                       TimePoint now,
                       RunTotals& totals) {
  const std::shared_ptr<MfibPvSet>* route = mfib_->find(key);
  if (route == nullptr) {
    return;
  }
  const MfibPvSet& entry = **route;
  const uint64_t eligibleIntf = entry.iifRegister ? registerIntfId_.value() : entry.iif.value();
  std::array<UnresolvedPacket*, kMaxBurst> held{};
  bool more = false;
  const size_t count =
      noCacheMgr_->takeEligible(key, eligibleIntf, held.data(), kMaxBurst - totals.taken, more);
  size_t i = 0;
  while (i < count && reinject(ctx, held[i], map, now, totals)) {
    ++i;
  }
  const bool poolDry = i < count;
  for (; i < count; ++i) {
    noCacheMgr_->settle(held[i], false, false);
  }
  if (more && !poolDry) {
    noCacheMgr_->requeueResolved(
        key);  // the limit was lowered below what is held: a later run goes on
  }
}

// Returns: false when no fresh packet could be made; the held one is then as it was.
bool Mfib::reinject(Context* ctx,
                    UnresolvedPacket* held,
                    OutputBatchMap& map,
                    TimePoint now,
                    RunTotals& totals) {
  totals.didWork = true;
  bess::Packet* fresh = held->copy->allocPacket();
  if (fresh == nullptr) {
    return false;
  }
  ForwardingMetadata& meta = metadataOf(fresh);
  meta.presence |= kHasInIntf;
  meta.inIntf = held->iif;
  fates_.count(ctx->wid, Fate::kReinjected);
  const bool forwarded = ProcessPacket(ctx, fresh, true, map, now);
  if (forwarded) {
    totals.packets += 1;
    totals.bytes += fresh->totalLen();
  }
  totals.taken += 1;
  noCacheMgr_->settle(held, true, forwarded);
  return true;
}

sfe::pb::MfibTaskIdArg Mfib::taskAnswer(task_id_t taskId) const {
  sfe::pb::MfibTaskIdArg answer;
  answer.set_task_id(taskId);
  answer.set_worker_id(current_worker.wid());
  answer.set_vrf_name(vrfName_);
  answer.set_module_name(name());
  return answer;
}

CommandResponse Mfib::regMfibTasks(const sfe::pb::MfibTaskIdArg& /*arg*/) {
  SFE_TRACE("Mfib", 6, "Registering NoCacheManager task... ");
  mfibTaskId_ = RegisterTask(&resolutionTag);
  if (mfibTaskId_ == kInvalidTaskId) {
    return CommandFailure(ENOMEM, "Task creation failed");
  }
  const sfe::pb::MfibTaskIdArg answer = taskAnswer(mfibTaskId_);
  SFE_TRACE("Mfib", 6, "Create mount path for dumping state from bessd");
  fuseRegister(stateFileName(), vrfAfClosureGetMroutes(this, af_));
  dumpRegistered_ = true;
  fuseInit();
  return CommandSuccess(answer);
}

CommandResponse Mfib::regCleanupTask(const sfe::pb::MfibTaskIdArg& /*arg*/) {
  SFE_TRACE("Mfib", 6, "Registering CleanupTask task... ");
  cleanupTaskId_ = RegisterTask(&cleanupTag);
  if (cleanupTaskId_ == kInvalidTaskId) {
    return CommandFailure(ENOMEM, "Task creation failed");
  }
  return CommandSuccess(taskAnswer(cleanupTaskId_));
}

}  // namespace SfeModules
