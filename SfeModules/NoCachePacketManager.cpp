#include "SfeModules/NoCachePacketManager.h"

#include <urcu/arch.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <new>
#include <utility>

#include "Base/Gemlog/Gemlog.h"
#include "Base/Trace.h"
#include "Bess/Worker.h"
#include "SfeModules/CounterEntries.h"

namespace SfeModules {

namespace {

constexpr uint32_t kInitialBuckets = 128;
constexpr bool kDeferredFree = true;
constexpr uint32_t kIndexedKeys = 1024;  // of further ones the look-up walks

using LockGuard = std::lock_guard<SpinLockWord>;

void relaxedAdd(std::atomic<uint32_t>& counter, uint32_t amount) {
  counter.store(counter.load(std::memory_order_relaxed) + amount, std::memory_order_relaxed);
}

}  // namespace

NoCachePacketManager::NoCachePacketManager(unsigned int af,
                                           IntfSet& intfs,
                                           RouteTable& routes,
                                           IntfCounters& intfCounters,
                                           MrouteCounters& mrouteCounters)
    : intfs_(intfs),
      routes_(routes),
      intfCounters_(intfCounters),
      mrouteCounters_(mrouteCounters),
      af_(af),
      cacheTable_(
          kInitialBuckets,
          kDeferredFree,
          kInitialBuckets,
          nullptr,
          [](UnresolvedList*& list) { freeUnresolvedPktCache(list); },
          kIndexedKeys),
      intfQueueCounts_(kInitialBuckets, kDeferredFree),
      mrouteQueueCounts_(kInitialBuckets, kDeferredFree) {
  SFE_TRACE("Mfib", 6, "", af_);
}

NoCachePacketManager::~NoCachePacketManager() {
  SFE_TRACE("Mfib", 6, "");
  LockGuard guard(packetQueueLock_);
  while (!packetQueue_.empty()) {
    delete packetQueue_.front();
    packetQueue_.pop_front();
  }
}

std::shared_ptr<IntfCounterEntry> NoCachePacketManager::forceLookupIntfCtrUpdates(uint64_t intf) {
  return lookupOrCreate(intfCounters_, intf);
}

std::shared_ptr<MrouteCounterEntry> NoCachePacketManager::forceLookupMrtCtrUpdates(
    const MfibKey& key) {
  return lookupOrCreate(mrouteCounters_, key);
}

void NoCachePacketManager::freeUnresolvedPktCache(UnresolvedList* list) {
  delete list;
}

// The list that takes one more packet of the key, made when the key is new; null when a limit is
// reached.
UnresolvedList* NoCachePacketManager::listWithRoom(const MfibKey& key) {
  UnresolvedList* list = nullptr;
  if (UnresolvedList* const* found = cacheTable_.find(key); found != nullptr) {
    list = *found;
    if (list == nullptr) {
      return nullptr;
    }
  } else {
    if (holdsAllKeys()) {
      fullUnreported_ = !fullReported_.load(std::memory_order_relaxed);
      return nullptr;
    }
    fullReported_.store(false, std::memory_order_relaxed);
    list = new UnresolvedList;
    cacheTable_.insert(key, list);
    relaxedAdd(entryCount_, 1);
  }
  return isFull(*list) ? nullptr : list;
}

bool NoCachePacketManager::addEntryIntoCache(const MfibKey& key, bess::Packet* pkt, uint64_t iif) {
  if (refusesAtOnce(key) || !BessPktCache::fits(pkt) || !hasRoomFor(key)) {
    return false;
  }
  // The copy is made without the lock, so the limits are looked at again when it is stored.
  try {
    auto held = std::make_unique<UnresolvedPacket>();
    held->copy = std::make_unique<BessPktCache>(pkt);
    held->key = key;
    held->iif = iif;
    if (!store(std::move(held))) {
      return false;
    }
  } catch (const std::bad_alloc&) {
    return false;
  }
  // A route that arrived after the caller's look-up found no key to queue: one of the two, who puts
  // in the route and who holds the packet, sees what the other one has written.
  cmm_smp_mb();
  if (routeArrived(key)) {
    resolvePendingPackets(key);
  }
  return true;
}

// What hasRoomFor() would say, without the lock, which others may need.
bool NoCachePacketManager::refusesAtOnce(const MfibKey& key) const {
  return fullReported_.load(std::memory_order_relaxed) && holdsAllKeys() &&
         !cacheTable_.contains(key);
}

// A flood of unknown flows refuses at line rate: one line until there has been room again.
bool NoCachePacketManager::hasRoomFor(const MfibKey& key) {
  bool report = false;
  {
    LockGuard guard(packetQueueLock_);
    if (listWithRoom(key) != nullptr) {
      return true;
    }
    report = std::exchange(fullUnreported_, false);
    if (report) {
      fullReported_.store(true, std::memory_order_relaxed);
    }
  }
  if (report) {
    Gemlog::write("mroute: pending queue full, dropping entries", {__FILE__, __LINE__});
  }
  return false;
}

bool NoCachePacketManager::store(std::unique_ptr<UnresolvedPacket> held) {
  LockGuard guard(packetQueueLock_);
  UnresolvedList* list = listWithRoom(held->key);
  if (list == nullptr) {
    return false;
  }
  list->reserve(list->size() +
                1);  // the last thing that may fail comes before the first that stays
  held->list = list;
  held->arrival = Clock::now();
  packetQueue_.push_back(held.get());
  UnresolvedPacket* stored = held.release();
  list->push_back(stored);
  relaxedAdd(packetCount_, 1);
  countHeld(*stored);
  return true;
}

bool NoCachePacketManager::routeArrived(const MfibKey& key) {
  const std::shared_ptr<MfibPvSet>* route = routes_.find(key);
  return route != nullptr && ((*route)->numOifs > 0 || (*route)->oifRegister);
}

void NoCachePacketManager::countHeld(const UnresolvedPacket& packet) {
  revive(*forceLookupIntfCtrUpdates(packet.iif)).pktsQueued += 1;
  const uint64_t* onIntf = intfQueueCounts_.find(packet.iif);
  intfQueueCounts_.insert(packet.iif, onIntf == nullptr ? 1 : *onIntf + 1);

  revive(*forceLookupMrtCtrUpdates(packet.key)).pktsQueued += 1;
  const uint64_t* onRoute = mrouteQueueCounts_.find(packet.key);
  mrouteQueueCounts_.insert(packet.key, onRoute == nullptr ? 1 : *onRoute + 1);
}

void NoCachePacketManager::resolvePendingPackets(const MfibKey& key) {
  cmm_smp_mb();
  if (cacheTable_.contains(key)) {
    LockGuard guard(resolvedQueueLock_);
    resolvedQueue_.push_back(key);
  }
}

bool NoCachePacketManager::resolvedQueueEmpty() {
  LockGuard guard(resolvedQueueLock_);
  return resolvedQueue_.empty();
}

bool NoCachePacketManager::takeResolvedKey(MfibKey& key) {
  LockGuard guard(resolvedQueueLock_);
  if (resolvedQueue_.empty()) {
    return false;
  }
  key = resolvedQueue_.front();
  resolvedQueue_.pop_front();
  return true;
}

void NoCachePacketManager::requeueResolved(const MfibKey& key) {
  LockGuard guard(resolvedQueueLock_);
  resolvedQueue_.push_front(key);
}

size_t NoCachePacketManager::takeEligible(const MfibKey& key,
                                          uint64_t iif,
                                          UnresolvedPacket** packets,
                                          size_t room,
                                          bool& more) {
  size_t taken = 0;
  more = false;
  LockGuard guard(packetQueueLock_);
  UnresolvedList* const* list = cacheTable_.find(key);
  if (list == nullptr || *list == nullptr) {
    return 0;
  }
  for (UnresolvedPacket* packet : **list) {
    if (packet->resolved || packet->taken || packet->iif != iif) {
      continue;
    }
    if (taken == room) {
      more = true;
      break;
    }
    packet->taken = true;
    packets[taken++] = packet;
  }
  return taken;
}

void NoCachePacketManager::settle(UnresolvedPacket* packet, bool resolved, bool forwarded) {
  LockGuard guard(packetQueueLock_);
  packet->resolved = packet->resolved || resolved;
  packet->forwarded = packet->forwarded || forwarded;
  packet->taken = false;
}

bool NoCachePacketManager::frontMustStay(TimePoint cutoff) const {
  const UnresolvedPacket& front = *packetQueue_.front();
  return front.taken || (!front.resolved && cutoff <= front.arrival);
}

bool NoCachePacketManager::expirePacketsFromCache() {
  {
    LockGuard guard(packetQueueLock_);
    if (packetQueue_.empty()) {
      return false;
    }
  }
  const auto wait = std::chrono::nanoseconds(
      static_cast<int64_t>(expiryTimer_.load(std::memory_order_relaxed) * 1000000000));
  const TimePoint cutoff = Clock::now() - wait;
  bool freed = false;
  while (true) {
    std::unique_ptr<UnresolvedPacket> packet;  // given back after the lock
    LockGuard guard(packetQueueLock_);
    if (packetQueue_.empty() || frontMustStay(cutoff)) {
      return freed;
    }
    packet.reset(packetQueue_.front());
    countFreed(*packet);
    removeFromList(packet.get());
    relaxedAdd(packetCount_, static_cast<uint32_t>(-1));
    packetQueue_.pop_front();
    if (!packet->resolved && fates_ != nullptr) {
      fates_->count(current_worker.wid(), Fate::kDropExpired);
    }
    freed = true;
  }
}

void NoCachePacketManager::countFreed(const UnresolvedPacket& packet) {
  countFreedOnIntf(packet);
  countFreedOnRoute(packet);
}

void NoCachePacketManager::countFreedOnIntf(const UnresolvedPacket& packet) {
  const std::shared_ptr<IntfCounterEntry> entry = forceLookupIntfCtrUpdates(packet.iif);
  const uint64_t* found = intfQueueCounts_.find(packet.iif);
  const uint64_t count = found == nullptr ? 1 : *found;
  if (count == 1 && !intfs_.contains(packet.iif)) {
    intfQueueCounts_.erase(packet.iif);
    withdraw(*entry);
    return;
  }
  intfQueueCounts_.insert(packet.iif, count - 1);
  revive(*entry).pktsQueued += static_cast<uint32_t>(-1);
  if (!packet.resolved) {
    entry->pktsDropped += 1;
  }
}

void NoCachePacketManager::countFreedOnRoute(const UnresolvedPacket& packet) {
  const std::shared_ptr<MrouteCounterEntry> entry = forceLookupMrtCtrUpdates(packet.key);
  const uint64_t* found = mrouteQueueCounts_.find(packet.key);
  const uint64_t count = found == nullptr ? 1 : *found;
  if (count == 1 && !packet.forwarded && !routes_.contains(packet.key)) {
    mrouteQueueCounts_.erase(packet.key);
    withdraw(*entry);
    return;
  }
  mrouteQueueCounts_.insert(packet.key, count - 1);
  revive(*entry).pktsQueued += static_cast<uint32_t>(-1);
  if (!packet.resolved) {
    entry->pktsDropped += 1;
  }
}

void NoCachePacketManager::removeFromList(UnresolvedPacket* packet) {
  UnresolvedList& list = *packet->list;
  list.erase(std::find(list.begin(), list.end(), packet));
  if (list.empty()) {
    cacheTable_.erase(packet->key);  // its clean-up deletes the list
    relaxedAdd(entryCount_, static_cast<uint32_t>(-1));
  }
}

}  // namespace SfeModules
