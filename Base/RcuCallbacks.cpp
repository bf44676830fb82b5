#include "Base/RcuCallbacks.h"

#include <atomic>

namespace RcuCallbacks {
namespace {

constexpr size_t kCacheLine = 64;

// Written by different threads: those that take out, and RCU's own.
alignas(kCacheLine) std::atomic<uint64_t> queuedCount{0};
alignas(kCacheLine) std::atomic<uint64_t> runCount{0};

}  // namespace

void queued() {
  queuedCount.fetch_add(1, std::memory_order_relaxed);
}

void ran() {
  // Release: whoever reads this count sees the count of its queued() too.
  runCount.fetch_add(1, std::memory_order_release);
}

Counts counts() {
  Counts now;
  now.run = runCount.load(std::memory_order_acquire);
  now.queued = queuedCount.load(std::memory_order_relaxed);
  return now;
}

}  // namespace RcuCallbacks
