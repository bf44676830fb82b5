// Copies of packets, made in bulk: buffers are taken straight from the worker's cache of the pool,
// the next ones are fetched ahead of their use, and what the copies of one packet have in common is
// loaded once.
//
// Threads    : one worker's, for the time of a call.
// Ownership  : a copy is whose it was handed to.
// Errors     : a dry pool makes fewer copies, down to none.
// Cost       : about 40 instructions for a copy of up to kShort bytes.
#pragma once

#include <rte_lcore.h>
#include <rte_mbuf.h>
#include <rte_memcpy.h>
#include <rte_mempool.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Bess/Packet.h"

namespace bess {

class PacketCopier {
  static constexpr uint16_t kShort = 64;  // bytes of data that are held in registers

  // What copies are written in: registers, as long as the compiler sees the blocks one by one.
  struct Line {
    using Block = uint64_t __attribute__((vector_size(16)));
    Block a;
    Block b;
    Block c;
    Block d;

    [[gnu::always_inline]] static Line load(const void* from) {
      const char* bytes = static_cast<const char*>(from);
      Line line;
      std::memcpy(&line.a, bytes, sizeof(Block));
      std::memcpy(&line.b, bytes + sizeof(Block), sizeof(Block));
      std::memcpy(&line.c, bytes + 2 * sizeof(Block), sizeof(Block));
      std::memcpy(&line.d, bytes + 3 * sizeof(Block), sizeof(Block));
      return line;
    }
    [[gnu::always_inline]] void store(void* to) const {
      char* bytes = static_cast<char*>(to);
      std::memcpy(bytes, &a, sizeof(Block));
      std::memcpy(bytes + sizeof(Block), &b, sizeof(Block));
      std::memcpy(bytes + 2 * sizeof(Block), &c, sizeof(Block));
      std::memcpy(bytes + 3 * sizeof(Block), &d, sizeof(Block));
    }
  };

 public:
  // The metadata of copies. It is changed word by word where it is held, in registers: what was
  // stored in small parts a moment ago would have to reach the cache before it is loaded as a
  // whole.
  class Metadata {
   public:
    [[gnu::always_inline]] static Metadata load(const void* bytes) {
      return {Line::load(bytes), Line::load(static_cast<const char*>(bytes) + sizeof(Line))};
    }
    [[gnu::always_inline]] void store(void* bytes) const {
      first_.store(bytes);
      second_.store(static_cast<char*>(bytes) + sizeof(Line));
    }

    // The 8 bytes from `offset` on, which is a multiple of 8.
    template <size_t offset>
    [[gnu::always_inline]] uint64_t word() const {
      return block<offset>(*this)[offset % sizeof(Line::Block) / sizeof(uint64_t)];
    }
    template <size_t offset>
    [[gnu::always_inline]] void wordIs(uint64_t word) {
      block<offset>(*this)[offset % sizeof(Line::Block) / sizeof(word)] = word;
    }

   private:
    Metadata(const Line& first, const Line& second) : first_(first), second_(second) {}

    template <size_t offset, class Self>
    [[gnu::always_inline]] static auto& block(Self& self) {
      static_assert(offset % sizeof(uint64_t) == 0 && offset < Packet::kMetadataSize);
      auto& line = offset < sizeof(Line) ? self.first_ : self.second_;
      constexpr size_t kBlock = offset % sizeof(Line) / sizeof(Line::Block);
      return kBlock == 0 ? line.a : kBlock == 1 ? line.b : kBlock == 2 ? line.c : line.d;
    }

    Line first_;
    Line second_;
  };

  // Makes up to `n` deep copies of a packet, from its own pool: its data, input port, offload flags
  // and header lengths, with `metadata` for theirs. Each is handed to `take(Packet*)`, which
  // neither allocates packets nor frees any.
  //
  // Returns: how many could be made. None of a packet of several segments, of one whose data does
  // not fit a buffer of the pool, or from a pool whose buffers' data lies outside of them.
  template <class Take>
  size_t copy(const Packet* src, const Metadata& metadata, size_t n, Take take);

 private:
  static constexpr size_t kMax = PacketBatch::kMaxBurst;
  static constexpr size_t kAhead = 3;  // buffers that are fetched before their turn
  static_assert(Packet::kMetadataSize == 2 * sizeof(Line));
  static_assert(kShort == sizeof(Line));

  // Buffers in the order in which they are taken: downwards from `end`. The kAhead entries below
  // the last one are buffers of the same pool, too.
  struct Taken {
    void* const* end;
    size_t count;
  };
  using Room = std::array<void*, kAhead + kMax>;

  template <bool isShort, class Take>
  static void fill(const rte_mbuf& from,
                   const Metadata& metadata,
                   const Taken& buffers,
                   Take& take);
  void open(rte_mempool* pool);
  Taken takeBuffers(size_t wanted, Room& room) const;
  static Taken takeInto(Room& room, rte_mempool* pool, size_t wanted);
  [[gnu::always_inline]] static void prefetch(const rte_mbuf* to, uint16_t dataOff);

  rte_mempool* pool_ = nullptr;
  rte_mempool_cache* cache_ = nullptr;  // of this thread; null when there is none
  uint32_t bufferBytes_ = 0;            // of each buffer of the pool, headroom included
};

template <class Take>
[[gnu::always_inline]] inline size_t PacketCopier::copy(const Packet* src,
                                                        const Metadata& metadata,
                                                        size_t n,
                                                        Take take) {
  const rte_mbuf& from = *src->mbuf();
  if (from.pool != pool_) [[unlikely]] {
    open(from.pool);
  }
  const uint32_t dataEnd = uint32_t{from.data_off} + from.data_len;
  if (!src->isLinear() || dataEnd > bufferBytes_ || bufferBytes_ == 0) [[unlikely]] {
    return 0;
  }
  const uint32_t shortEnd = uint32_t{from.data_off} + kShort;
  const bool isShort =
      dataEnd <= shortEnd && shortEnd <= std::min<uint32_t>(from.buf_len, bufferBytes_);
  size_t made = 0;
  while (made < n) {
    Room room;
    const Taken buffers = takeBuffers(n - made, room);
    if (buffers.count == 0) [[unlikely]] {
      break;
    }
    if (isShort) {
      fill<true>(from, metadata, buffers, take);
    } else {
      fill<false>(from, metadata, buffers, take);
    }
    made += buffers.count;
  }
  return made;
}

// A buffer comes from the pool as the pool keeps it: nothing is chained to it.
template <bool isShort, class Take>
[[gnu::always_inline]] inline void PacketCopier::fill(const rte_mbuf& from,
                                                      const Metadata& metadata,
                                                      const Taken& buffers,
                                                      Take& take) {
  static_assert(std::endian::native == std::endian::little);
  static_assert(offsetof(rte_mbuf, refcnt) == offsetof(rte_mbuf, data_off) + 2 &&
                offsetof(rte_mbuf, nb_segs) == offsetof(rte_mbuf, data_off) + 4 &&
                offsetof(rte_mbuf, port) == offsetof(rte_mbuf, data_off) + 6);
  constexpr size_t kStart = offsetof(rte_mbuf, data_off);  // data_off .. port, ol_flags
  static_assert(offsetof(rte_mbuf, ol_flags) == kStart + sizeof(uint64_t));
  constexpr size_t kFields = offsetof(rte_mbuf, packet_type);  // packet_type .. vlan_tci_outer
  static_assert(offsetof(rte_mbuf, pkt_len) == kFields + sizeof(uint32_t));
  constexpr size_t kLast = offsetof(rte_mbuf, buf_len) - sizeof(Line::Block);
  static_assert(kLast >= kFields && kLast <= kFields + sizeof(Line::Block));
  static_assert(kLast == offsetof(rte_mbuf, pkt_len) + sizeof(uint16_t));
  constexpr uint16_t kShortCopy = 256;

  const char* const source = reinterpret_cast<const char*>(&from);
  const char* const data = rte_pktmbuf_mtod(&from, const char*);
  const uint16_t dataOff = from.data_off;
  const uint16_t dataLen = from.data_len;
  const uint64_t rearm =
      dataOff | uint64_t{1} << 16 | uint64_t{1} << 32 | uint64_t{from.port} << 48;
  const uint64_t flags = from.ol_flags & ~(RTE_MBUF_F_EXTERNAL | RTE_MBUF_F_INDIRECT);
  const uint64_t txOffload = from.tx_offload;
  const Line::Block start = {rearm, flags};
  Line::Block fields;
  Line::Block last;
  std::memcpy(&fields, source + kFields, sizeof(fields));
  std::memcpy(&last, source + kLast, sizeof(last));
  // The packet is as long as its one segment.
  fields[0] = (fields[0] & UINT32_MAX) | uint64_t{dataLen} << 32;
  last[0] &= ~uint64_t{UINT16_MAX};
  const Metadata common = metadata;
  const Line bytes = isShort ? Line::load(data) : Line{};

  void* const* const stop = buffers.end - buffers.count;
  for (void* const* at = buffers.end; at != stop;) {
    --at;
    auto* const to = static_cast<rte_mbuf*>(*at);
    prefetch(static_cast<const rte_mbuf*>(*(at - kAhead)), dataOff);
    Packet::annotateAlloc(to);
    char* const mbuf = static_cast<char*>(*at);
    std::memcpy(mbuf + kStart, &start, sizeof(start));
    std::memcpy(mbuf + kFields, &fields, sizeof(fields));
    std::memcpy(mbuf + kLast, &last, sizeof(last));
    to->tx_offload = txOffload;
    common.store(mbuf + sizeof(rte_mbuf));
    char* const place = static_cast<char*>(to->buf_addr) + dataOff;
    if constexpr (isShort) {
      bytes.store(place);
    } else if (dataLen <= kShortCopy) {
      rte_memcpy(place, data, dataLen);
    } else {
      std::memcpy(place, data, dataLen);
    }
    take(Packet::from(to));
  }
}

#if defined(RTE_LIBRTE_MEMPOOL_DEBUG)
#error "a pool that checks its calls does not know of packets that were taken in place"
#endif
// The top of the cache is read where it is: nothing is put there until the copies are made.
[[gnu::always_inline]] inline PacketCopier::Taken PacketCopier::takeBuffers(size_t wanted,
                                                                            Room& room) const {
  if (cache_ != nullptr && cache_->len >= wanted + kAhead) [[likely]] {
    void* const* const end = &cache_->objs[cache_->len];
    cache_->len -= static_cast<uint32_t>(wanted);
    return {end, wanted};
  }
  return takeInto(room, pool_, std::min(wanted, kMax));
}

[[gnu::always_inline]] inline void PacketCopier::prefetch(const rte_mbuf* to, uint16_t dataOff) {
  const char* line = reinterpret_cast<const char*>(to);
  __builtin_prefetch(line, 1);
  __builtin_prefetch(line + 64, 1);
  __builtin_prefetch(line + 128, 1);
  __builtin_prefetch(line + 192, 1);
  __builtin_prefetch(line + 256 + dataOff, 1);
}

}  // namespace bess
