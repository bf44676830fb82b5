// Holds packets of routes that are not installed yet, bounded per key and in keys.
//
// Threads    | operation                                  | control | worker |
//            | addEntryIntoCache, expirePacketsFromCache  |    -    |  yes   |
//            | resolvedQueueEmpty, takeResolvedKey,       |    -    |  yes   |
//            |   takeEligible, settle, requeueResolved    |    -    |  yes   |
//            | resolvePendingPackets                      |   yes   |  yes   |
//            | heldKeys, roomFor                          |   yes   |   -    |
//            | limits (atomic words)                      |   yes   |  read  |
// Ownership  : addEntryIntoCache() copies the packet; the caller keeps its own. A held packet is
// owned by the packet
//              queue; the list of its key only points at it. A packet that a worker took with
//              takeEligible() is left alone by everybody else until that worker settles it.
// RCU        : the tables are read and written online; lists are changed and read only under the
// packet queue's lock. Errors     : a full cache or a full list refuses (returns false). Cost :
// offering takes one packet copy and a few look-ups; expiry is O(packets freed). The lock is never
// held while
//              a packet is copied or processed.
// Invariants :
//   (1) every held packet is in the packet queue exactly once and in the list of its key exactly
//   once. (2) keys held <= maxUnresolvedCacheEntries_ and packets of a key <=
//   maxUnresolvedPktBuffers_ whenever another thread
//       can look, for limits that were not lowered meanwhile.
//   (3) the packet queue is in order of arrival.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "Bess/Packet.h"
#include "SfeModules/BessPktCache.h"
#include "SfeModules/MfibTypes.h"
#include "SfeModules/NyUrcuHt.h"
#include "SfeModules/PacketFates.h"
#include "SfeModules/SpinLockWord.h"

namespace SfeModules {

struct UnresolvedPacket;
using UnresolvedList = std::vector<UnresolvedPacket*>;

// One held packet. `copy`, `key`, `iif` and `arrival` never change; the rest is guarded by the
// packet queue's lock.
struct UnresolvedPacket {
  std::unique_ptr<BessPktCache> copy;
  MfibKey key;
  uint64_t iif = 0;
  TimePoint arrival;
  UnresolvedList* list = nullptr;
  bool resolved = false;   // it has been re-injected
  bool forwarded = false;  // that re-injection forwarded it
  bool taken = false;      // a worker is re-injecting it
};

class NoCachePacketManager {
 public:
  using IntfSet = NyRcuHt<uint64_t, bool>;
  using RouteTable = NyRcuHt<MfibKey, std::shared_ptr<MfibPvSet>>;
  using IntfCounters = NyRcuHt<uint64_t, std::shared_ptr<IntfCounterEntry>>;
  using MrouteCounters = NyRcuHt<MfibKey, std::shared_ptr<MrouteCounterEntry>>;

  // Requires: the four tables outlive the manager. Errors: a table that cannot be created throws
  // std::runtime_error.
  NoCachePacketManager(unsigned int af,
                       IntfSet& intfs,
                       RouteTable& routes,
                       IntfCounters& intfCounters,
                       MrouteCounters& mrouteCounters);
  ~NoCachePacketManager();
  NoCachePacketManager(const NoCachePacketManager&) = delete;
  NoCachePacketManager& operator=(const NoCachePacketManager&) = delete;

  // Returns: true when a copy of the packet was stored. A packet with a segment larger than
  // Segment::kRoom is refused.
  bool addEntryIntoCache(const MfibKey& key, bess::Packet* pkt, uint64_t iif);

  // Queues the key for re-injection when packets are held for it.
  void resolvePendingPackets(const MfibKey& key);

  // Frees the packets at the head of the queue that are re-injected or have waited long enough.
  // Returns: true when at least one packet was taken off.
  bool expirePacketsFromCache();

  bool resolvedQueueEmpty();

  // Pops the key at the front of the resolved queue. Returns: false when the queue is empty.
  bool takeResolvedKey(MfibKey& key);

  // Puts a key back to the front: its packets did not all fit one run.
  void requeueResolved(const MfibKey& key);

  // Takes up to `room` packets of the key that arrived on `iif` and are neither resolved nor taken,
  // in list order. Returns: how many were taken; `more` tells whether others are left.
  size_t takeEligible(const MfibKey& key,
                      uint64_t iif,
                      UnresolvedPacket** packets,
                      size_t room,
                      bool& more);

  // Gives a taken packet back, as re-injected (and forwarded) or as it was.
  void settle(UnresolvedPacket* packet, bool resolved, bool forwarded);

  // Where packets that expire are counted. Control, before the first packet.
  void fatesIs(const PacketFates* fates) { fates_ = fates; }

  // Deletes the vector only; nothing when null.
  static void freeUnresolvedPktCache(UnresolvedList* list);

  // Settings, written by commands and read by workers.
  std::atomic<uint64_t> expiryTimer_{10};                 // seconds
  std::atomic<uint32_t> maxUnresolvedPktBuffers_{3};      // packets per key
  std::atomic<uint32_t> maxUnresolvedCacheEntries_{250};  // keys

  // What is held now, for whoever watches.
  uint32_t entryCount() const { return entryCount_.load(std::memory_order_relaxed); }
  uint32_t packetCount() const { return packetCount_.load(std::memory_order_relaxed); }

  // What is held for one key. A look at it takes the lock for a time that is bounded whatever is
  // held: of a longer list the first kLookedAt packets count for `iifs` and `waiting`.
  struct HeldKey {
    static constexpr size_t kLookedAt = 64;
    MfibKey key;
    size_t packets = 0;
    TimePoint oldest;
    std::vector<uint64_t> iifs;  // where they arrived, each once
    bool waiting = false;        // one of them has not been re-injected
  };
  // RCU: one read side for all. A key that comes or goes meanwhile may or may not be there.
  std::vector<HeldKey> heldKeys();

  // Whether a further packet of the key would be held now.
  enum class Room : uint8_t { kYes, kNoKeyMore, kNoPacketMore };
  Room roomFor(const MfibKey& key);

 private:
  friend struct NoCacheTestPeer;

  using CacheTable = NyRcuHt<MfibKey, UnresolvedList*>;
  using IntfQueueCounts = NyRcuHt<uint64_t, uint64_t>;
  using MrouteQueueCounts = NyRcuHt<MfibKey, uint64_t>;

  std::shared_ptr<IntfCounterEntry> forceLookupIntfCtrUpdates(uint64_t intf);
  std::shared_ptr<MrouteCounterEntry> forceLookupMrtCtrUpdates(const MfibKey& key);

  bool refusesAtOnce(const MfibKey& key) const;
  bool holdsAllKeys() const {
    return entryCount() >= maxUnresolvedCacheEntries_.load(std::memory_order_relaxed);
  }
  bool hasRoomFor(const MfibKey& key);
  bool store(std::unique_ptr<UnresolvedPacket> held);

  bool routeArrived(const MfibKey& key);

  // All below: requires the packet queue's lock.
  UnresolvedList* listWithRoom(const MfibKey& key);
  bool isFull(const UnresolvedList& list) const {
    return list.size() >= maxUnresolvedPktBuffers_.load(std::memory_order_relaxed);
  }
  void countHeld(const UnresolvedPacket& packet);
  bool frontMustStay(TimePoint cutoff) const;
  void countFreed(const UnresolvedPacket& packet);
  void countFreedOnIntf(const UnresolvedPacket& packet);
  void countFreedOnRoute(const UnresolvedPacket& packet);
  void removeFromList(UnresolvedPacket* packet);

  IntfSet& intfs_;
  RouteTable& routes_;
  IntfCounters& intfCounters_;
  MrouteCounters& mrouteCounters_;
  const uint32_t af_;
  const PacketFates* fates_ = nullptr;

  // Guarded by packetQueueLock_; the atomic ones may be read without it.
  SpinLockWord packetQueueLock_;
  std::deque<UnresolvedPacket*> packetQueue_;  // all held packets, oldest first
  CacheTable cacheTable_;
  IntfQueueCounts intfQueueCounts_;
  MrouteQueueCounts mrouteQueueCounts_;
  std::atomic<uint32_t> entryCount_{0};    // keys in cacheTable_
  std::atomic<uint32_t> packetCount_{0};   // packets in packetQueue_
  std::atomic<bool> fullReported_{false};  // since the cache last had room for a key
  bool fullUnreported_ = false;            // the refusal at hand is to be told

  // Guarded by resolvedQueueLock_.
  SpinLockWord resolvedQueueLock_;
  std::deque<MfibKey> resolvedQueue_;  // keys whose route has arrived
};

}  // namespace SfeModules
