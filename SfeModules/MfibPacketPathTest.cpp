// Every row of the table of packet cases, alone, in a batch and cut short: what leaves and by which
// gate, byte for byte with all of its metadata; what is told, counted and answered; what is freed.

#include <array>
#include <cstring>
#include <map>
#include <string_view>

#include "SfeModules/Testing/PacketFixture.h"

namespace SfeModules {

namespace {

using frames::PacketCase;
using frames::PacketFate;

constexpr size_t kMetadataBytes = 128;
using Metadata = std::array<uint8_t, kMetadataBytes>;
using IntfCounts = std::array<uint32_t, 6>;   // as IntfCounterEntry::counts()
using RouteCounts = std::array<uint32_t, 5>;  // as MrouteCounterEntry::counts()

// The metadata area by its numbers: offsets, and bits of the presence word.
template <class T>
void put(Metadata& metadata, size_t offset, T value) {
  std::memcpy(metadata.data() + offset, &value, sizeof(value));
}

void markPresent(Metadata& metadata, std::initializer_list<unsigned> bits) {
  uint64_t presence = 0;
  std::memcpy(&presence, metadata.data(), sizeof(presence));
  for (const unsigned bit : bits) {
    presence |= uint64_t{1} << bit;
  }
  put(metadata, 0, presence);
}

Metadata expectedMetadata(Metadata metadata, const PacketCase& row, const frames::Sent& sent) {
  put(metadata, 24, MfibFixture::id(sent.oif));
  put(metadata, 32, frames::kVrfId);
  put(metadata, 62, sent.vlan);
  markPresent(metadata, {3, 12, 13});
  if (row.kind.hintsEncap()) {
    put(metadata, 36, uint32_t{0x20000});
    markPresent(metadata, {2});
  }
  if (sent.isCopy) {
    const MfibFixture::Arrival& arrival = row.arrival;
    put(metadata, 16, arrival.hasInIntf ? MfibFixture::id(arrival.intf) : 0);
    put(metadata, 48, arrival.carriedWord1.value_or(0));
    put(metadata, 52, arrival.carriedWord2.value_or(0));
    put(metadata, 66, row.kind.ethernetMode ? arrival.gateSelect.value_or(0) : uint8_t{0});
    put(metadata, 67, arrival.carriedByte.value_or(0));
    markPresent(metadata, {0, 16, 17, 24, 36});
  }
  return metadata;
}

Metadata metadataBytes(const bess::PacketPtr& packet) {
  Metadata metadata;
  std::memcpy(metadata.data(), packet->metadata<const char*>(), kMetadataBytes);
  return metadata;
}

class PacketPath : public PacketFixture, public ::testing::WithParamInterface<frames::Kind> {
 protected:
  // The rows of this kind.
  static frames::Rows rows() {
    frames::Rows all = frames::allRows();
    std::erase_if(all, [](const PacketCase& row) {
      return std::string_view(row.kind.name) != GetParam().name;
    });
    return all;
  }

  static std::string arrivalIntf(const PacketCase& row) {
    return row.arrival.hasInIntf ? row.arrival.intf : "";
  }

  // Takes the packet that a row expects out of `out`. Returns: null when there is none.
  static bess::PacketPtr take(bess::testing::Output& out, const frames::Sent& sent, bool marked) {
    std::vector<bess::PacketPtr>& packets = out[sent.gate];
    for (auto it = packets.begin(); it != packets.end(); ++it) {
      if (!marked || metadata(*it).outIntf == id(sent.oif)) {
        bess::PacketPtr found = std::move(*it);
        packets.erase(it);
        return found;
      }
    }
    return nullptr;
  }

  static void checkSent(const PacketCase& row,
                        const Metadata& arrived,
                        bess::testing::Output& out) {
    EXPECT_EQ(out.total(), row.sent.size());
    const bool unchanged = row.fate == PacketFate::kUnchanged;
    for (const frames::Sent& sent : row.sent) {
      SCOPED_TRACE("gate " + std::to_string(sent.gate) + " interface " + sent.oif);
      const bess::PacketPtr packet = take(out, sent, !unchanged);
      ASSERT_NE(packet, nullptr);
      EXPECT_EQ(bytesOf(packet), sent.bytes);
      EXPECT_EQ(metadataBytes(packet), unchanged ? arrived : expectedMetadata(arrived, row, sent));
    }
  }

  void checkNotes(const PacketCase& row) {
    const std::vector<Report> reports = notifications();
    ASSERT_EQ(reports.size(), row.notes.size());
    std::array<uint64_t, 5> perEvent{};
    perEvent[1] = row.nonMulticastIntf ? 1 : 0;
    constexpr std::array<unsigned, 4> kEventOfKind = {0, 4, 2, 3};
    for (size_t i = 0; i < reports.size(); ++i) {
      const frames::Note& note = row.notes[i];
      const Report& report = reports[i];
      EXPECT_EQ(report.kind, note.kind);
      EXPECT_EQ(report.af,
                row.kind.isIpv4() ? Nynet::AddressFamily::kIpv4 : Nynet::AddressFamily::kIpv6);
      EXPECT_EQ(report.source.stringValue(), note.source);
      EXPECT_EQ(report.group.stringValue(), note.group);
      EXPECT_EQ(report.intfId, id(note.intf));
      const auto* whole = reinterpret_cast<const uint8_t*>(report.pkt.data());
      EXPECT_EQ(Bytes(whole, whole + report.pkt.size()), note.whole);
      perEvent.at(kEventOfKind.at(note.kind)) += 1;
    }
    for (uint32_t event = 1; event <= 4; ++event) {
      EXPECT_EQ(this->event(event), perEvent.at(event)) << "event " << event;
    }
    EXPECT_EQ(this->event(5) + this->event(6), 0U);
  }

  void checkIntfCounts(const PacketCase& row) {
    std::map<std::string, IntfCounts> expected;
    IntfCounts& in = expected[arrivalIntf(row)];
    if (!row.reinjected) {
      in[0] += 1;
      in[2] += static_cast<uint32_t>(row.input.size());
    }
    in[4] = row.fate == PacketFate::kHeld ? 1 : 0;
    in[5] = row.fate == PacketFate::kDropped ? 1 : 0;
    // An interface that the packet would have gone to is known, also when its gate was not
    // selected.
    if ((row.reachesOifs || !row.sent.empty()) && row.fate != PacketFate::kUnchanged) {
      const bool bySource = row.routes[0].source != "*";
      for (const Oif& oif : row.routes[bySource ? 0 : row.routes.size() - 1].oifs) {
        expected[oif.intf];
      }
      for (const frames::Sent& sent : row.sent) {
        IntfCounts& out = expected[sent.oif];
        out[1] += 1;
        out[3] += static_cast<uint32_t>(sent.bytes.size());
      }
    }
    const auto& table = MfibTestPeer::intfCounters(*mfib_);
    EXPECT_EQ(table.size(), expected.size());
    for (const auto& [intf, counts] : expected) {
      EXPECT_TRUE(table.contains(id(intf))) << intf;
      EXPECT_EQ(intfCounters(intf)->counts(), counts) << intf;
    }
  }

  static FateCounts expectedFates(const PacketCase& row) {
    FateCounts expected{};
    auto fate = [&expected](Fate of) -> uint64_t& { return expected.at(static_cast<size_t>(of)); };
    fate(Fate::kPassed) = row.fate == PacketFate::kUnchanged ? 1 : 0;
    fate(Fate::kForwarded) = row.fate == PacketFate::kForwarded ? 1 : 0;
    fate(Fate::kHeld) = row.fate == PacketFate::kHeld ? 1 : 0;
    if (row.fate == PacketFate::kDropped) {
      fate(row.drop) = 1;
    }
    for (const frames::Sent& sent : row.sent) {
      fate(Fate::kCopied) += sent.isCopy ? 1 : 0;
    }
    return expected;
  }

  void checkRouteCounts(const PacketCase& row) {
    RouteCounts expected{};
    if (row.matched) {
      expected[0] = 1;
      expected[1] = static_cast<uint32_t>(row.input.size());
      for (const frames::Note& note : row.notes) {
        expected[2] += note.kind == frames::kWrongVif ? 1 : 0;
      }
      expected[4] = row.routeDropped;
    }
    expected[3] = row.fate == PacketFate::kHeld ? 1 : 0;
    const auto& table = MfibTestPeer::mrouteCounters(*mfib_);
    const bool counted = row.matched || row.fate == PacketFate::kHeld;
    EXPECT_EQ(table.size(), counted ? 1U : 0U);
    EXPECT_EQ(routeCounters(row.source, row.group)->counts(), expected);
  }

  void check(const PacketCase& row, const Metadata& arrived, bess::testing::Output& out) {
    checkSent(row, arrived, out);
    checkNotes(row);
    checkIntfCounts(row);
    checkRouteCounts(row);
    EXPECT_EQ(fates(), expectedFates(row));
    EXPECT_EQ(MfibTestPeer::cache(*mfib_)->packetCount(), row.fate == PacketFate::kHeld ? 1U : 0U);
  }

  void checkCut(const PacketCase& row, size_t length) {
    Arrival arrival = row.arrival;
    arrival.segments.clear();
    const Bytes input(row.input.begin(), row.input.begin() + static_cast<long>(length));
    std::vector<size_t> sizes;
    const PacketFate fate = offerBalanced(arriving(input, arrival), row.reinjected, &sizes);
    if (row.headerBytes == 0 || !row.arrival.segments.empty()) {
      return;
    }
    const bool complete = length >= row.headerBytes;
    EXPECT_EQ(fate, complete ? row.fate : PacketFate::kDropped);
    ASSERT_EQ(sizes.size(), complete ? row.sent.size() : 0U);
    for (const size_t size : sizes) {
      EXPECT_EQ(row.sent[0].bytes.size() - size, row.input.size() - length);
    }
  }
};

TEST_P(PacketPath, treatsEveryPacketAsTheTableSays) {
  const size_t inUse = packetsInUse();
  for (const PacketCase& row : rows()) {
    SCOPED_TRACE(row.name);
    prepare(row);
    bess::PacketPtr packet = arriving(row.input, row.arrival);
    const Metadata arrived = metadataBytes(packet);
    bess::testing::Output out;
    const bool answer = process(std::move(packet), row.reinjected, out);
    EXPECT_EQ(answer, row.fate == PacketFate::kForwarded || row.fate == PacketFate::kHeld);
    check(row, arrived, out);
    out = bess::testing::Output();
    EXPECT_EQ(packetsInUse(), inUse);
  }
}

TEST_P(PacketPath, treatsThePacketsOfABatchAlike) {
  const size_t inUse = packetsInUse();
  for (const PacketCase& row : rows()) {
    if (row.reinjected) {
      continue;  // these come one by one
    }
    SCOPED_TRACE(row.name);
    prepare(row);
    std::vector<bess::PacketPtr> batch;
    batch.push_back(arriving(row.input, row.arrival));
    const Metadata arrived = metadataBytes(batch[0]);
    bess::testing::Output out = receiveBatch(std::move(batch));
    check(row, arrived, out);
    out = bess::testing::Output();
    EXPECT_EQ(packetsInUse(), inUse);
  }
}

// Cut short anywhere a packet is dropped, or fares as the whole one does.
TEST_P(PacketPath, survivesEveryCut) {
  for (const PacketCase& row : rows()) {
    SCOPED_TRACE(row.name);
    prepare(row);
    for (size_t length = 0; length < row.input.size() && !HasFailure(); ++length) {
      SCOPED_TRACE("cut to " + std::to_string(length));
      checkCut(row, length);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Kinds,
                         PacketPath,
                         ::testing::Values(frames::kEthernetV4,
                                           frames::kRawV4,
                                           frames::kEthernetV6,
                                           frames::kRawV6,
                                           frames::kOtherFamily),
                         [](const auto& kind) { return std::string(kind.param.name); });

}  // namespace

}  // namespace SfeModules
