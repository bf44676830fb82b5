// CRC32C (Castagnoli, reflected, as in iSCSI, RFC 3720 B.4).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace Sfe::Multicast {

// Returns: the CRC of `bytes`; `crc` is the result for what precedes them, 0 at the start.
// Cost: three cycles for eight bytes where the processor has the instruction, else tables.
uint32_t crc32c(std::span<const std::byte> bytes, uint32_t crc = 0);
// The same by tables on every machine.
uint32_t crc32cByTables(std::span<const std::byte> bytes, uint32_t crc = 0);

// The same over words as they lie in memory.
inline uint32_t crc32c(std::span<const uint64_t> words, uint32_t crc = 0) {
  return crc32c(std::as_bytes(words), crc);
}

}  // namespace Sfe::Multicast
