// The commands "addMulticastIntfs" and "deleteMulticastIntfs", and the gates that may be used.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "SfeModules/Testing/DamagedRecord.h"
#include "SfeModules/Testing/LogLines.h"
#include "SfeModules/Testing/MfibFixture.h"

namespace SfeModules {
namespace {

using Sfe::Multicast::IntfCounter;
using Sfe::Multicast::IntfCounterTable;

class MfibIntfs : public MfibFixture {
 protected:
  MfibIntfs() { createInstance(); }

  auto& set() { return MfibTestPeer::intfSet(*mfib_); }
  IntfCounterTable& shared() { return *MfibTestPeer::sharedIntfs(*mfib_); }
  IntfCounter record(const std::string& intf) { return shared().intf(Nynet::IntfId(id(intf))); }
  void setRecord(const std::string& intf, uint64_t pktsIn, uint64_t pktsQueued) {
    IntfCounter record{Nynet::IntfId(id(intf))};
    record.pktsInInc(pktsIn);
    record.pktsQueuedInc(pktsQueued);
    shared().intfIs(record);
  }
};

TEST_F(MfibIntfs, addingEnablesEachAndMakesItsRecord) {
  enable({"Ethernet0", "Vlan100", "Ethernet0/1"});
  for (const char* intf : {"Ethernet0", "Vlan100", "Ethernet0/1"}) {
    ASSERT_TRUE(set().contains(id(intf))) << intf;
    EXPECT_TRUE(*set().find(id(intf)));
    EXPECT_EQ(record(intf), intfCounter(Nynet::IntfId(id(intf)))) << intf;
  }
  EXPECT_EQ(set().size(), 3U);
}

TEST_F(MfibIntfs, addingTwiceLeavesOneEntryAndItsCounts) {
  enable({"Ethernet0"});
  setRecord("Ethernet0", 100, 2);
  enable({"Ethernet0", "Ethernet0"});
  EXPECT_EQ(set().size(), 1U);
  EXPECT_EQ(record("Ethernet0").pktsIn(), 100U);
  EXPECT_EQ(record("Ethernet0").pktsQueued(), 2U);
}

TEST_F(MfibIntfs, deletingDisablesAndRemovesTheRecord) {
  enable({"Ethernet0", "Ethernet1"});
  disable({"Ethernet0", "Ethernet0"});
  EXPECT_FALSE(set().contains(id("Ethernet0")));
  EXPECT_TRUE(set().contains(id("Ethernet1")));
  EXPECT_EQ(record("Ethernet0"), IntfCounter{});
  EXPECT_EQ(shared().size(), 1U);
}

TEST_F(MfibIntfs, deletingAnUnknownInterfaceStillRemovesAStaleRecord) {
  setRecord("Ethernet7", 5, 0);
  disable({"Ethernet7", "Ethernet8"});
  EXPECT_EQ(record("Ethernet7"), IntfCounter{});
}

TEST_F(MfibIntfs, aRecordWithHeldPacketsStays) {
  for (const bool enabled : {true, false}) {
    if (enabled) {
      enable({"Ethernet0"});
    }
    setRecord("Ethernet0", 5, 1);
    disable({"Ethernet0"});
    EXPECT_FALSE(set().contains(id("Ethernet0")));
    EXPECT_EQ(record("Ethernet0").pktsQueued(), 1U);
  }
}

TEST_F(MfibIntfs, anEmptyListChangesNothing) {
  enable({"Ethernet0"});
  enable({});
  disable({});
  EXPECT_EQ(set().size(), 1U);
  EXPECT_EQ(shared().size(), 1U);
}

TEST_F(MfibIntfs, localCountersAndRoutesAreLeftAlone) {
  enable({"Ethernet0"});
  mfib_->forceLookupIntfCtrUpdates(id("Ethernet0"))->pktsIn = 7;
  addRoute({.source = "10.0.0.2", .group = "239.1.1.1", .iif = "Ethernet0"});
  disable({"Ethernet0"});
  EXPECT_EQ(intfCounters("Ethernet0")->pktsIn, 7U);
  EXPECT_EQ(MfibTestPeer::routes(*mfib_).size(), 1U);
}

TEST_F(MfibIntfs, aDamagedRecordFailsNoCommand) {
  const auto path =
      IntfCounterTable::mountPath(Nynet::AddressFamily::kIpv4, L3::VrfName::defaultVrf());
  const Nynet::IntfId intf(id("Ethernet0"));
  setRecord("Ethernet0", 100, 1);
  damageRecord<IntfCounter>(path, intf);
  enable({"Ethernet0"});
  EXPECT_EQ(shared().corruptions(), 1U);
  EXPECT_EQ(record("Ethernet0"), intfCounter(intf));
  setRecord("Ethernet0", 100, 1);
  damageRecord<IntfCounter>(path, intf);
  disable({"Ethernet0"});
  EXPECT_EQ(shared().corruptions(), 2U);
  EXPECT_EQ(record("Ethernet0"), IntfCounter{});
}

TEST_F(MfibIntfs, aNewRecordIsTracedByTheInterfacesName) {
  const TraceLevel level(7);
  const LogLines log;
  enable({"Vlan100"});
  enable({"Vlan100"});
  EXPECT_EQ(log.with("Mfib::addMulticastIntfs(const sfe::pb::MulticastIntfArg&): Initializing "
                     "intf counter for Vlan100"),
            1U);
  disable({"Vlan100"});
  EXPECT_EQ(log.with("Mfib::deleteMulticastIntfs"), 0U);
}

TEST(MfibGates, oneAndTwoAreAllowed) {
  for (const auto& [gate, allowed] : {std::pair{0, false},
                                      {1, true},
                                      {2, true},
                                      {3, false},
                                      {4, false},
                                      {32768, false},
                                      {65535, false}}) {
    EXPECT_EQ(Mfib::isAllowedOutGate(static_cast<uint16_t>(gate)), allowed) << gate;
  }
}

}  // namespace
}  // namespace SfeModules
