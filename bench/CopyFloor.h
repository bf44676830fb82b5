// The cost of making copies alone: bulk allocation, one memory copy each, bulk free. What
// forwarding costs beyond it is the module's own.
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
