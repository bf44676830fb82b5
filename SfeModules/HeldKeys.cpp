// What watches the unresolved cache: looks that take the lock for a bounded time each.

#include <algorithm>
#include <array>
#include <mutex>

#include "SfeModules/NoCachePacketManager.h"

namespace SfeModules {

namespace {

using HeldKey = NoCachePacketManager::HeldKey;
using LockGuard = std::lock_guard<SpinLockWord>;

// The first packets of a list, as they were at one moment.
struct Glimpse {
  std::array<uint64_t, HeldKey::kLookedAt> iifs;
  size_t looked = 0;
  bool waiting = false;
};

void addIifs(const Glimpse& glimpse, HeldKey& held) {
  for (size_t i = 0; i < glimpse.looked; ++i) {
    if (std::find(held.iifs.begin(), held.iifs.end(), glimpse.iifs[i]) == held.iifs.end()) {
      held.iifs.push_back(glimpse.iifs[i]);
    }
  }
}

}  // namespace

std::vector<HeldKey> NoCachePacketManager::heldKeys() {
  std::vector<HeldKey> keys;
  for (auto it = cacheTable_.begin(); it != cacheTable_.end(); ++it) {
    keys.emplace_back().key = it.key();
  }
  for (HeldKey& held : keys) {
    Glimpse glimpse;  // NOLINT(cppcoreguidelines-pro-type-member-init): `looked` of it are set
    {
      LockGuard guard(packetQueueLock_);
      UnresolvedList* const* list = cacheTable_.find(held.key);
      if (list == nullptr || *list == nullptr || (*list)->empty()) {
        continue;
      }
      held.packets = (*list)->size();
      held.oldest = (*list)->front()->arrival;
      for (const UnresolvedPacket* packet : **list) {
        glimpse.iifs[glimpse.looked++] = packet->iif;
        glimpse.waiting = glimpse.waiting || !packet->resolved;
        if (glimpse.looked == HeldKey::kLookedAt) {
          break;
        }
      }
    }
    held.waiting = glimpse.waiting;
    addIifs(glimpse, held);
  }
  std::erase_if(keys, [](const HeldKey& held) { return held.packets == 0; });
  return keys;
}

NoCachePacketManager::Room NoCachePacketManager::roomFor(const MfibKey& key) {
  LockGuard guard(packetQueueLock_);
  UnresolvedList* const* list = cacheTable_.find(key);
  if (list == nullptr) {
    return holdsAllKeys() ? Room::kNoKeyMore : Room::kYes;
  }
  return *list == nullptr || isFull(**list) ? Room::kNoPacketMore : Room::kYes;
}

}  // namespace SfeModules
