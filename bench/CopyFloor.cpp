#include "bench/CopyFloor.h"

#include <rte_mbuf.h>
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
  std::array<rte_mbuf*, kBurst> burst{};
  const auto bytes = static_cast<uint16_t>(frameBytes);
  uint64_t packets = 0;
  const double start = threadSeconds();
  double elapsed = 0;
  do {
    for (unsigned round = 0; round < kRoundsPerLook; ++round) {
      for (unsigned copy = 0; copy < fanOut; ++copy) {
        if (rte_pktmbuf_alloc_bulk(pool.pool(), burst.data(), kBurst) != 0) {
          throw std::runtime_error("the packet pool is too small");
        }
        for (rte_mbuf* packet : burst) {
          packet->data_len = bytes;
          packet->pkt_len = bytes;
          rte_memcpy(rte_pktmbuf_mtod(packet, char*), source.data(), frameBytes);
        }
        rte_pktmbuf_free_bulk(burst.data(), kBurst);
      }
      packets += kBurst;
    }
    elapsed = threadSeconds() - start;
  } while (elapsed < seconds);
  return elapsed * kNsPerSecond / static_cast<double>(packets);
}

}  // namespace bench
