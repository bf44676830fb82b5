// Copies of packets, made in bulk: buffers are taken from the pool some at a time and fetched into
// the cache ahead of their use; what the copies of one packet have in common is loaded once.
//
// Threads    : one worker's, for the time of a call.
// Ownership  : a copy is the caller's; buffers that were taken and not used go back with the stock,
//              or before.
// Errors     : a dry pool makes fewer copies, down to none.
// Cost       : about 40 instructions for a copy of up to kShort bytes.
#pragma once

#include <rte_mbuf.h>
#include <rte_memcpy.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Bess/Packet.h"

namespace bess {

class PacketStock {
 public:
  // `packets`: about how many packets will be copied. As much as the next one needs, times those
  // that are left, is taken at once.
  explicit PacketStock(size_t packets) : packets_(packets) {}
  ~PacketStock() { giveBack(); }
  PacketStock(const PacketStock&) = delete;
  PacketStock& operator=(const PacketStock&) = delete;

  // Makes up to `n` deep copies of a packet, from its own pool: its data, input port, offload flags
  // and header lengths, with the Packet::kMetadataSize bytes at `metadata` for their metadata.
  // Returns: how many could be made. None of a packet of several segments, or whose data does not
  // fit a buffer of the pool.
  size_t copy(const Packet* src, const void* metadata, Packet** copies, size_t n);

  // Returns: whether there was anything to give back.
  bool giveBack();

 private:
  static constexpr size_t kMax = PacketBatch::kMaxBurst;
  static constexpr size_t kAhead = 3;     // buffers that are fetched before their turn
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
  static_assert(Packet::kMetadataSize == 2 * sizeof(Line));
  static_assert(kShort == sizeof(Line));

  template <bool isShort>
  size_t fill(const rte_mbuf& from, const void* metadata, Packet** copies, size_t n);
  bool refill(rte_mempool* pool, size_t wanted);
  [[gnu::always_inline]] static void prefetch(const rte_mbuf* to, uint16_t dataOff);

  size_t packets_;
  rte_mempool* pool_ = nullptr;
  size_t next_ = 0;
  size_t count_ = 0;
  // Those from next_ to count_ are in stock; kAhead more make an end without a check.
  std::array<rte_mbuf*, kMax + kAhead> mbufs_;
};

inline size_t PacketStock::copy(const Packet* src,
                                const void* metadata,
                                Packet** copies,
                                size_t n) {
  if (!src->isLinear()) {
    return 0;
  }
  const rte_mbuf& from = *src->mbuf();
  bool isShort = from.data_len <= kShort && from.data_off + kShort <= from.buf_len;
  size_t made = 0;
  while (made < n && refill(from.pool, n - made)) {
    const size_t some = isShort ? fill<true>(from, metadata, copies + made, n - made)
                                : fill<false>(from, metadata, copies + made, n - made);
    if (some == 0 && !isShort) {
      break;
    }
    isShort = isShort && some != 0;  // the copy's buffer may be the smaller one
    made += some;
  }
  packets_ = std::max<size_t>(packets_, 2) - 1;
  return made;
}

// Fills what is in stock, up to `n`. A buffer comes from the pool as the pool keeps it: nothing is
// chained to it.
template <bool isShort>
inline size_t PacketStock::fill(const rte_mbuf& from,
                                const void* metadata,
                                Packet** copies,
                                size_t n) {
  static_assert(std::endian::native == std::endian::little);
  static_assert(offsetof(rte_mbuf, refcnt) == offsetof(rte_mbuf, data_off) + 2 &&
                offsetof(rte_mbuf, nb_segs) == offsetof(rte_mbuf, data_off) + 4 &&
                offsetof(rte_mbuf, port) == offsetof(rte_mbuf, data_off) + 6);
  constexpr size_t kFields = offsetof(rte_mbuf, packet_type);  // packet_type .. vlan_tci_outer
  constexpr size_t kLast = offsetof(rte_mbuf, buf_len) - sizeof(uint64_t);
  static_assert(kLast >= kFields && kLast <= kFields + sizeof(Line::Block));
  constexpr uint16_t kShortCopy = 256;

  const char* const source = reinterpret_cast<const char*>(&from);
  const char* const data = rte_pktmbuf_mtod(&from, const char*);
  const uint16_t dataOff = from.data_off;
  const uint16_t dataLen = from.data_len;
  const uint64_t rearm =
      dataOff | uint64_t{1} << 16 | uint64_t{1} << 32 | uint64_t{from.port} << 48;
  const uint64_t flags = from.ol_flags & ~(RTE_MBUF_F_EXTERNAL | RTE_MBUF_F_INDIRECT);
  const uint64_t txOffload = from.tx_offload;
  Line::Block fields;
  uint64_t last = 0;
  std::memcpy(&fields, source + kFields, sizeof(fields));
  std::memcpy(&last, source + kLast, sizeof(last));
  const Line metadata1 = Line::load(metadata);
  const Line metadata2 = Line::load(static_cast<const char*>(metadata) + sizeof(Line));
  const Line bytes = isShort ? Line::load(data) : Line{};
  const uint32_t end = dataOff + uint32_t{isShort ? kShort : dataLen};

  const size_t made = std::min(n, count_ - next_);
  rte_mbuf* const* const mbufs = &mbufs_[next_];
  for (size_t i = 0; i < made; ++i) {
    rte_mbuf* const to = mbufs[i];
    prefetch(mbufs[i + kAhead], dataOff);
    if (to->buf_len < end) [[unlikely]] {
      next_ += i;
      return i;
    }
    char* const mbuf = reinterpret_cast<char*>(to);
    std::memcpy(&to->rearm_data, &rearm, sizeof(rearm));
    to->ol_flags = (to->ol_flags & RTE_MBUF_F_EXTERNAL) | flags;
    std::memcpy(mbuf + kFields, &fields, sizeof(fields));
    std::memcpy(mbuf + kLast, &last, sizeof(last));
    to->pkt_len = dataLen;
    to->tx_offload = txOffload;
    metadata1.store(mbuf + sizeof(rte_mbuf));
    metadata2.store(mbuf + sizeof(rte_mbuf) + sizeof(Line));
    char* const place = static_cast<char*>(to->buf_addr) + dataOff;
    if constexpr (isShort) {
      bytes.store(place);
    } else if (dataLen <= kShortCopy) {
      rte_memcpy(place, data, dataLen);
    } else {
      std::memcpy(place, data, dataLen);
    }
    copies[i] = Packet::from(to);
  }
  next_ += made;
  return made;
}

// Returns: whether there is a buffer of that pool.
inline bool PacketStock::refill(rte_mempool* pool, size_t wanted) {
  if (next_ < count_ && pool == pool_) [[likely]] {
    return true;
  }
  giveBack();
  pool_ = pool;
  size_t got = std::min(kMax, wanted * packets_);
  if (rte_mempool_get_bulk(pool, reinterpret_cast<void**>(mbufs_.data()), got) != 0) {
    // Fewer are left.
    const size_t most = std::min(kMax, wanted);
    got = 0;
    while (got < most && rte_mempool_get(pool, reinterpret_cast<void**>(&mbufs_[got])) == 0) {
      ++got;
    }
    if (got == 0) {
      return false;
    }
  }
  for (size_t i = 0; i < got; ++i) {
    Packet::annotateAlloc(mbufs_[i]);
  }
  std::fill_n(&mbufs_[got], kAhead, mbufs_[got - 1]);
  for (size_t i = 0; i < kAhead; ++i) {
    prefetch(mbufs_[i], RTE_PKTMBUF_HEADROOM);
  }
  next_ = 0;
  count_ = got;
  return true;
}

inline bool PacketStock::giveBack() {
  const size_t left = count_ - next_;
  if (left != 0) {
    std::for_each_n(&mbufs_[next_], left, Packet::annotateRelease);
    Packet::giveBack(pool_, &mbufs_[next_], left);
  }
  next_ = count_ = 0;
  return left != 0;
}

inline void PacketStock::prefetch(const rte_mbuf* to, uint16_t dataOff) {
  const char* line = reinterpret_cast<const char*>(to);
  __builtin_prefetch(line, 1);
  __builtin_prefetch(line + 64, 1);
  __builtin_prefetch(line + 128, 1);
  __builtin_prefetch(line + 192, 1);
  __builtin_prefetch(line + 256 + dataOff, 1);
}

}  // namespace bess
