#include "Sfe/Multicast/FreeSlots.h"

#include <bit>

namespace Sfe::Multicast {
namespace {
constexpr uint32_t kBits = 64;
}

FreeSlots::FreeSlots(uint32_t capacity)
    : words_((capacity + kBits - 1) / kBits), free_(new std::atomic<uint64_t>[words_]) {
  for (uint32_t i = 0; i < words_; ++i) {
    const uint32_t left = capacity - i * kBits;
    free_[i].store(left >= kBits ? ~uint64_t{0} : (uint64_t{1} << left) - 1,
                   std::memory_order_relaxed);
  }
}

std::optional<uint32_t> FreeSlots::take() {
  const uint32_t start = hint_.load(std::memory_order_relaxed);
  for (uint32_t i = 0; i < words_; ++i) {
    const uint32_t at = (start + i) % words_;
    uint64_t word = free_[at].load(std::memory_order_relaxed);
    while (word != 0) {
      const auto bit = static_cast<uint32_t>(std::countr_zero(word));
      if (free_[at].compare_exchange_weak(word, word & (word - 1), std::memory_order_acquire,
                                          std::memory_order_relaxed)) {
        hint_.store(at, std::memory_order_relaxed);
        return at * kBits + bit;
      }
    }
  }
  return std::nullopt;
}

bool FreeSlots::take(uint32_t slot) {
  const uint64_t bit = uint64_t{1} << (slot % kBits);
  return (free_[slot / kBits].fetch_and(~bit, std::memory_order_acquire) & bit) != 0;
}

void FreeSlots::give(uint32_t slot) {
  free_[slot / kBits].fetch_or(uint64_t{1} << (slot % kBits), std::memory_order_release);
}

}  // namespace Sfe::Multicast
