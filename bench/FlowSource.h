// The source of the benchmarks: a module with one task for each lane, which sends the packets of
// many flows in a prepared order as fast as its worker lets it.
//
// Threads    : prepare() by control while the lane's task is not attached; the counts by control;
//              each task on its worker.
// Cost       : one bulk allocation a burst; of each packet one copy of the template, the flow's
//              word and checksum, and the incoming interface.
// Errors     : a dry pool sends nothing in that run, which is counted.
// Invariants :
//   (1) packets() counts what was sent, to the packet, once the lane's task is detached.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>
#include <vector>

#include "Bess/Module.h"
#include "bench/Frames.h"

namespace bench {

// What a lane sends.
struct Lane {
  Frame frame;
  std::vector<Flow> flows;  // in the order of sending, again and again
  uint64_t inIntf = 0;
  uint64_t limit = UINT64_MAX;  // packets, a multiple of the burst
};

class FlowSource final : public Module {
 public:
  static constexpr const char* kClass = "BenchFlowSource";
  static constexpr unsigned kLanes = 2;
  static void registerClass();  // once; later calls do nothing

  FlowSource();
  TaskResult RunTask(Context* ctx, bess::PacketBatch* batch, void* arg) override;

  // Makes a lane send this from its beginning. Its task's id is the lane's number.
  void prepare(unsigned lane, Lane what);

  uint64_t packets(unsigned lane) const {
    return lanes_[lane].packets.load(std::memory_order_relaxed);
  }
  size_t flows(unsigned lane) const { return lanes_[lane].lane.flows.size(); }
  uint64_t poolDry() const { return poolDry_.load(std::memory_order_relaxed); }

  // The processor time of a worker's thread. Returns: false before a lane has run on it.
  static bool clockOf(int wid, clockid_t* clock);

 private:
  struct alignas(64) State {
    Lane lane;
    size_t cursor = 0;
    std::atomic<uint64_t> packets{0};
    bool toldClock = false;
  };

  static void fill(State& state, bess::PacketBatch* batch);

  State lanes_[kLanes];
  std::atomic<uint64_t> poolDry_{0};
};

}  // namespace bench
