// Small numbers for an instance's ways out: an outgoing interface and the gate that leads to it.
// The packet path finds what it knows of a way by its number.
//
// Threads    : control; way() also workers, with a number that a route has.
// Invariants :
//   (1) a number means the same way out for the instance's life.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "SfeModules/MfibTypes.h"

namespace SfeModules {

class WayNumbers {
 public:
  static constexpr size_t kMost = 255;
  static constexpr uint8_t kNone = 0;  // no way's number

  // A number of 16 bits. Multiplicative hashing: the numbers of interfaces differ in few bits,
  // anywhere.
  static size_t hash(const IntfGateKey& way) {
    constexpr uint64_t kGoldenRatio = 0x9e3779b97f4a7c15;
    return ((way.intfId + way.gate) * kGoldenRatio) >> 48;
  }

  // Returns: the way's number. A new way gets the next one, kNone when there is no more.
  uint8_t of(const IntfGateKey& way) {
    size_t slot = slotOf(way);
    for (; slots_[slot] != kNone; slot = (slot + 1) % kSlots) {
      if (ways_[slots_[slot]] == way) {
        return slots_[slot];
      }
    }
    if (given_ == kMost) {
      return kNone;
    }
    slots_[slot] = static_cast<uint8_t>(++given_);
    ways_[given_] = way;
    return slots_[slot];
  }

  // Requires: a number that of() has returned, not kNone.
  const IntfGateKey& way(uint8_t number) const { return ways_[number]; }

 private:
  static constexpr size_t kSlots = 512;
  static_assert(kSlots > kMost, "a search ends at a free slot");

  static size_t slotOf(const IntfGateKey& way) { return hash(way) % kSlots; }

  std::array<uint8_t, kSlots> slots_{};      // numbers, by the hash of their ways
  std::array<IntfGateKey, 1 + kMost> ways_;  // by number
  size_t given_ = 0;
};

}  // namespace SfeModules
