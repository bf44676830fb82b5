#include "SfeModules/Testing/PacketFixture.h"

#include <urcu-qsbr.h>

#include <algorithm>
#include <chrono>

namespace SfeModules {

using frames::PacketFate;

namespace {

constexpr uint32_t kHeldPerRoute = 3;
constexpr uint32_t kHeldRoutes = 250;

template <class Table>
void clear(Table& table) {
  for (auto it = table.begin(); it != table.end();) {
    const auto current = it;
    ++it;
    table.eraseNode(current);
  }
}

sfe::pb::SizeArg limit(uint32_t value) {
  sfe::pb::SizeArg arg;
  arg.set_value(value);
  return arg;
}

}  // namespace

// What the packet path wrote, and what prepare() set up.
void PacketFixture::forgetLastRow() {
  for (const Route& route : prepared_.routes) {
    ASSERT_FALSE(deleteRoute(route.source, route.group).has_error());
  }
  disable(prepared_.enabled);
  NoCachePacketManager& cache = *MfibTestPeer::cache(*mfib_);
  ManualClock::advance(std::chrono::hours(1));
  while (cache.expirePacketsFromCache()) {
  }
  ASSERT_EQ(cache.packetCount(), 0U);
  clear(MfibTestPeer::intfCounters(*mfib_));
  clear(MfibTestPeer::mrouteCounters(*mfib_));
  clear(MfibTestPeer::sgAlerts(*mfib_));
  clear(MfibTestPeer::wrongVifTimes(*mfib_));
  clearEvents();
  notifications();
  urcu_qsbr_quiescent_state();
}

void PacketFixture::prepare(const frames::PacketCase& row) {
  if (mfib_ != nullptr &&
      (row.kind.af != prepared_.kind.af || row.kind.ethernetMode != prepared_.kind.ethernetMode)) {
    destroyInstance();
  }
  if (mfib_ != nullptr) {
    forgetLastRow();
  } else {
    create(row.kind);
  }
  prepared_ = row;
  enable(row.enabled);
  for (const Route& route : row.routes) {
    ASSERT_FALSE(addRoute(route).has_error());
  }
  fatesBefore_ = allFates();
  mfib_->setMaxUnresolvedPktBuffers(limit(row.heldPerRoute.value_or(kHeldPerRoute)));
  mfib_->setMaxUnresolvedCacheEntries(limit(row.heldRoutes.value_or(kHeldRoutes)));
}

void PacketFixture::create(const frames::Kind& kind) {
  createInstance({.af = kind.af, .ethernetMode = kind.ethernetMode, .vrfId = frames::kVrfId});
  const Bytes bridge = frames::mac(frames::kBridgeMac);
  MacAddr mac;
  std::copy(bridge.begin(), bridge.end(), mac.begin());
  setBridgeMac(mac);
}

// They outlive an instance: what counts is what was added.
PacketFixture::FateCounts PacketFixture::allFates() const {
  FateCounts counts{};
  for (size_t i = 0; i < counts.size(); ++i) {
    counts.at(i) =
        bessCounter(harness_.wid(), MfibTestPeer::fates(*mfib_).id(static_cast<Fate>(i)));
  }
  return counts;
}

PacketFixture::FateCounts PacketFixture::fates() const {
  FateCounts counts = allFates();
  for (size_t i = 0; i < counts.size(); ++i) {
    counts.at(i) -= fatesBefore_.at(i);
  }
  return counts;
}

PacketFixture::Totals PacketFixture::totals() const {
  Totals sum;
  const auto& table = MfibTestPeer::intfCounters(*mfib_);
  for (auto it = table.begin(); it != table.end(); ++it) {
    const IntfCounterEntry& entry = *it.value();
    sum.in += entry.pktsIn;
    sum.bytesIn += entry.bytesIn;
    sum.out += entry.pktsOut;
    sum.dropped += entry.pktsDropped;
    sum.queued += entry.pktsQueued;
  }
  sum.held = MfibTestPeer::cache(*mfib_)->packetCount();
  return sum;
}

PacketFate PacketFixture::fateOf(bool answer,
                                 const Totals& before,
                                 const Totals& after,
                                 const bess::testing::Output& out) const {
  const uint64_t dropped = after.dropped - before.dropped;
  const uint64_t held = after.held - before.held;
  const uint64_t sent = after.out - before.out;
  EXPECT_EQ(after.queued - before.queued, held);
  if (answer) {
    EXPECT_EQ(dropped, 0U);
    EXPECT_EQ(sent, out.total());
    EXPECT_EQ(held, sent == 0 ? 1U : 0U);
    return held == 1 ? PacketFate::kHeld : PacketFate::kForwarded;
  }
  EXPECT_EQ(held, 0U);
  if (dropped == 0) {
    EXPECT_EQ(sent, 0U);
    EXPECT_EQ(out.total(), 1U);
    EXPECT_EQ(out.count(0), 1U);
    return PacketFate::kUnchanged;
  }
  EXPECT_EQ(dropped, 1U);
  EXPECT_EQ(sent, out.total());
  return PacketFate::kDropped;
}

PacketFate PacketFixture::offerBalanced(bess::PacketPtr packet,
                                        bool reinjected,
                                        std::vector<size_t>* sizes) {
  const size_t inUse = packetsInUse() - packet->segments();
  const Totals before = totals();
  const FateCounts fatesBefore = fates();
  const uint64_t bytes = packet->totalLen();
  const Bytes arrived = bytesOf(packet);
  bess::testing::Output out;
  const bool answer = process(std::move(packet), reinjected, out);
  const Totals after = totals();
  EXPECT_EQ(after.in - before.in, reinjected ? 0U : 1U);
  EXPECT_EQ(after.bytesIn - before.bytesIn, reinjected ? 0U : bytes);
  const PacketFate fate = fateOf(answer, before, after, out);
  if (fate == PacketFate::kUnchanged && out.count(0) == 1) {
    EXPECT_EQ(bytesOf(out[0][0]), arrived);
  }
  uint64_t ends = 0;  // fates that a packet meets once
  const FateCounts fatesAfter = fates();
  for (size_t i = 0; i < fatesAfter.size(); ++i) {
    ends += static_cast<Fate>(i) == Fate::kCopied ? 0 : fatesAfter.at(i) - fatesBefore.at(i);
  }
  EXPECT_EQ(ends, 1U);
  if (sizes != nullptr) {
    for (const auto& [gate, packets] : out.gates()) {
      for (const bess::PacketPtr& sent : packets) {
        sizes->push_back(sent->totalLen());
      }
    }
  }
  out = bess::testing::Output();
  EXPECT_EQ(packetsInUse(), inUse);
  return fate;
}

}  // namespace SfeModules
