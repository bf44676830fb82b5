#include "bench/FlowSource.h"

#include <pthread.h>
#include <rte_memcpy.h>

#include <array>
#include <cstring>
#include <utility>

#include "Bess/ModuleBuilder.h"
#include "Bess/PacketPool.h"
#include "Bess/Worker.h"
#include "SfeModules/ForwardingMetadata.h"

namespace bench {

namespace {

constexpr size_t kBurst = bess::PacketBatch::kMaxBurst;

// By worker, 0 until it is known: a thread's clock is never that one.
std::array<std::atomic<clockid_t>, MAX_WORKERS> workerClocks;

}  // namespace

void FlowSource::registerClass() {
  static const ModuleRegistration<FlowSource> kRegistration(
      {.name = kClass, .help = "sends the flows of a benchmark", .ogates = 1});
}

FlowSource::FlowSource() {
  maxAllowedWorkers_ = MAX_WORKERS;
  for (State& state : lanes_) {
    RegisterTask(&state);
  }
}

void FlowSource::prepare(unsigned lane, Lane what) {
  State& state = lanes_[lane];
  state.lane = std::move(what);
  state.cursor = 0;
  state.packets.store(0, std::memory_order_relaxed);
}

bool FlowSource::clockOf(int wid, clockid_t* clock) {
  *clock = workerClocks.at(static_cast<size_t>(wid)).load(std::memory_order_relaxed);
  return *clock != 0;
}

void FlowSource::fill(State& state, bess::PacketBatch* batch) {
  const Lane& lane = state.lane;
  const Frame& frame = lane.frame;
  const auto bytes = static_cast<uint16_t>(frame.bytes.size());
  for (bess::Packet* pkt : *batch) {
    const Flow& flow = lane.flows[state.cursor];
    state.cursor = state.cursor + 1 == lane.flows.size() ? 0 : state.cursor + 1;
    // As a driver fills a buffer.
    pkt->mbuf()->data_len = bytes;
    pkt->mbuf()->pkt_len = bytes;
    char* data = pkt->headData();
    rte_memcpy(data, frame.bytes.data(), bytes);
    std::memcpy(data + frame.wordOffset, &flow.word, sizeof(flow.word));
    if (frame.checksumOffset != 0) {
      std::memcpy(data + frame.checksumOffset, &flow.checksum, sizeof(flow.checksum));
    }
    SfeModules::ForwardingMetadata& meta = SfeModules::metadataOf(pkt);
    meta.presence = SfeModules::kHasInIntf;
    meta.inIntf = lane.inIntf;
  }
}

TaskResult FlowSource::RunTask(Context* ctx, bess::PacketBatch* batch, void* arg) {
  State& state = *static_cast<State*>(arg);
  if (!state.toldClock && ctx->wid >= 0 && ctx->wid < MAX_WORKERS) [[unlikely]] {
    clockid_t clock = 0;
    pthread_getcpuclockid(pthread_self(), &clock);
    workerClocks[static_cast<size_t>(ctx->wid)].store(clock, std::memory_order_relaxed);
    state.toldClock = true;
  }
  const uint64_t sent = state.packets.load(std::memory_order_relaxed);
  if (sent >= state.lane.limit) {
    return {.block = true, .packets = 0, .bits = 0};
  }
  if (!current_worker.packetPool()->allocBulk(batch->pkts(), kBurst)) {
    poolDry_.fetch_add(1, std::memory_order_relaxed);
    return {.block = true, .packets = 0, .bits = 0};
  }
  batch->setCnt(kBurst);
  fill(state, batch);
  RunNextModule(ctx, batch);
  state.packets.store(sent + kBurst, std::memory_order_relaxed);
  return {.block = false, .packets = kBurst, .bits = 0};
}

}  // namespace bench
