// Packets that nobody foresaw: random bytes, batches of them, a dry pool, an overfull batch. The
// books balance after each of them.

#include <urcu-qsbr.h>

#include <algorithm>
#include <ostream>
#include <random>
#include <set>
#include <string_view>

#include "SfeModules/Testing/PacketFixture.h"

namespace SfeModules {

namespace {

using frames::Flow;
using frames::Kind;
using frames::PacketCase;
using frames::PacketFate;

constexpr unsigned kSeed = 20240229;

// Random packets for one kind of instance: rows of the table with bytes changed, cut off or added,
// and bytes without any plan.
class Noise {
 public:
  explicit Noise(const Kind& kind) : random_(kSeed) {
    for (PacketCase& row : frames::allRows()) {
      if (std::string_view(row.kind.name) == kind.name) {
        rows_.push_back(std::move(row));
      }
    }
  }

  size_t below(size_t limit) { return random_() % limit; }
  bool oneIn(size_t n) { return below(n) == 0; }
  uint8_t byte() { return static_cast<uint8_t>(random_()); }

  frames::Bytes bytes() {
    frames::Bytes bytes;
    if (oneIn(5)) {
      bytes.resize(below(200));
      std::generate(bytes.begin(), bytes.end(), [this] { return byte(); });
      return bytes;
    }
    bytes = rows_[below(rows_.size())].input;
    if (oneIn(4)) {
      bytes.resize(below(bytes.size() + 40));
    }
    constexpr size_t kHeaders = 130;
    for (size_t changes = below(5); changes > 0 && !bytes.empty(); --changes) {
      bytes[below(std::min(bytes.size(), kHeaders))] = byte();
    }
    return bytes;
  }

  MfibFixture::Arrival arrival(size_t length) {
    static const std::vector<std::string> kIntfs = {"Ethernet0", "Ethernet0", "Ethernet2",
                                                    "Ethernet9"};
    MfibFixture::Arrival arrival{.intf = kIntfs[below(kIntfs.size())]};
    arrival.hasInIntf = !oneIn(20);
    if (oneIn(2)) {
      arrival.qosMark = static_cast<uint32_t>(random_());
      arrival.gateSelect = static_cast<uint8_t>(below(3));
      arrival.carriedWord1 = static_cast<uint32_t>(random_());
    }
    size_t left = length;
    for (size_t cuts = oneIn(3) ? below(4) : 0; cuts > 0; --cuts) {
      arrival.segments.push_back(below(left + 1));
      left -= arrival.segments.back();
    }
    return arrival;
  }

 private:
  std::mt19937 random_;
  std::vector<PacketCase> rows_;
};

PacketCase manyRoutes(const Kind& kind) {
  const Flow flow(kind);
  PacketCase ground = flow.row("noise", flow.ip());
  MfibFixture::Route& native = ground.routes[0];
  native.oifs = {{"Ethernet1", 1}, {"Vlan5", 2}, {"Ethernet3", 3}};
  native.iifRegister = true;
  native.oifRegister = true;
  MfibFixture::Route wildcard = native;
  wildcard.source = "*";
  wildcard.oifs = {{"Ethernet1", 3}, {"Ethernet2", 1}};
  MfibFixture::Route plain = native;
  plain.group = kind.isIpv4() ? "232.1.1.1" : "ff33::1";
  plain.iifRegister = plain.oifRegister = false;
  ground.routes.insert(ground.routes.end(), {wildcard, plain});
  return ground;
}

class PacketStress : public PacketFixture, public ::testing::WithParamInterface<Kind> {
 protected:
  // What goes on beside the packets: the listener hears, time passes, memory is reclaimed.
  void pause() {
    notifications();
    ManualClock::advance(std::chrono::seconds(1));
    urcu_qsbr_quiescent_state();
  }
};

TEST_P(PacketStress, balancesTheBooksAfterRandomPackets) {
  constexpr int kPackets = 5000;
  constexpr int kPauseEvery = 64;
  const size_t inUse = packetsInUse();
  prepare(manyRoutes(GetParam()));
  Noise noise(GetParam());
  std::set<PacketFate> seen;
  for (int i = 0; i < kPackets && !HasFailure(); ++i) {
    SCOPED_TRACE("packet " + std::to_string(i));
    const Bytes bytes = noise.bytes();
    bess::PacketPtr packet = arriving(bytes, noise.arrival(bytes.size()));
    seen.insert(offerBalanced(std::move(packet), noise.oneIn(8)));
    if (i % kPauseEvery == 0) {
      pause();
    }
  }
  EXPECT_EQ(seen.size(), 4U) << "the noise is too tame";
  destroyInstance();
  EXPECT_EQ(packetsInUse(), inUse);
}

TEST_P(PacketStress, balancesTheBooksAfterBatches) {
  constexpr int kBatches = 40;
  constexpr size_t kBurst = bess::PacketBatch::kMaxBurst;
  const size_t inUse = packetsInUse();
  prepare(manyRoutes(GetParam()));
  Noise noise(GetParam());
  for (int i = 0; i < kBatches; ++i) {
    std::vector<bess::PacketPtr> batch;
    while (batch.size() < kBurst) {
      const Bytes bytes = noise.bytes();
      batch.push_back(arriving(bytes, noise.arrival(bytes.size())));
    }
    const Totals before = totals();
    const FateCounts fatesBefore = fates();
    const bess::testing::Output out = receiveBatch(std::move(batch));
    const Totals after = totals();
    const FateCounts fatesAfter = fates();
    auto added = [&](Fate fate) {
      const auto at = static_cast<size_t>(fate);
      return fatesAfter.at(at) - fatesBefore.at(at);
    };
    EXPECT_EQ(after.in - before.in, kBurst);
    EXPECT_EQ(after.held - before.held, added(Fate::kHeld));
    EXPECT_EQ(after.out - before.out, added(Fate::kForwarded) + added(Fate::kCopied));
    EXPECT_EQ(out.total(), after.out - before.out + added(Fate::kPassed));
    EXPECT_EQ(added(Fate::kPassed) + added(Fate::kForwarded) + added(Fate::kHeld) +
                  (after.dropped - before.dropped),
              kBurst);
    pause();
  }
  EXPECT_EQ(packetsInUse(), inUse);
}

// Copies that cannot be made leave their interfaces out; the packet itself goes on.
TEST_P(PacketStress, sendsOnlyTheOriginalFromADryPool) {
  const Flow flow(GetParam());
  PacketCase row = flow.forwards("dry", flow.ip());
  row.routes[0].oifs = {{"Ethernet1", 1}, {"Ethernet2", 2}, {"Ethernet3", 3}};
  prepare(row);
  for (const std::vector<size_t>& segments : {std::vector<size_t>{}, std::vector<size_t>{60}}) {
    const size_t inUse = packetsInUse();
    Arrival arrival = row.arrival;
    arrival.segments = segments;
    const FateCounts before = fates();
    bess::PacketPtr packet = arriving(row.input, arrival);
    std::vector<bess::PacketPtr> hoard;
    while (bess::Packet* taken = bess::PacketPool::defaultPool()->alloc()) {
      hoard.emplace_back(taken);
    }
    bess::testing::Output out;
    EXPECT_TRUE(process(std::move(packet), false, out));
    EXPECT_EQ(out.total(), 1U);
    ASSERT_EQ(out.count(1), 1U);
    EXPECT_EQ(bytesOf(out[1][0]), row.sent[0].bytes);
    const FateCounts after = fates();
    constexpr auto kFailed = static_cast<size_t>(Fate::kCopyFailed);
    EXPECT_EQ(after.at(kFailed) - before.at(kFailed), 2U);
    hoard.clear();
    out = bess::testing::Output();
    EXPECT_EQ(packetsInUse(), inUse);
  }
  EXPECT_EQ(intfCounters("Ethernet1")->pktsOut, 2U);
  EXPECT_EQ(intfCounters("Ethernet2")->pktsOut, 0U);
  EXPECT_EQ(intfCounters("Ethernet3")->bytesOut, 0U);
}

// Without a row nothing is counted, and everything is still told.
TEST_P(PacketStress, tellsWithoutACounterRow) {
  const Flow flow(GetParam());
  PacketCase row = flow.row("unrouted", flow.ip());
  row.routes.clear();
  prepare(row);
  destroyCounterRow(harness_.wid());
  bess::testing::Output out;
  EXPECT_TRUE(process(row.input, row.arrival, out));
  EXPECT_EQ(notifications().size(), 1U);
  createCounterRow(harness_.wid());
  EXPECT_EQ(event(4), 0U);
}

// With the fall-back to (*,G) routes, alerts of expiring packets are limited per (S,G).
TEST_P(PacketStress, alertsOfTtlOneOncePerIntervalAndFlow) {
  const Flow flow(GetParam());
  frames::Ip last = flow.ip();
  last.ttl = 1;
  PacketCase row = flow.row("last", last);
  row.routes.clear();
  prepare(row);
  bess::testing::Output out;
  for (int i = 0; i < 3; ++i) {
    EXPECT_FALSE(process(row.input, row.arrival, out));
  }
  EXPECT_EQ(notifications().size(), 1U);
  EXPECT_EQ(event(4), 1U);
  last.source = GetParam().isIpv4() ? "10.0.0.77" : "2001:db8::77";
  EXPECT_FALSE(process(flow.in(last), row.arrival, out));
  EXPECT_EQ(notifications().size(), 1U);
  EXPECT_EQ(event(4), 2U);
}

using PacketStressDeathTest = PacketStress;

// A route that names an interface twice fills its batch with 17 packets; that is fatal, not silent.
TEST_P(PacketStressDeathTest, refusesTheThirtyThirdPacketOfABatch) {
  const Flow flow(GetParam());
  PacketCase row = flow.row("twice", flow.ip());
  row.routes[0].oifs = {{"Ethernet1", 1}, {"Ethernet1", 1}};
  prepare(row);
  auto burst = [&](size_t count) {
    std::vector<bess::PacketPtr> batch;
    while (batch.size() < count) {
      batch.push_back(arriving(row.input, row.arrival));
    }
    return receiveBatch(std::move(batch));
  };
  EXPECT_EQ(burst(16).count(1), 32U);
  EXPECT_DEATH(burst(17), "outBatch->cnt\\(\\) <= bess::PacketBatch::kMaxBurst");
}

const auto kKinds =
    ::testing::Values(frames::kEthernetV4, frames::kRawV4, frames::kEthernetV6, frames::kRawV6);
const auto kNameOf = [](const auto& kind) { return std::string(kind.param.name); };
INSTANTIATE_TEST_SUITE_P(Kinds, PacketStress, kKinds, kNameOf);
INSTANTIATE_TEST_SUITE_P(Kinds, PacketStressDeathTest, kKinds, kNameOf);

}  // namespace

}  // namespace SfeModules
