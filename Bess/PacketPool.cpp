#include "Bess/PacketPool.h"

#include <glog/logging.h>
#include <rte_errno.h>
#include <rte_lcore.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <stdexcept>

#include "Base/Orp/SystemException.h"

namespace bess {
namespace {

// Caches of many workers must not hold a noticeable part of the pool; a small pool has none, so
// that its last packet can be had.
constexpr unsigned kMaxCache = RTE_MEMPOOL_CACHE_MAX_SIZE;
constexpr unsigned kPacketsPerCached = 32;
constexpr unsigned kMinCount = 1024;

unsigned cacheSize(unsigned count) {
  return count < kMinCount ? 0 : std::min(kMaxCache, count / kPacketsPerCached);
}

using Pools = std::array<std::unique_ptr<PacketPool>, RTE_MAX_NUMA_NODES>;
Pools& defaultPools() {
  // Never destroyed: packets may outlive static objects.
  static Pools& pools = *new Pools;
  return pools;
}
PacketPool* firstPool = nullptr;

}  // namespace

PacketPool::PacketPool(const std::string& name, unsigned count, unsigned dataRoom, int socket)
    : pool_(nullptr), socket_(socket), dataRoom_(dataRoom) {
  const std::string what = "packet pool " + name + ": ";
  if (count == 0 || dataRoom == 0 || dataRoom > kMaxDataRoom) {
    throw Orp::SystemException(EINVAL, what + "needs at least 1 packet of 1 to " +
                                           std::to_string(kMaxDataRoom) + " bytes");
  }
  pool_ = rte_pktmbuf_pool_create(name.c_str(), count, cacheSize(count), Packet::kMetadataSize,
                                  static_cast<uint16_t>(dataRoom + RTE_PKTMBUF_HEADROOM), socket);
  if (pool_ == nullptr) {
    throw Orp::SystemException(rte_errno, what + std::to_string(count) + " packets of " +
                                              std::to_string(dataRoom) + " bytes");
  }
}

PacketPool::~PacketPool() {
  rte_mempool_free(pool_);
}

PacketPool* PacketPool::defaultPool(int socket) {
  if (socket >= 0 && socket < RTE_MAX_NUMA_NODES) {
    if (PacketPool* pool = defaultPools()[socket].get(); pool != nullptr) {
      return pool;
    }
  }
  return firstPool;
}

void PacketPool::createDefaultPools(unsigned count, unsigned dataRoom) {
  if (firstPool != nullptr) {
    throw std::logic_error("the default packet pools exist");
  }
  const unsigned sockets = rte_socket_count();
  for (unsigned i = 0; i < sockets; i++) {
    const int socket = rte_socket_id_by_idx(i);
    try {
      defaultPools()[socket] =
          std::make_unique<PacketPool>("packets" + std::to_string(socket), count, dataRoom, socket);
    } catch (const std::system_error& e) {
      // A node without memory is served by another one's pool; no pool at all is an error.
      if (firstPool == nullptr && i + 1 == sockets) {
        throw;
      }
      LOG(WARNING) << e.what();
      continue;
    }
    if (firstPool == nullptr) {
      firstPool = defaultPools()[socket].get();
    }
  }
}

void PacketPool::destroyDefaultPools() {
  firstPool = nullptr;
  for (auto& pool : defaultPools()) {
    pool.reset();
  }
}

}  // namespace bess
