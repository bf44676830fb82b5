#include "Base/Flit/Clock.h"

#if defined(__x86_64__)
#include <cpuid.h>
#endif

namespace Flit {
namespace {

bool tscIsInvariant() noexcept {
#if defined(__x86_64__)
  constexpr unsigned kPowerLeaf = 0x80000007;
  constexpr unsigned kInvariantTsc = 1u << 8;
  unsigned a = 0;
  unsigned b = 0;
  unsigned c = 0;
  unsigned d = 0;
  return __get_cpuid(kPowerLeaf, &a, &b, &c, &d) != 0 && (d & kInvariantTsc) != 0;
#else
  return false;
#endif
}

}  // namespace

const bool ticksAreTsc = tscIsInvariant();

namespace {
const Moment first = momentNow();
}

Moment momentNow() noexcept {
  return {ticks(), clockNs(CLOCK_MONOTONIC), clockNs(CLOCK_REALTIME)};
}

const Moment& firstMoment() noexcept {
  return first;
}

TickScale::TickScale(const Moment& from, const Moment& to) : to_(to), nsPerTick_(1.0) {
  if (to.ticks > from.ticks && to.monotonicNs > from.monotonicNs) {
    nsPerTick_ = static_cast<double>(to.monotonicNs - from.monotonicNs) /
                 static_cast<double>(to.ticks - from.ticks);
  }
}

uint64_t TickScale::unixNs(uint64_t ticks) const {
  const auto behind = static_cast<int64_t>(to_.ticks - ticks);
  return to_.unixNs -
         static_cast<uint64_t>(static_cast<int64_t>(static_cast<double>(behind) * nsPerTick_));
}

}  // namespace Flit
