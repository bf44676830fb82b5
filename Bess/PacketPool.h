// A pool of packets on one NUMA node.
//
// Threads    : alloc() and the counts on any thread. Threads that DPDK knows (workers, the main
//              thread) go through a cache of their own, others straight to the shared ring.
//              The default pools are made and destroyed by control while no other thread uses them.
// Ownership  : a packet goes back to its pool with Packet::Free. The pool outlives its packets.
// Errors     : the constructor throws std::system_error (ENOMEM, EINVAL, EEXIST) naming the pool.
// Units      : dataRoom is what fits behind the headroom of a fresh packet, in bytes.
// Invariants :
//   (1) each buffer has a private area of Packet::kMetadataSize bytes.
//   (2) a fresh packet: one segment, reference count 1, port 0xFFFF, no offload flags, no data,
//       headroom min(buffer, RTE_PKTMBUF_HEADROOM), presence word 0.
//   (3) works the same with and without huge pages.
#pragma once

#include <rte_mbuf.h>
#include <rte_memory.h>
#include <rte_mempool.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "Bess/Packet.h"

namespace bess {

class PacketPool {
 public:
  static constexpr unsigned kDefaultCount = 16384;
  static constexpr unsigned kDefaultDataRoom = 2048;
  static constexpr unsigned kMaxDataRoom = UINT16_MAX - RTE_PKTMBUF_HEADROOM;

  PacketPool(const std::string& name,
             unsigned count,
             unsigned dataRoom,
             int socket = SOCKET_ID_ANY);
  ~PacketPool();
  PacketPool(const PacketPool&) = delete;
  PacketPool& operator=(const PacketPool&) = delete;

  // Returns: null when the pool is dry.
  Packet* alloc();
  // All `n` or none. Returns: false when the pool has fewer.
  bool allocBulk(Packet** pkts, size_t n);

  rte_mempool* pool() const { return pool_; }
  int socket() const { return socket_; }
  unsigned dataRoom() const { return dataRoom_; }
  // Snapshots: packets move while they are counted.
  unsigned available() const { return rte_mempool_avail_count(pool_); }
  unsigned inUse() const { return rte_mempool_in_use_count(pool_); }
  unsigned capacity() const { return pool_->size; }

  // The pool of that NUMA node, or, when it has none, any. Returns: null before the pools exist.
  static PacketPool* defaultPool(int socket = SOCKET_ID_ANY);
  // One pool of `count` packets for each NUMA node that has memory.
  // Errors: std::logic_error when they exist; what the constructor throws (then none exists).
  static void createDefaultPools(unsigned count = kDefaultCount,
                                 unsigned dataRoom = kDefaultDataRoom);
  static void destroyDefaultPools();

 private:
  rte_mempool* pool_;
  int socket_;
  unsigned dataRoom_;
};

inline Packet* PacketPool::alloc() {
  rte_mbuf* mbuf = rte_pktmbuf_alloc(pool_);
  if (mbuf == nullptr) {
    return nullptr;
  }
  Packet::annotateAlloc(mbuf);
  Packet* pkt = Packet::from(mbuf);
  pkt->clearPresence();
  return pkt;
}

inline bool PacketPool::allocBulk(Packet** pkts, size_t n) {
  if (rte_pktmbuf_alloc_bulk(pool_, reinterpret_cast<rte_mbuf**>(pkts), static_cast<unsigned>(n)) !=
      0) {
    return false;
  }
  for (size_t i = 0; i < n; i++) {
    Packet::annotateAlloc(pkts[i]->mbuf());
    pkts[i]->clearPresence();
  }
  return true;
}

}  // namespace bess
