#include "bench/CopyFloor.h"

#include <rte_memcpy.h>

#include <array>
#include <ctime>
#include <stdexcept>
#include <vector>

#include "Bess/Packet.h"

namespace bench {

namespace {

constexpr double kNsPerSecond = 1e9;

// The time that this thread has run: what else runs on its core does not count.
double threadSeconds() {
  timespec time = {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / kNsPerSecond;
}

}  // namespace

double copyFloorNsPerPacket(bess::PacketPool& pool,
                            unsigned frameBytes,
                            unsigned fanOut,
                            double seconds) {
  constexpr size_t kBurst = bess::PacketBatch::kMaxBurst;
  constexpr unsigned kRoundsPerLook = 64;

  std::vector<uint8_t> source(frameBytes, 0x5a);
  std::array<bess::Packet*, kBurst> burst{};
  uint64_t packets = 0;
  const double start = threadSeconds();
  double elapsed = 0;
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
    elapsed = threadSeconds() - start;
  } while (elapsed < seconds);
  return elapsed * kNsPerSecond / static_cast<double>(packets);
}

}  // namespace bench
