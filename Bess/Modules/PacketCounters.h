// What a stock module or hook counts, for each worker.
//
// Threads    : add() on workers, each in its own row; total() on the control thread.
// Cost       : add() three relaxed loads and stores.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "Bess/Types.h"

class PacketCounters {
 public:
  struct Totals {
    uint64_t packets = 0;
    uint64_t bytes = 0;
    uint64_t batches = 0;
    uint64_t drops = 0;
  };

  void add(int wid, const Totals& n) {
    // The last row is for threads that are no workers.
    Row& row = rows_[static_cast<size_t>(wid < 0 || wid >= kMaxWorkers ? kMaxWorkers : wid)];
    bump(row.packets, n.packets);
    bump(row.bytes, n.bytes);
    bump(row.batches, n.batches);
    bump(row.drops, n.drops);
  }

  Totals total() const {
    Totals sum;
    for (const Row& row : rows_) {
      sum.packets += row.packets.load(std::memory_order_relaxed);
      sum.bytes += row.bytes.load(std::memory_order_relaxed);
      sum.batches += row.batches.load(std::memory_order_relaxed);
      sum.drops += row.drops.load(std::memory_order_relaxed);
    }
    return sum;
  }

 private:
  struct alignas(64) Row {
    std::atomic<uint64_t> packets{0};
    std::atomic<uint64_t> bytes{0};
    std::atomic<uint64_t> batches{0};
    std::atomic<uint64_t> drops{0};
  };

  static void bump(std::atomic<uint64_t>& counter, uint64_t n) {
    counter.store(counter.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
  }

  std::array<Row, MAX_WORKERS + 1> rows_;
};
