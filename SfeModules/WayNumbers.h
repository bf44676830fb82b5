// Small numbers for an instance's ways out: an outgoing interface and the gate that leads to it.
// The packet path finds what it knows of a way by its number.
//
// Threads    : control.
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
    while (slots_[slot].number != kNone) {
      if (slots_[slot].way == way) {
        return slots_[slot].number;
      }
      slot = (slot + 1) % kSlots;
    }
    if (given_ == kMost) {
      return kNone;
    }
    slots_[slot] = {.way = way, .number = static_cast<uint8_t>(++given_)};
    return slots_[slot].number;
  }

 private:
  static constexpr size_t kSlots = 512;
  static_assert(kSlots > kMost, "a search ends at a free slot");

  struct Slot {
    IntfGateKey way;
    uint8_t number = kNone;
  };

  static size_t slotOf(const IntfGateKey& way) { return hash(way) % kSlots; }

  std::array<Slot, kSlots> slots_;
  size_t given_ = 0;
};

}  // namespace SfeModules
