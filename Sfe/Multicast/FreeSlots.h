// The set of free slots of a table, a bitmap that several threads take from without a lock.
//
// Cost       : take() is one compare-exchange near the last success; a scan of capacity / 64 words
//              when the table is full.
// Invariants :
//   (1) a slot is given to one taker only, until it is given back.
//   (2) what a thread did before give(n) happens before what the next taker of n does.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>

namespace Sfe::Multicast {

class FreeSlots {
 public:
  // All slots are free.
  explicit FreeSlots(uint32_t capacity);

  // Returns: a slot that was free, now the caller's; nothing when none is found.
  std::optional<uint32_t> take();

  // Returns: true when `slot` was free and is now the caller's.
  bool take(uint32_t slot);

  void give(uint32_t slot);

 private:
  uint32_t words_;
  std::unique_ptr<std::atomic<uint64_t>[]> free_;
  std::atomic<uint32_t> hint_{0};
};

}  // namespace Sfe::Multicast
