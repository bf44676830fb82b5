#include "Sfe/Multicast/Crc32c.h"

#if defined(__x86_64__)
#include <nmmintrin.h>
#endif

#include <array>
#include <bit>
#include <cstring>

namespace Sfe::Multicast {
namespace {

constexpr uint32_t kPolynomial = 0x82f63b78;  // reflected

using Tables = std::array<std::array<uint32_t, 256>, 8>;

// tables[k][b]: what byte b contributes when k more bytes follow it in its word of eight.
constexpr Tables makeTables() {
  Tables tables{};
  for (uint32_t byte = 0; byte < 256; ++byte) {
    uint32_t crc = byte;
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc >> 1) ^ ((crc & 1) != 0 ? kPolynomial : 0);
    }
    tables[0][byte] = crc;
  }
  for (size_t k = 1; k < tables.size(); ++k) {
    for (uint32_t byte = 0; byte < 256; ++byte) {
      const uint32_t before = tables[k - 1][byte];
      tables[k][byte] = (before >> 8) ^ tables[0][before & 0xff];
    }
  }
  return tables;
}

constexpr Tables kTables = makeTables();

uint32_t addWord(uint64_t word, uint32_t crc) {
  word ^= crc;
  uint32_t next = 0;
  for (size_t k = 0; k < 8; ++k) {
    next ^= kTables[7 - k][(word >> (8 * k)) & 0xff];
  }
  return next;
}

#if defined(__x86_64__)
[[gnu::target("sse4.2")]] uint32_t crc32cByInstruction(std::span<const std::byte> bytes,
                                                       uint32_t crc) {
  uint64_t state = ~crc;
  while (bytes.size() >= sizeof(uint64_t)) {
    uint64_t word;
    std::memcpy(&word, bytes.data(), sizeof word);
    state = _mm_crc32_u64(state, word);
    bytes = bytes.subspan(sizeof word);
  }
  auto rest = static_cast<uint32_t>(state);
  for (const std::byte byte : bytes) {
    rest = _mm_crc32_u8(rest, static_cast<uint8_t>(byte));
  }
  return ~rest;
}
#endif

}  // namespace

uint32_t crc32cByTables(std::span<const std::byte> bytes, uint32_t crc) {
  crc = ~crc;
  if constexpr (std::endian::native == std::endian::little) {
    while (bytes.size() >= sizeof(uint64_t)) {
      uint64_t word;
      std::memcpy(&word, bytes.data(), sizeof word);
      crc = addWord(word, crc);
      bytes = bytes.subspan(sizeof word);
    }
  }
  for (const std::byte byte : bytes) {
    crc = (crc >> 8) ^ kTables[0][(crc ^ static_cast<uint8_t>(byte)) & 0xff];
  }
  return ~crc;
}

uint32_t crc32c(std::span<const std::byte> bytes, uint32_t crc) {
#if defined(__x86_64__)
  if (__builtin_cpu_supports("sse4.2")) {
    return crc32cByInstruction(bytes, crc);
  }
#endif
  return crc32cByTables(bytes, crc);
}

}  // namespace Sfe::Multicast
