#include "SfeModules/PacketBuffer.h"

#include <rte_mbuf.h>

#include <cstring>

#include "Bess/PacketPool.h"
#include "Bess/Worker.h"

namespace SfeModules {
namespace {

// Takes `n` bytes off the front, whole segments included. The last segment stays, if need be empty.
rte_mbuf* skipFront(rte_mbuf* mbuf, uint16_t n) {
  while (mbuf->next != nullptr && n >= mbuf->data_len) {
    rte_mbuf* next = mbuf->next;
    next->nb_segs = static_cast<uint16_t>(mbuf->nb_segs - 1);
    next->pkt_len = mbuf->pkt_len - mbuf->data_len;
    n = static_cast<uint16_t>(n - mbuf->data_len);
    mbuf->next = nullptr;
    mbuf->nb_segs = 1;
    bess::Packet::Free(bess::Packet::from(mbuf));
    mbuf = next;
  }
  rte_pktmbuf_adj(mbuf, n);
  return mbuf;
}

void copyMetadata(bess::Packet* to, const bess::Packet* from) {
  std::memcpy(to->metadata<char*>(), from->metadata<const char*>(), bess::Packet::kMetadataSize);
}

}  // namespace

bool isWritable(const bess::Packet* pkt) {
  const rte_mbuf* mbuf = pkt->mbuf();
  return RTE_MBUF_DIRECT(mbuf) && rte_mbuf_refcnt_read(mbuf) == 1;
}

bess::Packet* ownCopy(const bess::Packet* pkt, uint32_t headBytes) {
  rte_mbuf* copy = rte_pktmbuf_copy(pkt->mbuf(), pkt->mbuf()->pool, 0, UINT32_MAX);
  if (copy == nullptr) {
    return nullptr;
  }
  bess::Packet::annotateAlloc(copy);
  bess::Packet* own = bess::Packet::from(copy);
  if (own->headLen() < headBytes) {
    bess::Packet::Free(own);
    return nullptr;
  }
  copyMetadata(own, pkt);
  return own;
}

bess::Packet* chainInFront(bess::Packet* pkt, uint16_t headBytes, uint16_t skip) {
  bess::Packet* front = current_worker.packetPool()->alloc();
  if (front == nullptr || pkt->segments() == RTE_MBUF_MAX_NB_SEGS ||
      front->append(headBytes) == nullptr) {
    bess::Packet::Free(front);
    return nullptr;
  }
  rte_mbuf* head = front->mbuf();
  head->port = pkt->mbuf()->port;
  copyMetadata(front, pkt);
  rte_mbuf* rest = skipFront(pkt->mbuf(), skip);
  head->next = rest;
  head->nb_segs = static_cast<uint16_t>(rest->nb_segs + 1);
  head->pkt_len = headBytes + rest->pkt_len;
  return front;
}

}  // namespace SfeModules
