// A 32-bit spin-lock word with its scoped holder.
//
// Threads    : any; held for a few look-ups at most, never while a packet is processed.
// Cost       : one exchange to take, one to release.
#pragma once

#include <rte_pause.h>

#include <atomic>
#include <cstdint>

namespace SfeModules {

class SpinLockWord {
 public:
  void lock() noexcept {
    while (word_.exchange(1, std::memory_order_acquire) != 0) {
      while (word_.load(std::memory_order_relaxed) != 0) {
        rte_pause();
      }
    }
  }
  void unlock() noexcept { word_.exchange(0, std::memory_order_release); }

 private:
  std::atomic<uint32_t> word_{0};
};

}  // namespace SfeModules
