#include "Bess/BatchSizes.h"

namespace bess {

std::array<BatchSizes::Row, MAX_WORKERS> BatchSizes::rows_;

BatchSizes::Counts BatchSizes::of(int wid) {
  const Row& row = rows_[static_cast<size_t>(wid)];
  Counts counts;
  for (size_t i = 0; i < kBuckets; ++i) {
    counts.batches[i] = row.batches[i].load(std::memory_order_relaxed);
  }
  counts.packets = row.packets.load(std::memory_order_relaxed);
  return counts;
}

}  // namespace bess
