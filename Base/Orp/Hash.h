// Orp::Hash: mixes a sequence of byte strings and numbers into 32 bits.
//
// Not for keys that an adversary may choose without bound: the mixer has no secret.
// Cost       : two multiplications for each 8 bytes.
// Invariants :
//   (1) the result depends on the bytes mixed and on nothing else: the same in every process and
//   build. (2) mixing an integer equals mixing its bytes in memory order. (3) the order and the
//   cuts between the mixed pieces count: "ab"+"c" differs from "a"+"bc".
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace Orp {

class Hash {
 public:
  void hashMix(const void* bytes, size_t n) noexcept {
    const auto* from = static_cast<const unsigned char*>(bytes);
    for (; n > sizeof(uint64_t); n -= sizeof(uint64_t), from += sizeof(uint64_t)) {
      mixWord(load(from, sizeof(uint64_t)), kMore);
    }
    mixWord(n == 0 ? 0 : load(from, n), n);
  }

  template <class Integral>
  requires(std::is_integral_v<Integral> ||
           std::is_enum_v<Integral>) void hashMix(Integral value) noexcept {
    static_assert(sizeof(Integral) <= sizeof(uint64_t));
    mixWord(load(&value, sizeof(value)), sizeof(value));
  }

  uint32_t result() const noexcept { return static_cast<uint32_t>(state_ ^ (state_ >> 32)); }

 private:
  static constexpr uint64_t kMore = 9;  // a word that is not the last of its piece

  static uint64_t load(const void* from, size_t n) noexcept {
    static_assert(std::endian::native == std::endian::little, "results would differ");
    uint64_t word = 0;
    std::memcpy(&word, from, n);
    return word;
  }

  // `length` keeps pieces that differ only in trailing zeroes apart.
  void mixWord(uint64_t word, uint64_t length) noexcept {
    uint64_t h = state_ ^ word;
    h = (h + length) * 0xa0761d6478bd642fULL;
    h ^= h >> 31;
    h *= 0xd1b54a32d192ed03ULL;
    h ^= h >> 29;
    state_ = std::rotl(h, 23) + 0x9e3779b97f4a7c15ULL;
  }

  uint64_t state_ = 0x243f6a8885a308d3ULL;
};

}  // namespace Orp
