// The source of a soak test: a module that sends every flow again and again, from one task for each
// worker.
//
// Threads    : prepare(), running and the counts by control; each task on its own worker.
// Invariants :
//   (1) what was sent is counted by flow, to the packet.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "Bess/Module.h"
#include "tests/soak/Flows.h"

namespace soak {

class Generator final : public Module {
 public:
  static constexpr const char* kClass = "SoakGenerator";
  static void registerClass();  // once; later calls do nothing

  Generator() { maxAllowedWorkers_ = MAX_WORKERS; }
  TaskResult RunTask(Context* ctx, bess::PacketBatch* batch, void* arg) override;

  // Registers `lanes` tasks that send these flows. Once, before a task is attached.
  void prepare(const std::vector<Flow>& flows, unsigned lanes);

  void runningIs(bool running) { running_.store(running, std::memory_order_relaxed); }

  uint64_t sent(uint32_t flow) const;
  uint64_t sent() const { return progress_.load(std::memory_order_relaxed); }
  uint64_t poolDry() const { return poolDry_.load(std::memory_order_relaxed); }

  // Waits, as a reader that holds up no grace period, until `more` packets were sent.
  void awaitSent(uint64_t more) const;

 private:
  struct Lane {
    size_t cursor = 0;
    std::vector<std::atomic<uint64_t>> sent;  // by flow; written by the lane's worker
  };

  static bess::Packet* make(const Flow& flow);

  const std::vector<Flow>* flows_ = nullptr;
  std::vector<uint32_t> turn_;  // indexes of flows in the order in which they are sent
  std::vector<std::unique_ptr<Lane>> lanes_;
  std::atomic<bool> running_{false};
  std::atomic<uint64_t> progress_{0};
  std::atomic<uint64_t> poolDry_{0};
};

}  // namespace soak
