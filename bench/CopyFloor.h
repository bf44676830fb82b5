// The cost of making copies alone: bulk allocation from a warm cache, one memory copy and a length
// each, bulk free, with the packet library's own calls. Nothing that forwards can cost less.
#pragma once

#include "Bess/PacketPool.h"

namespace bench {

// Nanoseconds per packet for making `fanOut` packets of `frameBytes` in bursts of 32: for fan-out 1
// the packet itself.
double copyFloorNsPerPacket(bess::PacketPool& pool,
                            unsigned frameBytes,
                            unsigned fanOut,
                            double seconds);

}  // namespace bench
