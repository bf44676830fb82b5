#include "SfeModules/BessPktCache.h"

#include <rte_mbuf.h>

#include <algorithm>
#include <cstring>

#include "Bess/PacketPool.h"
#include "Bess/Worker.h"
#include "SfeModules/ForwardingMetadata.h"

namespace SfeModules {

namespace {

uint32_t storedLength(const rte_mbuf& segment, uint32_t totalLength) {
  return std::min<uint32_t>(segment.data_len, totalLength);
}

// Chains a fresh packet behind `last`, which then is that packet. Returns: false when the pool is
// dry.
bool grow(bess::Packet* head, rte_mbuf*& last) {
  bess::Packet* more = current_worker.packetPool()->alloc();
  if (more == nullptr) {
    return false;
  }
  last->next = more->mbuf();
  last = last->next;
  ++head->mbuf()->nb_segs;
  return true;
}

// Appends where the segment fits the tailroom, else in a packet of its own; a pool with smaller
// rooms than the one that the packet came from spreads it over several.
bool appendSegment(bess::Packet* head, rte_mbuf*& last, const Segment& segment) {
  const uint8_t* from = segment.bytes.data();
  uint32_t left = segment.length;
  if (left > rte_pktmbuf_tailroom(last) && last->data_len > 0 && !grow(head, last)) {
    return false;
  }
  while (true) {
    const auto part = static_cast<uint16_t>(std::min<uint32_t>(left, rte_pktmbuf_tailroom(last)));
    std::memcpy(rte_pktmbuf_mtod_offset(last, uint8_t*, last->data_len), from, part);
    last->data_len = static_cast<uint16_t>(last->data_len + part);
    from += part;
    left -= part;
    if (left == 0) {
      return true;
    }
    if (!grow(head, last)) {
      return false;
    }
  }
}

}  // namespace

// The room behind the stored bytes is never read, so it is not cleared.
Segment::Segment(const void* from, uint32_t byteCount)
    : length(byteCount) {  // NOLINT(cppcoreguidelines-pro-type-member-init)
  std::memcpy(bytes.data(), from, byteCount);
}

bool BessPktCache::fits(bess::Packet* packet) {
  for (const rte_mbuf* segment = packet->mbuf(); segment != nullptr; segment = segment->next) {
    if (storedLength(*segment, packet->totalLen()) > Segment::kRoom) {
      return false;
    }
  }
  return true;
}

BessPktCache::BessPktCache(
    bess::Packet* packet) {  // NOLINT(cppcoreguidelines-pro-type-member-init)
  std::memcpy(metadata_.data(), packet->metadata<const uint8_t*>() + kMetadataOffset,
              kMetadataBytes);
  segments_.reserve(packet->segments());
  for (const rte_mbuf* segment = packet->mbuf(); segment != nullptr; segment = segment->next) {
    segments_.emplace_back(rte_pktmbuf_mtod(segment, const void*),
                           storedLength(*segment, packet->totalLen()));
  }
}

bess::Packet* BessPktCache::allocPacket() const {
  bess::Packet* head = current_worker.packetPool()->alloc();
  if (head == nullptr) {
    return nullptr;
  }
  metadataOf(head).presence = 0;
  std::memcpy(head->metadata<uint8_t*>() + kMetadataOffset, metadata_.data(), kMetadataBytes);

  rte_mbuf* last = head->mbuf();
  for (const Segment& segment : segments_) {
    if (!appendSegment(head, last, segment)) {
      bess::Packet::Free(head);
      return nullptr;
    }
    head->mbuf()->pkt_len = segment.length;
  }
  return head;
}

}  // namespace SfeModules
