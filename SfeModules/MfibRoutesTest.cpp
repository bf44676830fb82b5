// Route keys and entries, and the commands "addMroute" and "deleteMroute".
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <set>
#include <string>
#include <vector>

#include "SfeModules/Testing/DamagedRecord.h"
#include "SfeModules/Testing/LogLines.h"
#include "SfeModules/Testing/MfibFixture.h"
#include "SfeModules/Testing/PacketBuilder.h"
#include "SfeModules/Testing/StateFiles.h"

namespace SfeModules {
namespace {

using Sfe::Multicast::MrouteCounter;
using Sfe::Multicast::MrouteCounterTable;

constexpr const char* kSource = "10.0.0.2";
constexpr const char* kGroup = "239.129.1.2";

// --- Types ----------------------------------------------------------------------------------

TEST(MfibKey, isBuiltOverZeroesAndComparesEveryByte) {
  const uint8_t source[16] = {10, 0, 0, 1, 0xff, 0xff};
  const uint8_t group[16] = {239, 1, 1, 1, 0xff, 0xff};
  const MfibKey key = MfibKey::of(source, group, kIpv4AddrLen);
  EXPECT_EQ(key.source, (AddrBytes{10, 0, 0, 1}));
  EXPECT_EQ(key.group, (AddrBytes{239, 1, 1, 1}));
  for (size_t i = 0; i < 16; ++i) {
    MfibKey other = key;
    other.source[i] ^= 1;
    EXPECT_FALSE(other == key) << i;
    other = key;
    other.group[i] ^= 1;
    EXPECT_FALSE(other == key) << i;
  }
  EXPECT_EQ(MfibKey::of(source, group, kIpv6AddrLen).source[5], 0xff);
  EXPECT_FALSE(MfibKey::of(AddrBytes{}.data(), group, kIpv4AddrLen) == key) << "(*,G)";
}

TEST(MfibPvSet, withoutInterfacesHasNoArrays) {
  const std::shared_ptr<MfibPvSet> none = MfibPvSet::make(0);
  EXPECT_EQ(none->oifGates(), nullptr);
  EXPECT_EQ(none->oifs(), nullptr);
  for (const uint32_t count : {1U, 2U, 5U, 64U}) {
    const std::shared_ptr<MfibPvSet> entry = MfibPvSet::make(count);
    EXPECT_EQ(entry->numOifs, count);
    for (uint32_t i = 0; i < count; ++i) {
      EXPECT_EQ(entry->oifGates()[i], 0U);
      EXPECT_TRUE(entry->oifs()[i].isNone());
      entry->oifs()[i] = Nynet::IntfId(~uint64_t{0});
      entry->oifGates()[i] = ~uint32_t{0};
    }
    EXPECT_FALSE(entry->iifRegister) << "they are beside the entry";
    EXPECT_EQ(0U, reinterpret_cast<uintptr_t>(&entry->counters) % RTE_CACHE_LINE_SIZE);
    EXPECT_EQ(RTE_CACHE_LINE_SIZE, reinterpret_cast<uintptr_t>(entry->oifWays()) -
                                       reinterpret_cast<uintptr_t>(&entry->counters) +
                                       MfibPvSet::kWaysBeside);
    EXPECT_TRUE(entry->fastdrop.isNone());
  }
}

TEST(MfibTypes, anyFamilyButOneIsIpv6) {
  const uint8_t bytes[16] = {10, 0, 0, 2, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  EXPECT_EQ(nynetIpGenPrefix(1, bytes).stringValue(), "10.0.0.2/32");
  for (const unsigned af : {0U, 2U, 3U, 10U}) {
    EXPECT_EQ(nynetIpGenPrefix(af, bytes).stringValue(), "a00:2:506:708:90a:b0c:d0e:f10/128") << af;
    EXPECT_EQ(Mfib::addrArrayToGenAddr(bytes, af).stringValue(), "a00:2:506:708:90a:b0c:d0e:f10");
  }
  EXPECT_EQ(Mfib::addrArrayToGenAddr(bytes, 1).stringValue(), "10.0.0.2");
  EXPECT_EQ(Mfib::addrArrayToGenAddr(bytes, 1).bytes()[4], 0) << "the rest is zero";
  EXPECT_EQ(Nynet::IpGenAddr(nynetIpAddr(bytes)).stringValue(), "10.0.0.2");
  EXPECT_EQ(Nynet::IpGenAddr(nynetIp6Addr(bytes)).stringValue(), "a00:2:506:708:90a:b0c:d0e:f10");
  EXPECT_EQ(ipGenRouteKey(nynetIpGenPrefix(1, bytes), nynetIpGenPrefix(1, bytes + 4)).stringValue(),
            "(10.0.0.2/32,5.6.7.8/32)");
}

TEST(MfibTypes, groupsMapToMulticastMacAddresses) {
  const AddrBytes v4 = {239, 129, 1, 2};
  EXPECT_EQ(multicastMac(1, v4), (MacAddr{0x01, 0x00, 0x5e, 0x01, 0x01, 0x02}));
  const AddrBytes v6 = {0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0xff, 0x00, 0x12, 0x34};
  for (const unsigned af : {0U, 2U, 10U}) {
    EXPECT_EQ(multicastMac(af, v6), (MacAddr{0x33, 0x33, 0xff, 0x00, 0x12, 0x34}));
  }
}

TEST(IntfGateKey, isBothItsFields) {
  const IntfGateKey key{5, 1};
  EXPECT_TRUE(key == (IntfGateKey{5, 1}));
  EXPECT_FALSE(key == (IntfGateKey{5, 2}));
  EXPECT_FALSE(key == (IntfGateKey{6, 1}));
  const IntfGateKeyHash hash;
  EXPECT_EQ(hash(key), hash(IntfGateKey{5, 1}));
  std::set<size_t> hashes;
  for (uint64_t intf = 0; intf < 8; ++intf) {
    for (uint16_t gate = 0; gate < 8; ++gate) {
      hashes.insert(hash(IntfGateKey{intf, gate}));
    }
  }
  EXPECT_GT(hashes.size(), 60U);
}

// --- Commands -------------------------------------------------------------------------------

class MfibRoutes : public MfibFixture {
 protected:
  MfibRoutes() { createInstance(); }

  CommandResponse add(const std::string& iif = "Ethernet0", std::vector<Oif> oifs = {}) {
    return addRoute({.source = kSource, .group = kGroup, .iif = iif, .oifs = std::move(oifs)});
  }
  std::shared_ptr<MfibPvSet> entry(const std::string& source = kSource,
                                   const std::string& group = kGroup) {
    const auto* found = MfibTestPeer::routes(*mfib_).find(key(source, group));
    return found == nullptr ? nullptr : *found;
  }
  MrouteCounterTable& shared() { return *MfibTestPeer::sharedRoutes(*mfib_); }
  Routing::Multicast::Fib::IpGenRouteKey routeKey() const {
    return ipGenRouteKey(kAfIpv4, key(kSource, kGroup));
  }
  MrouteCounter record() { return shared().mroute(routeKey()); }
  void setRecord(uint64_t pktsIn, uint64_t pktsQueued) {
    MrouteCounter record(routeKey());
    record.pktsInInc(pktsIn);
    record.pktsQueuedInc(pktsQueued);
    shared().mrouteIs(record);
  }
  size_t routes() { return MfibTestPeer::routes(*mfib_).size(); }
  uint32_t count() const { return MfibTestPeer::mrouteCount(*mfib_); }
  bool releasesHeldPackets() { return !MfibTestPeer::cache(*mfib_)->resolvedQueueEmpty(); }
  void holdOne() {
    enable({"Ethernet0"});
    receive(
        frames::etherFrame(frames::groupMac(kGroup), "02:00:00:00:00:01", frames::kEtherTypeIpv4,
                           frames::ipPacket(frames::Ip{.source = kSource, .group = kGroup})),
        "Ethernet0");
    ASSERT_EQ(MfibTestPeer::cache(*mfib_)->packetCount(), 1U);
  }
};

TEST_F(MfibRoutes, addingFillsEveryFieldOfTheEntry) {
  EXPECT_FALSE(addRoute({.source = kSource,
                         .group = kGroup,
                         .iif = "Ethernet1",
                         .oifs = {{"Ethernet5", 7}, {"Vlan100", 3}, {"Ethernet5", 9}},
                         .iifRegister = true,
                         .oifRegister = true,
                         .iifFrr = "Ethernet2",
                         .notify = "Ethernet3",
                         .fastdrop = "Ethernet4",
                         .toCpu = true})
                   .has_error());
  const auto added = entry();
  ASSERT_NE(added, nullptr);
  EXPECT_EQ(added->iif.value(), id("Ethernet1"));
  EXPECT_EQ(added->iifFrr.value(), id("Ethernet2"));
  EXPECT_EQ(added->notify.value(), id("Ethernet3"));
  EXPECT_EQ(added->fastdrop.value(), id("Ethernet4"));
  EXPECT_TRUE(added->toCpu);
  EXPECT_TRUE(added->iifRegister);
  EXPECT_TRUE(added->oifRegister);
  ASSERT_EQ(added->numOifs, 3U);
  const std::vector<uint32_t> gates(added->oifGates(), added->oifGates() + 3);
  EXPECT_EQ(gates, (std::vector<uint32_t>{7, 3, 9}));
  EXPECT_EQ(added->oifs()[0].value(), id("Ethernet5"));
  EXPECT_EQ(added->oifs()[1].value(), id("Vlan100"));
  EXPECT_EQ(added->oifs()[2].value(), id("Ethernet5"));
  EXPECT_EQ(added->dstMac, (MacAddr{0x01, 0x00, 0x5e, 0x01, 0x01, 0x02}));
  EXPECT_EQ(added->createTime, ManualClock::now());
}

TEST_F(MfibRoutes, addingAgainReplacesTheWholeEntryAndCountsTheCommand) {
  addRoute({.source = kSource,
            .group = kGroup,
            .iif = "Ethernet1",
            .oifs = {{"Ethernet5", 7}},
            .oifRegister = true,
            .notify = "Ethernet3",
            .toCpu = true});
  const auto first = entry();
  ManualClock::advance(std::chrono::seconds(1));
  add("Ethernet2", {{"Ethernet6", 8}});
  EXPECT_EQ(routes(), 1U);
  EXPECT_EQ(count(), 2U);
  EXPECT_EQ(reportedFileSize(), 1000);
  const auto second = entry();
  EXPECT_NE(second, first);
  EXPECT_EQ(second->iif.value(), id("Ethernet2"));
  EXPECT_TRUE(second->notify.isNone()) << "nothing of the old entry is kept";
  EXPECT_FALSE(second->oifRegister);
  EXPECT_FALSE(second->toCpu);
  EXPECT_EQ(second->oifs()[0].value(), id("Ethernet6"));
  EXPECT_EQ(second->createTime, ManualClock::now());
  EXPECT_EQ(first->iif.value(), id("Ethernet1")) << "a reader's entry stays as it was";
  EXPECT_EQ(first->createTime, ManualClock::now() - std::chrono::seconds(1));
}

TEST_F(MfibRoutes, aWildcardRouteIsARouteOfItsOwn) {
  add("Ethernet1");
  addRoute({.source = "*", .group = kGroup, .iif = "Ethernet2"});
  EXPECT_EQ(routes(), 2U);
  EXPECT_EQ(entry()->iif.value(), id("Ethernet1"));
  EXPECT_EQ(entry("*")->iif.value(), id("Ethernet2"));
  deleteRoute("*", kGroup);
  EXPECT_EQ(entry("*"), nullptr);
  EXPECT_NE(entry(), nullptr);
}

TEST_F(MfibRoutes, anIpv6RouteUsesAllItsBytes) {
  destroyInstance();
  createInstance({.af = 2});
  addRoute({.source = "2001:db8::2", .group = "ff3e::1:ff00:1234", .iif = "Ethernet0"});
  const auto added = entry("2001:db8::2", "ff3e::1:ff00:1234");
  ASSERT_NE(added, nullptr);
  EXPECT_EQ(added->dstMac, (MacAddr{0x33, 0x33, 0xff, 0x00, 0x12, 0x34}));
  EXPECT_EQ(entry("2001:db8::3", "ff3e::1:ff00:1234"), nullptr);
}

TEST_F(MfibRoutes, shortAddressesAreRefusedWithWhatWasExpected) {
  struct Case {
    uint32_t af;
    size_t source;
    size_t group;
    const char* text;
  };
  const Case cases[] = {
      {1, 3, 4, "Mfib: source has 3 bytes, expected 4 (an IPv4 address)"},
      {1, 4, 0, "Mfib: group has 0 bytes, expected 4 (an IPv4 address)"},
      {1, 0, 0, "Mfib: source has 0 bytes, expected 4 (an IPv4 address)"},
      {2, 15, 16, "Mfib: source has 15 bytes, expected 16 (an IPv6 address)"},
      {2, 16, 4, "Mfib: group has 4 bytes, expected 16 (an IPv6 address)"},
      {10, 4, 4, "Mfib: source has 4 bytes, expected 16 (an IPv6 address)"},
  };
  for (const Case& c : cases) {
    destroyInstance();
    createInstance({.af = c.af});
    sfe::pb::MfibRouteArg arg;
    arg.set_source(std::string(c.source, '\x01'));
    arg.set_group(std::string(c.group, '\xef'));
    for (const bool adds : {true, false}) {
      const CommandResponse response = adds ? mfib_->addMroute(arg) : mfib_->deleteMroute(arg);
      ASSERT_TRUE(response.has_error()) << c.text;
      EXPECT_EQ(response.error().code(), EINVAL);
      EXPECT_EQ(response.error().errmsg(), c.text);
    }
    EXPECT_EQ(routes(), 0U);
    EXPECT_EQ(count(), 0U);
    EXPECT_EQ(shared().size(), 0U);
  }
}

TEST_F(MfibRoutes, longerAddressesUseTheirFirstBytes) {
  sfe::pb::MfibRouteArg arg;
  arg.set_source(std::string("\x0a\x00\x00\x02\xff\xff\xff", 7));
  arg.set_group(std::string("\xef\x81\x01\x02", 4) + std::string(100, '\x77'));
  EXPECT_FALSE(mfib_->addMroute(arg).has_error());
  EXPECT_NE(entry(), nullptr);
  EXPECT_FALSE(mfib_->deleteMroute(arg).has_error());
  EXPECT_EQ(routes(), 0U);
}

TEST_F(MfibRoutes, theCommandCountSizesTheStateFiles) {
  add();
  addRoute({.source = kSource, .group = "239.1.1.9", .iif = "Ethernet0"});
  EXPECT_EQ(reportedFileSize(), 1000);
  add();
  EXPECT_EQ(reportedFileSize(), 1500);
  deleteRoute(kSource, kGroup);
  EXPECT_EQ(reportedFileSize(), 1000);
  deleteRoute(kSource, "239.1.1.9");
  EXPECT_EQ(reportedFileSize(), 500) << "a count of commands, not of routes";
  EXPECT_EQ(routes(), 0U);
}

TEST_F(MfibRoutes, deletingTakesRouteAndRecordAway) {
  add();
  EXPECT_EQ(record(), mrouteCounter(routeKey()));
  EXPECT_FALSE(deleteRoute(kSource, kGroup).has_error());
  EXPECT_EQ(entry(), nullptr);
  EXPECT_EQ(record(), MrouteCounter{});
  EXPECT_EQ(count(), 0U);
}

TEST_F(MfibRoutes, deletingAnUnknownRouteSucceedsAndChangesNoCount) {
  add();
  const uint32_t before = count();
  EXPECT_FALSE(deleteRoute(kSource, "239.1.1.9").has_error());
  EXPECT_EQ(count(), before);
  EXPECT_EQ(routes(), 1U);
  EXPECT_EQ(reportedFileSize(), 500);
}

TEST_F(MfibRoutes, deletingAnUnknownRouteStillRemovesAStaleRecord) {
  setRecord(5, 0);
  EXPECT_FALSE(deleteRoute(kSource, kGroup).has_error());
  EXPECT_EQ(record(), MrouteCounter{});
}

TEST_F(MfibRoutes, aRecordWithHeldPacketsOutlivesItsRoute) {
  for (const bool routed : {true, false}) {
    if (routed) {
      add();
    }
    setRecord(5, 1);
    EXPECT_FALSE(deleteRoute(kSource, kGroup).has_error());
    EXPECT_EQ(entry(), nullptr);
    EXPECT_EQ(record().pktsQueued(), 1U);
  }
}

TEST_F(MfibRoutes, replacingARouteKeepsItsRecord) {
  add();
  setRecord(100, 0);
  add("Ethernet5");
  EXPECT_EQ(record().pktsIn(), 100U);
  deleteRoute(kSource, kGroup);
  add();
  EXPECT_EQ(record(), mrouteCounter(routeKey())) << "a new route starts from zero";
}

TEST_F(MfibRoutes, aDamagedRecordFailsNoCommand) {
  const auto path =
      MrouteCounterTable::mountPath(Nynet::AddressFamily::kIpv4, L3::VrfName::defaultVrf());
  add();
  setRecord(100, 1);
  damageRecord<MrouteCounter>(path, routeKey());
  EXPECT_FALSE(add().has_error());
  EXPECT_EQ(shared().corruptions(), 1U);
  EXPECT_EQ(record(), mrouteCounter(routeKey())) << "it reads as absent, so it is made anew";
  setRecord(100, 1);
  damageRecord<MrouteCounter>(path, routeKey());
  EXPECT_FALSE(deleteRoute(kSource, kGroup).has_error());
  EXPECT_EQ(shared().corruptions(), 2U);
  EXPECT_EQ(record(), MrouteCounter{});
  EXPECT_EQ(entry(), nullptr);
}

TEST_F(MfibRoutes, onlyARouteThatLeadsSomewhereReleasesHeldPackets) {
  holdOne();
  add();
  EXPECT_FALSE(releasesHeldPackets());
  addRoute({.source = kSource, .group = kGroup, .iif = "Ethernet0", .oifRegister = true});
  EXPECT_TRUE(releasesHeldPackets());
  MfibKey taken;
  ASSERT_TRUE(MfibTestPeer::cache(*mfib_)->takeResolvedKey(taken));
  EXPECT_EQ(taken, key(kSource, kGroup));
  add("Ethernet0", {{"Ethernet1", 1}});
  EXPECT_TRUE(releasesHeldPackets());
}

TEST_F(MfibRoutes, deletingARouteLeavesItsHeldPacketsAndItsLocalCounters) {
  holdOne();
  add();
  mfib_->forceLookupMrtCtrUpdates(key(kSource, kGroup))->pktsIn = 7;
  deleteRoute(kSource, kGroup);
  EXPECT_EQ(MfibTestPeer::cache(*mfib_)->packetCount(), 1U);
  EXPECT_EQ(routeCounters(kSource, kGroup)->pktsIn, 7U);
}

TEST_F(MfibRoutes, aDeletedEntryLivesOnForWhoeverHoldsIt) {
  add("Ethernet0", {{"Ethernet1", 5}});
  const auto held = entry();
  deleteRoute(kSource, kGroup);
  urcu_qsbr_barrier();
  EXPECT_EQ(held.use_count(), 1);
  EXPECT_EQ(held->oifGates()[0], 5U);
}

TEST_F(MfibRoutes, areAllThereWhileTheTableGrowsAndShrinks) {
  constexpr uint32_t kRoutes = 3000;
  const auto keyOf = [](uint32_t n) {
    const uint8_t source[4] = {10, 0, 0, 2};
    const uint8_t group[4] = {239, 1, static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)};
    return MfibKey::of(source, group, kIpv4AddrLen);
  };
  const auto message = [](const MfibKey& key) {
    sfe::pb::MfibRouteArg arg;
    arg.set_source(key.source.data(), kIpv4AddrLen);
    arg.set_group(key.group.data(), kIpv4AddrLen);
    return arg;
  };
  auto& table = MfibTestPeer::routes(*mfib_);
  for (int round = 0; round < 2; ++round) {
    for (uint32_t n = 0; n < kRoutes; ++n) {
      ASSERT_FALSE(mfib_->addMroute(message(keyOf(n))).has_error());
      ASSERT_TRUE(table.contains(keyOf(n / 2)));
    }
    EXPECT_EQ(routes(), kRoutes);
    for (uint32_t n = 0; n < kRoutes; ++n) {
      ASSERT_FALSE(mfib_->deleteMroute(message(keyOf(n))).has_error());
      ASSERT_FALSE(table.contains(keyOf(n)));
      ASSERT_EQ(table.contains(keyOf(kRoutes - 1)), n + 1 < kRoutes);
    }
    EXPECT_EQ(routes(), 0U);
  }
}

TEST_F(MfibRoutes, everyCommandIsTraced) {
  const TraceLevel level(7);
  const LogLines log;
  const std::string source = routeArg({.source = kSource, .group = kGroup, .iif = ""}).source();
  const std::string group = routeArg({.source = kSource, .group = kGroup, .iif = ""}).group();
  add("Ethernet0", {{"Ethernet1", 5}, {"Ethernet2", 6}});
  const std::string adds =
      "CommandResponse SfeModules::Mfib::addMroute(const sfe::pb::MfibRouteArg&): ";
  EXPECT_EQ(log.with(adds + "iif: " + std::to_string(id("Ethernet0")) + ", source: " + source +
                     ", group: " + group + ", oifnum: 2"),
            1U);
  EXPECT_EQ(log.with("Initializing Mroute counter for (10.0.0.2/32,239.129.1.2/32)"), 1U);
  const size_t gate5 = log.at(adds + "OIF gate: 5");
  EXPECT_EQ(log.at(adds + "OIF id: " + std::to_string(id("Ethernet1"))), gate5 + 1);
  EXPECT_EQ(log.at(adds + "OIF gate: 6"), gate5 + 2);
  EXPECT_EQ(log.at(adds + "OIF id: " + std::to_string(id("Ethernet2"))), gate5 + 3);
  EXPECT_LT(log.at("Initializing Mroute counter for "), gate5);
  add();
  EXPECT_EQ(log.with("Initializing Mroute counter for "), 1U) << "the record is there";

  sfe::pb::MfibRouteArg arg = routeArg({.source = kSource, .group = kGroup, .iif = "Ethernet3"});
  mfib_->deleteMroute(arg);
  const std::string deletes =
      "CommandResponse SfeModules::Mfib::deleteMroute(const sfe::pb::MfibRouteArg&): ";
  EXPECT_EQ(log.with(deletes + "iif: " + std::to_string(id("Ethernet3")) + ", source: " + source +
                     ", group: " + group),
            1U);
  EXPECT_EQ(log.with(deletes + "Successfully deleted Mroute "), 1U);
  mfib_->deleteMroute(arg);
  EXPECT_EQ(log.with("Successfully deleted Mroute "), 1U) << "nothing was there";
}

TEST_F(MfibRoutes, deletingBeforeInitialisationSucceedsAndCountsBelowZero) {
  std::unique_ptr<Module> module(Mfib::create());
  auto& mfib = static_cast<Mfib&>(*module);
  EXPECT_FALSE(
      mfib.deleteMroute(routeArg({.source = kSource, .group = kGroup, .iif = ""})).has_error());
  EXPECT_EQ(MfibTestPeer::mrouteCount(mfib), 0xffffffffU);
  EXPECT_EQ(reportedFileSize(), 0xffffffffU * 500U);
  module->DeInit();
  add();
  EXPECT_EQ(reportedFileSize(), 500);
}

}  // namespace
}  // namespace SfeModules
