// How many packets were in the batches that modules got, counted by each worker.
//
// Threads    : count() by the worker alone whose row it is, once for each batch; of() by any.
// Cost       : three relaxed loads and stores.
// Invariants :
//   (1) a worker's numbers never go down, also when it is destroyed and launched again.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>

#include "Bess/Types.h"

namespace bess {

class BatchSizes {
 public:
  // Batches of at most 1, 2, 4, 8, 16, 32 packets.
  static constexpr size_t kBuckets = 6;

  struct Counts {
    std::array<uint64_t, kBuckets> batches{};
    uint64_t packets = 0;
  };

  static void count(int wid, int packets) {
    if (wid < 0 || wid >= MAX_WORKERS || packets <= 0) {
      return;
    }
    Row& row = rows_[static_cast<size_t>(wid)];
    const auto bucket = static_cast<size_t>(std::bit_width(static_cast<unsigned>(packets - 1)));
    add(row.batches[std::min(bucket, kBuckets - 1)], 1);
    add(row.packets, static_cast<uint64_t>(packets));
  }

  // Requires: 0 <= wid < MAX_WORKERS.
  static Counts of(int wid);

 private:
  struct alignas(64) Row {
    std::array<std::atomic<uint64_t>, kBuckets> batches{};
    std::atomic<uint64_t> packets{0};
  };
  static void add(std::atomic<uint64_t>& cell, uint64_t n) {
    cell.store(cell.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
  }

  static std::array<Row, MAX_WORKERS> rows_;
};

}  // namespace bess
