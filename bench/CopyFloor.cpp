#include "bench/CopyFloor.h"

#include <rte_memcpy.h>

#include <array>
#include <chrono>
#include <stdexcept>
#include <vector>

#include "Bess/Packet.h"

namespace bench {

double copyFloorNsPerPacket(bess::PacketPool& pool,
                            unsigned frameBytes,
                            unsigned fanOut,
                            double seconds) {
  constexpr size_t kBurst = bess::PacketBatch::kMaxBurst;
  constexpr unsigned kRoundsPerLook = 64;
  using Clock = std::chrono::steady_clock;

  std::vector<uint8_t> source(frameBytes, 0x5a);
  std::array<bess::Packet*, kBurst> burst{};
  uint64_t packets = 0;
  const auto start = Clock::now();
  std::chrono::duration<double> elapsed{};
  do {
    for (unsigned round = 0; round < kRoundsPerLook; ++round) {
      for (unsigned copy = 0; copy < fanOut; ++copy) {
        if (!pool.allocBulk(burst.data(), kBurst)) {
          throw std::runtime_error("the packet pool is too small");
        }
        for (bess::Packet* packet : burst) {
          rte_memcpy(packet->append(static_cast<uint16_t>(frameBytes)), source.data(), frameBytes);
        }
        bess::Packet::Free(burst.data(), kBurst);
      }
      packets += kBurst;
    }
    elapsed = Clock::now() - start;
  } while (elapsed.count() < seconds);
  return elapsed.count() * 1e9 / static_cast<double>(packets);
}

}  // namespace bench
