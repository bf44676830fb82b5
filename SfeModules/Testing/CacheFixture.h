// One unresolved cache on tables of the test's own, without a module around it.
//
// Threads    : the test's own, which acts as worker 0. The clock stands still until the test moves
//              it.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Bess/Testing/ModuleHarness.h"
#include "SfeModules/NoCachePacketManager.h"
#include "SfeModules/Testing/MfibFixture.h"

namespace SfeModules {

// Parts of a cache that nobody outside of it can see.
struct NoCacheTestPeer {
  static auto& lists(NoCachePacketManager& cache) { return cache.cacheTable_; }
  static auto& onIntf(NoCachePacketManager& cache) { return cache.intfQueueCounts_; }
  static auto& onRoute(NoCachePacketManager& cache) { return cache.mrouteQueueCounts_; }
  static std::shared_ptr<IntfCounterEntry> counters(NoCachePacketManager& cache, uint64_t intf) {
    return cache.forceLookupIntfCtrUpdates(intf);
  }
  static std::shared_ptr<MrouteCounterEntry> counters(NoCachePacketManager& cache,
                                                      const MfibKey& key) {
    return cache.forceLookupMrtCtrUpdates(key);
  }
};

class CacheFixture : public ::testing::Test {
 protected:
  static constexpr uint64_t kIntf = 0x100;
  static constexpr uint64_t kOtherIntf = 0x200;

  CacheFixture() {
    createCounterRow(harness_.wid());
    fates_.nameIs("cachetest");
    cache_->fatesIs(&fates_);
    setExpired(0);
  }
  ~CacheFixture() override { destroyCounterRow(harness_.wid()); }

  // The n-th of as many keys as a test needs.
  static MfibKey key(unsigned n) {
    const std::array<uint8_t, 4> source = {10, 0, 0, 2};
    const std::array<uint8_t, 4> group = {239, static_cast<uint8_t>(n >> 16),
                                          static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)};
    return MfibKey::of(source.data(), group.data(), kIpv4AddrLen);
  }

  bool offer(const MfibKey& key, uint64_t intf = kIntf, std::string_view bytes = "held") {
    const bess::PacketPtr packet = harness_.packet(bytes);
    return cache_->addEntryIntoCache(key, packet.get(), intf);
  }

  void addRoute(const MfibKey& key, uint32_t oifs, bool oifRegister = false) {
    auto entry = MfibPvSet::make(oifs);
    entry->oifRegister = oifRegister;
    routes_.insert(key, std::move(entry));
  }

  bool expire() {
    bool freed = false;
    harness_.run([&] { freed = cache_->expirePacketsFromCache(); });
    return freed;
  }

  // Takes everything of the key that arrived on `intf`.
  std::vector<UnresolvedPacket*> take(const MfibKey& key, uint64_t intf = kIntf) {
    std::vector<UnresolvedPacket*> packets(64);
    bool more = false;
    packets.resize(cache_->takeEligible(key, intf, packets.data(), packets.size(), more));
    return packets;
  }

  void resolve(const MfibKey& key, uint64_t intf, bool forwarded) {
    for (UnresolvedPacket* packet : take(key, intf)) {
      cache_->settle(packet, true, forwarded);
    }
  }

  IntfCounterEntry& onIntf(uint64_t intf) { return *NoCacheTestPeer::counters(*cache_, intf); }
  MrouteCounterEntry& onRoute(const MfibKey& key) {
    return *NoCacheTestPeer::counters(*cache_, key);
  }

  uint64_t expired() const { return bessCounter(harness_.wid(), fates_.id(Fate::kDropExpired)); }
  void setExpired(uint64_t value) {
    bessCounterRow(harness_.wid())[fates_.id(Fate::kDropExpired)] = value;
  }

  static void pass(std::chrono::nanoseconds time) { ManualClock::advance(time); }

  ManualClock clock_;
  bess::testing::ModuleHarness harness_;
  PacketFates fates_;
  struct Tables {
    NoCachePacketManager::IntfSet intfs;
    NoCachePacketManager::RouteTable routes;
    NoCachePacketManager::IntfCounters intfCounters;
    NoCachePacketManager::MrouteCounters mrouteCounters;
  };
  const std::unique_ptr<Tables> tables_ = std::make_unique<Tables>();
  NoCachePacketManager::IntfSet& intfs_ = tables_->intfs;
  NoCachePacketManager::RouteTable& routes_ = tables_->routes;
  NoCachePacketManager::IntfCounters& intfCounters_ = tables_->intfCounters;
  NoCachePacketManager::MrouteCounters& mrouteCounters_ = tables_->mrouteCounters;
  std::unique_ptr<NoCachePacketManager> cache_ =
      std::make_unique<NoCachePacketManager>(kAfIpv4,
                                             intfs_,
                                             routes_,
                                             intfCounters_,
                                             mrouteCounters_);
};

}  // namespace SfeModules
