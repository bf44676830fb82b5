// The data path of a port.

#include <rte_ethdev.h>
#include <rte_mbuf.h>

#include "Bess/Port.h"

namespace bess {
namespace {

// A counter with one writer, read by the control thread.
void add(std::atomic<uint64_t>& counter, uint64_t n) {
  counter.store(counter.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
}

rte_mbuf** mbufsOf(Packet** pkts) {
  return reinterpret_cast<rte_mbuf**>(pkts);
}

}  // namespace

uint16_t Port::receive(uint16_t queue, Packet** pkts, uint16_t n) {
  uint16_t received = rte_eth_rx_burst(id_, queue, mbufsOf(pkts), n);
  uint16_t kept = 0;
  for (uint16_t i = 0; i < received; ++i) {
    rte_mbuf* mbuf = pkts[i]->mbuf();
    Packet::annotateAlloc(mbuf);
    mbuf->port = id_;
    pkts[i]->clearPresence();
    if ((mbuf->ol_flags & RTE_MBUF_F_RX_VLAN_STRIPPED) != 0 && rte_vlan_insert(&mbuf) != 0) {
      // Several queues may meet such a packet at once.
      rxTagErrors_.fetch_add(1, std::memory_order_relaxed);
      Packet::Free(pkts[i]);
      continue;
    }
    pkts[kept++] = Packet::from(mbuf);
  }
  return kept;
}

int Port::txQueueOf(int wid) {
  // Threads that are no workers share the last slot.
  auto slot = static_cast<size_t>(wid < 0 || wid >= kMaxWorkers ? kMaxWorkers : wid);
  int mine = txQueueOfWorker_[slot].load(std::memory_order_relaxed);
  if (mine != kNoTxQueue) {
    return mine;
  }
  uint16_t next = txClaimed_.load(std::memory_order_relaxed);
  while (next < txQueues()) {
    if (txClaimed_.compare_exchange_weak(next, next + 1, std::memory_order_relaxed)) {
      txQueueOfWorker_[slot].store(static_cast<int16_t>(next), std::memory_order_relaxed);
      return next;
    }
  }
  return kNoTxQueue;
}

void Port::releaseTxQueues() {
  for (auto& queue : txQueueOfWorker_) {
    queue.store(kNoTxQueue, std::memory_order_relaxed);
  }
  txClaimed_.store(0, std::memory_order_relaxed);
}

uint16_t Port::send(int queue, Packet** pkts, uint16_t n) {
  if (queue == kNoTxQueue) {
    // Workers without a queue share this counter.
    txState_[txQueues()].dropped.fetch_add(n, std::memory_order_relaxed);
    Packet::Free(pkts, n);
    return 0;
  }
  // A driver that trusts a total that is too small would copy past what it reserved.
  for (uint16_t i = 0; i < n; ++i) {
    pkts[i]->mendTotalLen();
  }
  uint64_t dropped = 0;
  uint16_t ready = txChains_ ? n : linearise(pkts, n, &dropped);
  for (uint16_t i = 0; i < ready; ++i) {
    Packet::annotateRelease(pkts[i]->mbuf());
  }
  uint16_t sent = rte_eth_tx_burst(id_, static_cast<uint16_t>(queue), mbufsOf(pkts), ready);
  if (sent < ready) {
    Packet::Free(pkts + sent, static_cast<size_t>(ready - sent));
    dropped += ready - sent;
  }
  if (dropped != 0) {
    add(txState_[queue].dropped, dropped);
  }
  return sent;
}

uint16_t Port::linearise(Packet** pkts, uint16_t n, uint64_t* dropped) {
  uint16_t kept = 0;
  for (uint16_t i = 0; i < n; ++i) {
    Packet* pkt = pkts[i]->isLinear() ? pkts[i] : linear(pkts[i]);
    if (pkt == nullptr) {
      ++*dropped;
      continue;
    }
    pkts[kept++] = pkt;
  }
  return kept;
}

// Takes `pkt`. Returns: one segment with its bytes; null when no segment has the room.
Packet* Port::linear(Packet* pkt) {
  rte_mbuf* mbuf = pkt->mbuf();
  // The tail of a shared buffer belongs to its other holders too.
  bool own = RTE_MBUF_DIRECT(mbuf) && rte_mbuf_refcnt_read(mbuf) == 1;
  if (own && rte_pktmbuf_linearize(mbuf) == 0) {
    return pkt;
  }
  rte_mbuf* copy = rte_pktmbuf_copy(mbuf, pool_, 0, UINT32_MAX);
  Packet::Free(pkt);
  if (copy != nullptr && copy->nb_segs != 1) {
    rte_pktmbuf_free(copy);
    copy = nullptr;
  }
  return copy != nullptr ? Packet::from(copy) : nullptr;
}

}  // namespace bess
