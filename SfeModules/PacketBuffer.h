// Packet buffers that may be shared with other packets, and what may be done with them.
//
// Threads    : the packet's owner.
// Ownership  : said for each operation.
// Errors     : null when no buffer is left; the packet is unchanged then.
#pragma once

#include <cstdint>

#include "Bess/Packet.h"

namespace SfeModules {

// Whether the bytes of the first segment, and the room around them, are the packet's alone.
bool isWritable(const bess::Packet* pkt);

// A copy in buffers of its own, metadata included, with at least `headBytes` in the first segment.
// Ownership: the caller keeps `pkt` too. Returns: null also when one buffer has not that much room.
bess::Packet* ownCopy(const bess::Packet* pkt, uint32_t headBytes);

// Puts a fresh segment of `headBytes` in front of `pkt`, for a header that must not be written into
// shared bytes, and takes `skip` bytes off the old front. The metadata goes with it.
// Requires: skip <= totalLen().
// Ownership: takes `pkt` unless it returns null.
// Returns: the packet that begins with the new segment.
bess::Packet* chainInFront(bess::Packet* pkt, uint16_t headBytes, uint16_t skip);

}  // namespace SfeModules
