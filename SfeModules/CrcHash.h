// CRC32C (Castagnoli) of a record of 8-byte words, as DPDK's rte_hash_crc computes it.
//
// The way of computing is chosen when the program starts: the 64-bit crc32 instruction, two 32-bit
// ones, or tables; the result is the same. Cost: three cycles a word with the instruction.
#pragma once

#include <rte_hash_crc.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace SfeModules {

// The checksum of the `bytes` bytes at `record`, started from `seed`; the record needs no
// alignment. Requires: `bytes` is a multiple of 8.
inline uint32_t crcHash(const void* record, size_t bytes, uint32_t seed) {
  const auto* next = static_cast<const unsigned char*>(record);
  uint32_t crc = seed;
#pragma GCC unroll 4
  for (size_t done = 0; done < bytes; done += sizeof(uint64_t)) {
    uint64_t word;
    std::memcpy(&word, next + done, sizeof(word));
    crc = rte_hash_crc_8byte(word, crc);
  }
  return crc;
}

}  // namespace SfeModules
