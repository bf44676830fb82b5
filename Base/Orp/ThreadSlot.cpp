#include "Base/Orp/ThreadSlot.h"

#include <glog/logging.h>

#include <array>
#include <atomic>
#include <bit>
#include <cstdint>

#include "Base/Orp/ThreadExit.h"

namespace Orp {
namespace {

constexpr unsigned kBitsPerWord = 64;
static_assert(kMaxThreadSlots % kBitsPerWord == 0);

// One bit for each slot that is held. Taking acquires what the last holder released.
constinit std::array<std::atomic<uint64_t>, kMaxThreadSlots / kBitsPerWord> held{};

// The calling thread's slot plus one; 0: none.
[[gnu::tls_model("initial-exec")]] constinit thread_local unsigned mine = 0;

std::optional<unsigned> takeSlot() noexcept {
  for (unsigned w = 0; w < held.size(); ++w) {
    uint64_t bits = held[w].load(std::memory_order_relaxed);
    while (bits != ~uint64_t{0}) {
      const auto bit = static_cast<unsigned>(std::countr_one(bits));
      if (held[w].compare_exchange_weak(bits, bits | (uint64_t{1} << bit),
                                        std::memory_order_acquire, std::memory_order_relaxed)) {
        return w * kBitsPerWord + bit;
      }
    }
  }
  return std::nullopt;
}

void giveSlotBack(void* /*armed*/) {
  const unsigned slot = mine - 1;
  mine = 0;
  held[slot / kBitsPerWord].fetch_and(~(uint64_t{1} << (slot % kBitsPerWord)),
                                      std::memory_order_release);
}

[[gnu::noinline, gnu::cold]] std::optional<unsigned> firstUse() noexcept {
  static auto& atExit = *new ThreadExit(giveSlotBack);
  const std::optional<unsigned> slot = takeSlot();
  if (slot) {
    mine = *slot + 1;
    atExit.arm(&mine);
  }
  return slot;
}

}  // namespace

unsigned threadSlot() {
  if (mine != 0) [[likely]] {
    return mine - 1;
  }
  const std::optional<unsigned> slot = firstUse();
  CHECK(slot) << "more than " << kMaxThreadSlots << " threads hold a thread slot";
  return *slot;
}

std::optional<unsigned> tryThreadSlot() noexcept {
  if (mine != 0) [[likely]] {
    return mine - 1;
  }
  return firstUse();
}

}  // namespace Orp
