#include "Bess/PacketCopier.h"

namespace bess {

void PacketCopier::open(rte_mempool* pool) {
  pool_ = pool;
  cache_ = rte_mempool_default_cache(pool, rte_lcore_id());
  const bool pinned = (rte_pktmbuf_priv_flags(pool) & RTE_PKTMBUF_POOL_F_PINNED_EXT_BUF) != 0;
  bufferBytes_ = pinned ? 0 : rte_pktmbuf_data_room_size(pool);
}

// The cache does not hold enough, or there is none.
PacketCopier::Taken PacketCopier::takeInto(Room& room, rte_mempool* pool, size_t wanted) {
  void** const first = &room[kAhead];
  size_t got = wanted;
  if (rte_mempool_get_bulk(pool, first, static_cast<unsigned>(wanted)) != 0) {
    // Fewer are left.
    got = 0;
    while (got < wanted && rte_mempool_get(pool, first + got) == 0) {
      ++got;
    }
  }
  if (got != 0) {
    std::fill_n(room.data(), kAhead, *first);
  }
  return {first + got, got};
}

}  // namespace bess
