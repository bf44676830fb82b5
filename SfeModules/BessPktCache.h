// A packet's own copy, made when the packet has to wait and turned back into a live packet later.
//
// Ownership  : owned by its UnresolvedPacket; holds no reference to the packet that it was made
// from. Threads    : built and read by one worker at a time. Errors     : a packet with a segment
// that does not fit kSegmentRoom is refused by fits() before a copy is made. Cost       : one
// allocation for all segments, one copy of the bytes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Bess/Packet.h"

namespace SfeModules {

// One stored data segment.
struct Segment {
  static constexpr size_t kRoom = 9280;  // a jumbo frame

  Segment(const void* from, uint32_t byteCount);

  std::array<uint8_t, kRoom> bytes;  // `length` of them are set
  uint32_t length;
};

class BessPktCache {
 public:
  // Requires: fits(*packet).
  explicit BessPktCache(bess::Packet* packet);

  // True when every segment of the chain fits the room of its copy.
  static bool fits(bess::Packet* packet);

  // A fresh packet from the current worker's pool with the stored metadata (presence word 0) and
  // bytes. A segment that fits the tailroom of the last packet is appended there, otherwise the
  // chain grows. After each segment the total length is that segment's, so a chain that was held
  // ends with its last segment's length as its total length. Returns: null when the pool runs dry
  // on the way; nothing is kept then.
  bess::Packet* allocPacket() const;

 private:
  static constexpr size_t kMetadataOffset = 8;  // everything after the presence word
  static constexpr size_t kMetadataBytes = bess::Packet::kMetadataSize - kMetadataOffset;

  std::array<uint8_t, kMetadataBytes> metadata_;
  std::vector<Segment> segments_;
};

}  // namespace SfeModules
