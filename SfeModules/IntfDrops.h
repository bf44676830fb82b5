// Drop counters of an edge module, one for each reason and worker.
//
// Threads    : count() on workers (a row has one writer), show() on the control thread.
// Cost       : count() one relaxed load and store.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "Bess/Types.h"
#include "protocol/sfe.pb.h"

namespace SfeModules {

// `Reason` is an enumeration that counts from 0; `names` says them in its order.
template <class Reason, size_t kReasons>
class IntfDrops {
 public:
  using Names = std::array<const char*, kReasons>;
  explicit IntfDrops(const Names& names) : names_(names) {}

  void count(int wid, Reason reason) {
    auto& counter = rowOf(wid).counts[static_cast<size_t>(reason)];
    counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }

  uint64_t total(Reason reason) const {
    uint64_t sum = 0;
    for (const Row& row : rows_) {
      sum += row.counts[static_cast<size_t>(reason)].load(std::memory_order_relaxed);
    }
    return sum;
  }

  void show(sfe::pb::IntfTable* out) const {
    for (size_t i = 0; i < kReasons; ++i) {
      sfe::pb::DropCount* drop = out->add_drops();
      drop->set_reason(names_[i]);
      drop->set_packets(total(static_cast<Reason>(i)));
    }
  }

 private:
  struct alignas(64) Row {
    std::array<std::atomic<uint64_t>, kReasons> counts{};
  };

  // The last row is for threads that are no workers.
  Row& rowOf(int wid) {
    return rows_[static_cast<size_t>(wid < 0 || wid >= kMaxWorkers ? kMaxWorkers : wid)];
  }

  const Names names_;
  std::array<Row, kMaxWorkers + 1> rows_{};
};

}  // namespace SfeModules
