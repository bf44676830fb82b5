// A packet: a DPDK packet buffer and the metadata area that lies in its private area.
//
// Threads    : a packet has one owner at every moment; only the owner touches it.
// Ownership  : passed on, freed or counted as dropped, never two of these. PacketPtr is for code
//              that is not on the packet path.
// Units      : lengths are bytes; the first segment is the head.
// Cost       : all but copy() is inline. Many copies are made by a PacketCopier.
// Invariants :
//   (1) the buffer comes from a pool whose private area has kMetadataSize bytes (PacketPool).
//   (2) the first 8 bytes of the metadata area, its presence word, are zero in a fresh packet; the
//       other metadata bytes of a fresh packet mean nothing.
//   (3) segments are linked through the buffers; totalLen() is their lengths' sum.
#pragma once

#include <rte_mbuf.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "Base/RcuAnnotate.h"
#include "Bess/PacketBatch.h"

namespace bess {

class Packet {
 public:
  static constexpr size_t kMetadataSize = 128;

  // Only a view of a packet buffer: never constructed, copied or deleted.
  Packet() = delete;
  Packet(const Packet&) = delete;
  Packet& operator=(const Packet&) = delete;
  ~Packet() = delete;

  static Packet* from(rte_mbuf* mbuf) { return reinterpret_cast<Packet*>(mbuf); }

  rte_mbuf* mbuf() { return &mbuf_; }
  const rte_mbuf* mbuf() const { return &mbuf_; }

  // The first byte of the head's data.
  template <class T = char*>
  T headData() {
    return rte_pktmbuf_mtod(&mbuf_, T);
  }
  template <class T = const char*>
  T headData() const {
    return rte_pktmbuf_mtod(&mbuf_, T);
  }

  // The kMetadataSize bytes that travel with the packet through the graph.
  template <class T>
  T metadata() {
    return reinterpret_cast<T>(reinterpret_cast<char*>(this) + sizeof(rte_mbuf));
  }
  template <class T>
  T metadata() const {
    return reinterpret_cast<T>(reinterpret_cast<const char*>(this) + sizeof(rte_mbuf));
  }
  // What a packet that comes from outside needs before its first module: a driver's fresh buffer
  // still has the metadata of its last life.
  void clearPresence() { memset(metadata<char*>(), 0, sizeof(uint64_t)); }

  uint32_t totalLen() const { return mbuf_.pkt_len; }
  // Makes the total length the sum of the segments' again. A module that puts a packet together
  // segment by segment may leave another one; whoever copies by it has to mend it first.
  void mendTotalLen() {
    uint32_t total = 0;
    for (const rte_mbuf* segment = &mbuf_; segment != nullptr; segment = segment->next) {
      total += segment->data_len;
    }
    mbuf_.pkt_len = total;
  }
  uint16_t headLen() const { return mbuf_.data_len; }
  uint16_t segments() const { return mbuf_.nb_segs; }
  bool isLinear() const { return mbuf_.nb_segs == 1; }
  // One buffer with data of its own, which nobody else holds: as it is in the pool.
  bool isPlain() const {
    // The count of holders and that of segments, between data_off and port.
    static_assert(std::endian::native == std::endian::little);
    static_assert(offsetof(rte_mbuf, refcnt) == offsetof(rte_mbuf, rearm_data) + 2 &&
                  offsetof(rte_mbuf, nb_segs) == offsetof(rte_mbuf, rearm_data) + 4 &&
                  offsetof(rte_mbuf, port) == offsetof(rte_mbuf, rearm_data) + 6);
    constexpr uint64_t kCounts = 0x0000ffffffff0000;
    constexpr uint64_t kOneEach = 0x0000000100010000;
    const uint64_t rearm =
        __atomic_load_n(reinterpret_cast<const uint64_t*>(&mbuf_.rearm_data), __ATOMIC_RELAXED);
    return (rearm & kCounts) == kOneEach && RTE_MBUF_DIRECT(&mbuf_) && mbuf_.next == nullptr;
  }
  uint16_t headroom() const { return rte_pktmbuf_headroom(&mbuf_); }
  uint16_t tailroom() { return rte_pktmbuf_tailroom(rte_pktmbuf_lastseg(&mbuf_)); }

  // Room for `n` bytes before the data, or after the last segment's. Returns: the new bytes' first
  // one, null (and nothing changed) when they do not fit.
  void* prepend(uint16_t n) { return rte_pktmbuf_prepend(&mbuf_, n); }
  void* append(uint16_t n) { return rte_pktmbuf_append(&mbuf_, n); }

  // Takes `n` bytes off the front of the head, or off the end of the last segment. Returns: false
  // (and nothing changed) when that segment has fewer.
  bool adj(uint16_t n) { return rte_pktmbuf_adj(&mbuf_, n) != nullptr; }
  bool trim(uint16_t n) { return rte_pktmbuf_trim(&mbuf_, n) == 0; }

  // A deep copy from the packet's own pool: data, metadata area, input port, offload flags and
  // header lengths. Returns: null when the pool is dry, when the packet has several segments, or
  // when its data does not fit a buffer of the pool.
  static Packet* copy(const Packet* src);
  // A packet that shares the data of `src`, of any number of segments, with metadata of its own
  // that begins as a copy. Nobody writes into shared data. Returns: null when the pool is dry.
  static Packet* clone(Packet* src);

  // Null is ignored.
  static void Free(Packet* pkt);              // NOLINT(readability-identifier-naming)
  static void Free(Packet** pkts, size_t n);  // NOLINT(readability-identifier-naming)
  // Frees the packets of the batch and empties it.
  static void Free(PacketBatch* batch);  // NOLINT(readability-identifier-naming)

  // The pool is not built with a sanitizer: these name, for ThreadSanitizer alone, the edge from a
  // buffer's release to its next allocation. Called right before the one, right after the other.
  static void annotateRelease(rte_mbuf* mbuf);
  static void annotateAlloc(rte_mbuf* mbuf) { SFE_RCU_DEREFERENCE(mbuf); }

 private:
  static void giveBack(rte_mempool* pool, rte_mbuf** mbufs, size_t n);

  rte_mbuf mbuf_;
};

struct PacketDeleter {
  void operator()(Packet* pkt) const { Packet::Free(pkt); }
};
using PacketPtr = std::unique_ptr<Packet, PacketDeleter>;

inline Packet* Packet::clone(Packet* src) {
  rte_mbuf* to = rte_pktmbuf_clone(&src->mbuf_, src->mbuf_.pool);
  if (to == nullptr) {
    return nullptr;
  }
  annotateAlloc(to);
  Packet* result = Packet::from(to);
  memcpy(result->metadata<char*>(), src->metadata<const char*>(), kMetadataSize);
  return result;
}

inline void Packet::annotateRelease([[maybe_unused]] rte_mbuf* mbuf) {
#if defined(SFE_WITH_TSAN)
  for (; mbuf != nullptr; mbuf = mbuf->next) {
    SFE_RCU_PUBLISH(mbuf);
  }
#endif
}

inline void Packet::Free(Packet* pkt) {
  if (pkt != nullptr) {
    annotateRelease(&pkt->mbuf_);
    rte_pktmbuf_free(&pkt->mbuf_);
  }
}

// Returns plain packets of one pool to it.
inline void Packet::giveBack([[maybe_unused]] rte_mempool* pool, rte_mbuf** mbufs, size_t n) {
#if defined(SFE_WITH_TSAN)
  rte_pktmbuf_free_bulk(mbufs, static_cast<unsigned>(n));  // in code that is not looked at
#else
  rte_mempool_put_bulk(pool, reinterpret_cast<void**>(mbufs), static_cast<unsigned>(n));
#endif
}

// Nearly every packet is plain: neighbours of one pool go back together, and what they are judged
// by is fetched ahead.
inline void Packet::Free(Packet** pkts, size_t n) {
  constexpr size_t kAhead = 6;
  Packet** begin = pkts;  // of the plain ones that have not gone back
  rte_mempool* pool = nullptr;
  const auto giveBackTo = [&](Packet** end) {
    if (begin != end) {
      giveBack(pool, reinterpret_cast<rte_mbuf**>(begin), static_cast<size_t>(end - begin));
    }
    begin = end;
  };
  const auto release = [&](Packet** at) {
    Packet* const pkt = *at;
    if (pkt == nullptr || !pkt->isPlain()) [[unlikely]] {
      giveBackTo(at);
      Free(pkt);
      begin = at + 1;
      return;
    }
    annotateRelease(&pkt->mbuf_);
    if (pkt->mbuf_.pool != pool) [[unlikely]] {
      giveBackTo(at);
      pool = pkt->mbuf_.pool;
    }
  };
  Packet** const end = pkts + n;
  Packet** at = pkts;
  for (; end - at > static_cast<ptrdiff_t>(kAhead); ++at) {
    const auto ahead = reinterpret_cast<uintptr_t>(at[kAhead]);  // null is fetched without harm
    __builtin_prefetch(reinterpret_cast<const void*>(ahead));
    __builtin_prefetch(reinterpret_cast<const void*>(ahead + offsetof(rte_mbuf, next)));
    release(at);
  }
  for (; at != end; ++at) {
    release(at);
  }
  giveBackTo(end);
}

inline void Packet::Free(PacketBatch* batch) {
  Free(batch->pkts(), static_cast<size_t>(batch->cnt()));
  batch->clear();
}

}  // namespace bess
