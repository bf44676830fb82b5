#include "tests/soak/Generator.h"

#include <algorithm>
#include <cstring>
#include <random>

#include "Bess/ModuleBuilder.h"
#include "Bess/PacketPool.h"
#include "Bess/Worker.h"
#include "Nynet/IntfId.h"
#include "SfeModules/ForwardingMetadata.h"
#include "tests/soak/Isolation.h"

namespace soak {

namespace {

constexpr int kBurst = 16;
constexpr unsigned kSeed = 20260401;

bool append(bess::Packet* packet, const uint8_t* from, size_t bytes) {
  void* room = packet->append(static_cast<uint16_t>(bytes));
  if (room != nullptr) {
    std::memcpy(room, from, bytes);
  }
  return room != nullptr;
}

}  // namespace

void Generator::registerClass() {
  static const ModuleRegistration<Generator> kRegistration(
      {.name = kClass, .help = "sends the flows of a test", .ogates = 1});
}

void Generator::prepare(const std::vector<Flow>& flows, unsigned lanes) {
  flows_ = &flows;
  for (uint32_t i = 0; i < flows.size(); ++i) {
    turn_.insert(turn_.end(), flows[i].weight, i);
  }
  std::shuffle(turn_.begin(), turn_.end(), std::mt19937(kSeed));
  for (unsigned i = 0; i < lanes; ++i) {
    auto lane = std::make_unique<Lane>();
    lane->cursor = i * turn_.size() / lanes;
    lane->sent = std::vector<std::atomic<uint64_t>>(flows.size());
    RegisterTask(lane.get());
    lanes_.push_back(std::move(lane));
  }
}

bess::Packet* Generator::make(const Flow& flow) {
  bess::PacketPool* pool = current_worker.packetPool();
  bess::PacketPtr head(pool->alloc());
  const size_t first = flow.split == 0 ? flow.packet.size() : flow.split;
  if (head == nullptr || !append(head.get(), flow.packet.data(), first)) {
    return nullptr;
  }
  if (flow.split != 0) {
    bess::PacketPtr tail(pool->alloc());
    if (tail == nullptr ||
        !append(tail.get(), flow.packet.data() + first, flow.packet.size() - first) ||
        rte_pktmbuf_chain(head->mbuf(), tail->mbuf()) != 0) {
      return nullptr;
    }
    tail.release();
  }
  SfeModules::ForwardingMetadata& meta = SfeModules::metadataOf(head.get());
  meta.presence = SfeModules::kHasInIntf;
  meta.inIntf = Nynet::IntfId::fromName(flow.intf).value();
  if (flow.gateSelect != 0) {
    meta.presence |= SfeModules::kHasGateSelect;
    meta.gateSelect = flow.gateSelect;
  }
  return head.release();
}

TaskResult Generator::RunTask(Context* ctx, bess::PacketBatch* batch, void* arg) {
  if (!running_.load(std::memory_order_relaxed)) {
    return {.block = true, .packets = 0, .bits = 0};
  }
  Lane& lane = *static_cast<Lane*>(arg);
  while (batch->cnt() < kBurst) {
    const uint32_t index = turn_[lane.cursor];
    bess::Packet* packet = make((*flows_)[index]);
    if (packet == nullptr) {
      poolDry_.fetch_add(1, std::memory_order_relaxed);
      break;
    }
    batch->add(packet);
    lane.sent[index].fetch_add(1, std::memory_order_relaxed);
    lane.cursor = (lane.cursor + 1) % turn_.size();
  }
  const auto count = static_cast<uint32_t>(batch->cnt());
  RunNextModule(ctx, batch);
  progress_.fetch_add(count, std::memory_order_relaxed);
  progress_.notify_all();
  return {.block = count == 0, .packets = count, .bits = 0};
}

uint64_t Generator::sent(uint32_t flow) const {
  uint64_t sum = 0;
  for (const auto& lane : lanes_) {
    sum += lane->sent[flow].load(std::memory_order_relaxed);
  }
  return sum;
}

void Generator::awaitSent(uint64_t more) const {
  const ScopedOffline offline;
  const uint64_t goal = sent() + more;
  for (uint64_t seen = sent(); seen < goal; seen = sent()) {
    progress_.wait(seen, std::memory_order_relaxed);
  }
}

}  // namespace soak
