// Many ways out, and batches whose packets share some of them: what is remembered from packet to
// packet must not show.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "SfeModules/Testing/PacketFixture.h"

namespace SfeModules {

namespace {

using frames::Flow;
using frames::Ip;
using frames::PacketCase;

class MfibFanOut : public PacketFixture {
 protected:
  static std::string oif(unsigned number) { return "Ethernet" + std::to_string(100 + number); }

  // `count` interfaces from the `first` on, spread over the gates 1 to 3.
  static std::vector<Oif> oifs(unsigned first, unsigned count) {
    std::vector<Oif> list;
    for (unsigned i = first; i < first + count; ++i) {
      list.push_back({oif(i), 1 + i % 3});
    }
    return list;
  }

  // A second route beside the row's, from another source.
  void addSecond(PacketCase& row, unsigned first, unsigned count) const {
    Route second = row.routes[0];
    second.source = kSecondSource;
    second.oifs = oifs(first, count);
    row.routes.push_back(second);
  }

  bess::PacketPtr packet(const std::string& source, const std::string& intf) {
    Ip ip = flow_.ip();
    ip.source = source;
    return arriving(flow_.in(ip), Arrival{.intf = intf});
  }

  // Packets in one batch, and one on its own by way of a map, to `count` interfaces.
  void expectToReach(unsigned count) {
    constexpr unsigned kInBatch = 3;
    PacketCase row = flow_.row("wide", flow_.ip());
    row.routes[0].oifs = oifs(0, count);
    prepare(row);
    const size_t inUse = packetsInUse();
    for (const unsigned packets : {kInBatch, 1U}) {
      std::vector<bess::PacketPtr> batch;
      while (batch.size() < packets) {
        batch.push_back(arriving(row.input, row.arrival));
      }
      bess::testing::Output out;
      if (packets == 1) {
        EXPECT_TRUE(process(std::move(batch[0]), false, out));
      } else {
        out = receiveBatch(std::move(batch));
      }
      for (const gate_idx_t gate : {1, 2, 3}) {
        EXPECT_EQ(out.count(gate), packets * count / 3) << gate;
      }
    }
    for (unsigned i = 0; i < count; ++i) {
      EXPECT_EQ(intfCounters(oif(i))->pktsOut, kInBatch + 1) << i;
      EXPECT_EQ(intfCounters(oif(i))->bytesOut, (kInBatch + 1) * row.input.size()) << i;
    }
    EXPECT_EQ(packetsInUse(), inUse);
  }

  static constexpr const char* kSecondSource = "10.0.0.77";
  const Flow flow_{frames::kEthernetV4};
};

// More ways out than have numbers, over several bursts of copies.
TEST_F(MfibFanOut, reachesEveryOneOf300Interfaces) {
  expectToReach(300);
}

// More than a pass remembers.
TEST_F(MfibFanOut, reachesEveryOneOf600Interfaces) {
  expectToReach(600);
}

// Ways that are remembered by their numbers are those of another route with the same ones only.
TEST_F(MfibFanOut, keepsRoutesWithNearlyTheSameInterfacesApart) {
  const std::vector<Oif> four = oifs(0, 4);
  const std::vector<Oif> nine = oifs(0, 9);
  std::vector<Oif> otherNine = nine;
  otherNine.back() = oifs(20, 1)[0];  // differs behind the first eight
  // What is next to each other is nearly the same.
  const std::vector<std::vector<Oif>> lists = {
      oifs(0, 3), four,        four,        {four.rbegin(), four.rend()},
      oifs(1, 4), oifs(0, 8),  nine,        nine,
      otherNine,  oifs(0, 16), oifs(0, 16), oifs(0, 17)};
  PacketCase row = flow_.row("alike", flow_.ip());
  const Route first = row.routes[0];
  row.routes.clear();
  std::map<std::string, uint32_t> expected;
  std::vector<std::string> sources;
  for (const std::vector<Oif>& list : lists) {
    Route route = first;
    route.source = "10.0.0." + std::to_string(100 + sources.size());
    route.oifs = list;
    sources.push_back(route.source);
    row.routes.push_back(route);
    for (const Oif& oif : list) {
      expected[oif.intf] += 2;
    }
  }
  prepare(row);
  std::vector<bess::PacketPtr> batch;
  for (const std::string& source : sources) {
    batch.push_back(packet(source, "Ethernet0"));
  }
  for (size_t i = sources.size(); i-- > 0;) {
    batch.push_back(packet(sources[i], "Ethernet0"));
  }
  const bess::testing::Output out = receiveBatch(std::move(batch));
  uint32_t total = 0;
  for (const auto& [name, packets] : expected) {
    EXPECT_EQ(intfCounters(name)->pktsOut, packets) << name;
    total += packets;
  }
  EXPECT_EQ(out.total(), total);
}

// A, B, B, A, unknown, A: each counts where it belongs.
TEST_F(MfibFanOut, keepsTheRoutesOfABatchApart) {
  PacketCase row = flow_.row("two", flow_.ip());
  row.routes[0].oifs = oifs(0, 2);
  addSecond(row, 1, 3);
  prepare(row);
  std::vector<bess::PacketPtr> batch;
  for (const char* source : {flow_.source.c_str(), kSecondSource, kSecondSource,
                             flow_.source.c_str(), "10.9.9.9", flow_.source.c_str()}) {
    batch.push_back(packet(source, "Ethernet0"));
  }
  const bess::testing::Output out = receiveBatch(std::move(batch));
  EXPECT_EQ(out.total(), 3U * 2 + 2U * 3);
  EXPECT_EQ(routeCounters(flow_.source, flow_.group)->pktsIn, 3U);
  EXPECT_EQ(routeCounters(kSecondSource, flow_.group)->pktsIn, 2U);
  EXPECT_EQ(intfCounters(oif(0))->pktsOut, 3U);
  EXPECT_EQ(intfCounters(oif(1))->pktsOut, 5U);
  EXPECT_EQ(intfCounters(oif(2))->pktsOut, 2U);
  EXPECT_EQ(intfCounters("Ethernet0")->pktsIn, 6U);
  EXPECT_EQ(fates().at(static_cast<size_t>(Fate::kHeld)), 1U);
}

// A route and a way out remember their counters until they are published: each publication takes
// them away, and what comes after it counts into new ones.
TEST_F(MfibFanOut, countsOnAfterEachPublication) {
  constexpr uint64_t kBatches = 4;
  PacketCase row = flow_.row("published", flow_.ip());
  row.routes[0].oifs = oifs(0, 2);
  addSecond(row, 1, 3);
  prepare(row);
  const auto shared = [&](const std::string& source) {
    return MfibTestPeer::sharedRoutes(*mfib_)
        ->mroute(ipGenRouteKey(kAfIpv4, key(source, flow_.group)))
        .pktsIn();
  };
  const auto sharedOut = [&](const std::string& intf) {
    return MfibTestPeer::sharedIntfs(*mfib_)->intf(Nynet::IntfId(id(intf))).pktsOut();
  };
  const MfibPvSet& entry = **MfibTestPeer::routes(*mfib_).find(key(flow_.source, flow_.group));
  const auto& counters = MfibTestPeer::mrouteCounters(*mfib_);
  for (uint64_t round = 1; round <= 3; ++round) {
    for (uint64_t i = 0; i < kBatches; ++i) {
      std::vector<bess::PacketPtr> batch;
      for (const char* source : {flow_.source.c_str(), flow_.source.c_str(), kSecondSource}) {
        batch.push_back(packet(source, "Ethernet0"));
      }
      EXPECT_EQ(receiveBatch(std::move(batch)).total(), 2U * 2 + 3);
    }
    EXPECT_EQ(entry.counters.get(counters.departures()), routeCounters(flow_.source, flow_.group));
    EXPECT_EQ(routeCounters(flow_.source, flow_.group)->pktsIn, 2 * kBatches);
    publishCountersNow();
    EXPECT_EQ(entry.counters.get(counters.departures()), nullptr);
    EXPECT_EQ(shared(flow_.source), round * 2 * kBatches);
    EXPECT_EQ(shared(kSecondSource), round * kBatches);
    // The first route's only, that of both, the second route's only.
    EXPECT_EQ(sharedOut(oif(0)), round * 2 * kBatches);
    EXPECT_EQ(sharedOut(oif(1)), round * 3 * kBatches);
    EXPECT_EQ(sharedOut(oif(3)), round * kBatches);
  }
}

// Interfaces take turns within a batch: one is enabled and right, one enabled and wrong, one is not
// enabled.
TEST_F(MfibFanOut, keepsTheInterfacesOfABatchApart) {
  PacketCase row = flow_.row("turns", flow_.ip());
  row.routes[0].oifs = oifs(0, 2);
  prepare(row);
  std::vector<bess::PacketPtr> batch;
  for (int i = 0; i < 4; ++i) {
    for (const char* intf : {"Ethernet0", "Ethernet2", "Ethernet9"}) {
      batch.push_back(packet(flow_.source, intf));
    }
  }
  const bess::testing::Output out = receiveBatch(std::move(batch));
  EXPECT_EQ(out.total(), 8U);
  for (const char* intf : {"Ethernet0", "Ethernet2", "Ethernet9"}) {
    EXPECT_EQ(intfCounters(intf)->pktsIn, 4U) << intf;
    EXPECT_EQ(intfCounters(intf)->bytesIn, 4 * row.input.size()) << intf;
  }
  EXPECT_EQ(intfCounters("Ethernet0")->pktsDropped, 0U);
  EXPECT_EQ(intfCounters("Ethernet2")->pktsDropped, 4U);
  EXPECT_EQ(intfCounters("Ethernet9")->pktsDropped, 4U);
  EXPECT_EQ(routeCounters(flow_.source, flow_.group)->pktsIn, 8U);
  EXPECT_EQ(routeCounters(flow_.source, flow_.group)->pktsDropped, 4U);
}

// The pool has some of the copies that a packet needs: those interfaces get theirs.
TEST_F(MfibFanOut, sendsTheCopiesThatThePoolStillHas) {
  PacketCase row = flow_.row("scarce", flow_.ip());
  row.routes[0].oifs = oifs(0, 10);
  prepare(row);
  bess::PacketPtr arrived = arriving(row.input, row.arrival);
  std::vector<bess::PacketPtr> hoard;
  while (bess::Packet* taken = bess::PacketPool::defaultPool()->alloc()) {
    hoard.emplace_back(taken);
  }
  hoard.resize(hoard.size() - 4);
  bess::testing::Output out;
  EXPECT_TRUE(process(std::move(arrived), false, out));
  EXPECT_EQ(out.total(), 5U);
  EXPECT_EQ(intfCounters(oif(0))->pktsOut, 1U);
  EXPECT_EQ(intfCounters(oif(4))->pktsOut, 1U);
  EXPECT_EQ(intfCounters(oif(5))->pktsOut, 0U);
  EXPECT_EQ(fates().at(static_cast<size_t>(Fate::kCopied)), 4U);
  EXPECT_EQ(fates().at(static_cast<size_t>(Fate::kCopyFailed)), 5U);
}

// From a dry pool, the copies are made of what the batch has dropped before.
TEST_F(MfibFanOut, copiesIntoTheMemoryOfDroppedPackets) {
  PacketCase row = flow_.row("dry", flow_.ip());
  row.routes[0].oifs = oifs(0, 3);
  prepare(row);
  std::vector<bess::PacketPtr> batch;
  for (const char* intf : {"Ethernet9", "Ethernet9", "Ethernet0", "Ethernet0"}) {
    batch.push_back(packet(flow_.source, intf));
  }
  std::vector<bess::PacketPtr> hoard;
  while (bess::Packet* taken = bess::PacketPool::defaultPool()->alloc()) {
    hoard.emplace_back(taken);
  }
  EXPECT_EQ(receiveBatch(std::move(batch)).total(), 4U) << "two copies and both originals";
  EXPECT_EQ(fates().at(static_cast<size_t>(Fate::kCopied)), 2U);
  EXPECT_EQ(fates().at(static_cast<size_t>(Fate::kCopyFailed)), 2U);
  EXPECT_EQ(intfCounters("Ethernet9")->pktsDropped, 2U);
}

}  // namespace

// Copies take no more memory than they need.
TEST_F(MfibFanOut, clonesIntoTheMemoryThatCopiesLeft) {
  PacketCase row = flow_.row("scarce chain", flow_.ip());
  row.routes[0].oifs = oifs(0, 4);
  prepare(row);
  std::vector<bess::PacketPtr> batch;
  batch.push_back(arriving(row.input, row.arrival));
  MfibFixture::Arrival inTwo = row.arrival;
  inTwo.segments = {row.input.size() - 4};
  batch.push_back(arriving(row.input, inTwo));
  std::vector<bess::PacketPtr> hoard;
  while (bess::Packet* taken = bess::PacketPool::defaultPool()->alloc()) {
    hoard.emplace_back(taken);
  }
  constexpr size_t kCopies = 3;
  constexpr size_t kClonedBuffers = 2 * kCopies;  // one for each segment
  hoard.resize(hoard.size() - kCopies - kClonedBuffers);
  EXPECT_EQ(receiveBatch(std::move(batch)).total(), 8U);
  EXPECT_EQ(fates().at(static_cast<size_t>(Fate::kCopied)), 2 * kCopies);
  EXPECT_EQ(fates().at(static_cast<size_t>(Fate::kCopyFailed)), 0U);
}

}  // namespace SfeModules
