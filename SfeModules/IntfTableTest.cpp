#include "SfeModules/IntfTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "SfeModules/IntfTesting.h"

namespace SfeModules {
namespace {

using ::testing::HasSubstr;

sfe::pb::IntfArg arg(const std::string& name,
                     unsigned port = 0,
                     unsigned vlan = 0,
                     const std::string& mac = testing::kOwnMac) {
  sfe::pb::IntfArg result;
  result.set_name(name);
  result.set_port(port);
  result.set_vlan(vlan);
  result.set_mac(mac);
  return result;
}

sfe::pb::IntfNameArg named(const std::string& name) {
  sfe::pb::IntfNameArg result;
  result.set_name(name);
  return result;
}

struct Refusal {
  sfe::pb::IntfArg arg;
  int code;
  const char* says;
};

class IntfTableRefusal : public ::testing::TestWithParam<Refusal> {};

TEST_P(IntfTableRefusal, saysWhatIsWrongAndLeavesTheTable) {
  IntfTable table;
  ASSERT_FALSE(table.add(arg("Ethernet1", 1)).has_error());
  ASSERT_FALSE(table.add(arg("Vlan100", 1, 100)).has_error());
  CommandResponse response = table.add(GetParam().arg);
  EXPECT_EQ(response.error().code(), GetParam().code);
  EXPECT_THAT(response.error().errmsg(), HasSubstr(GetParam().says));
  EXPECT_EQ(table.size(), 2U);
}

sfe::pb::IntfArg withGateBase(unsigned base) {
  sfe::pb::IntfArg result = arg("Ethernet2");
  result.set_gate_base(base);
  return result;
}

INSTANTIATE_TEST_SUITE_P(
    Each,
    IntfTableRefusal,
    ::testing::Values(Refusal{arg(""), EINVAL, "Ethernet3/1"},
                      Refusal{arg("eth0"), EINVAL, "\"eth0\" cannot be an interface"},
                      Refusal{arg("Loopback0"), EINVAL, "\"Loopback0\" cannot be an interface"},
                      Refusal{arg("Ethernet01"), EINVAL, "cannot be an interface"},
                      Refusal{arg("Ethernet2", RTE_MAX_ETHPORTS), EINVAL, "out of range"},
                      Refusal{arg("Ethernet2.7", 0, 4095), EINVAL, "vlan 4095 is out of range"},
                      Refusal{withGateBase(IntfTable::kMaxGateBase + 1), EINVAL, "gate base 4093"},
                      Refusal{arg("Vlan200", 0, 100), EINVAL, "Vlan200 is VLAN 200"},
                      Refusal{arg("Vlan200"), EINVAL, "must agree"},
                      Refusal{arg("Ethernet2", 0, 7), EINVAL, "Ethernet2.7 or Vlan7"},
                      Refusal{arg("Ethernet2", 0, 0, "abc"), EINVAL, "mac has 3 bytes"},
                      Refusal{arg("Ethernet2", 0, 0, testing::kGroupMac), EINVAL, "unicast"},
                      Refusal{arg("Ethernet2", 0, 0, std::string(6, '\0')), EINVAL, "unicast"},
                      Refusal{arg("Ethernet1", 2), EEXIST, "Ethernet1 exists already"},
                      Refusal{arg("Ethernet9.100", 1, 100), EEXIST, "is interface Vlan100"}));

TEST(IntfTable, findsAnInterfaceByItsPlaceAndByItsId) {
  IntfTable table;
  ASSERT_FALSE(table.add(arg("Ethernet3/1.100", RTE_MAX_ETHPORTS - 1, 100)).has_error());
  const Intf* intf = table.at(RTE_MAX_ETHPORTS - 1, 100);
  ASSERT_NE(intf, nullptr);
  EXPECT_EQ(intf->id, Nynet::IntfId::fromName("Ethernet3/1.100"));
  EXPECT_EQ(table.withId(intf->id.value()), intf);
  EXPECT_EQ(table.at(RTE_MAX_ETHPORTS - 1, 0), nullptr);
  EXPECT_EQ(table.at(RTE_MAX_ETHPORTS - 1, 4095), nullptr);
  EXPECT_EQ(table.at(0, 100), nullptr);
  EXPECT_EQ(table.at(UINT16_MAX, 100), nullptr);
}

TEST(IntfTable, forgetsARemovedInterface) {
  IntfTable table;
  ASSERT_FALSE(table.add(arg("Ethernet1")).has_error());
  EXPECT_FALSE(table.remove(named("Ethernet1")).has_error());
  EXPECT_EQ(table.at(0, 0), nullptr);
  EXPECT_EQ(table.remove(named("Ethernet1")).error().code(), ENOENT);
  EXPECT_EQ(table.remove(named("nonsense")).error().code(), ENOENT);
  EXPECT_FALSE(table.add(arg("Ethernet1")).has_error());
}

TEST(IntfTable, keepsAndShowsTheGateBase) {
  IntfTable table;
  ASSERT_FALSE(table.add(withGateBase(IntfTable::kMaxGateBase)).has_error());
  EXPECT_EQ(table.at(0, 0)->gateBase, IntfTable::kMaxGateBase);
  sfe::pb::IntfTable shown;
  table.show(&shown);
  ASSERT_EQ(shown.intfs_size(), 1);
  EXPECT_EQ(shown.intfs(0).gate_base(), IntfTable::kMaxGateBase);
}

TEST(IntfTable, showsInterfacesByPortAndVlan) {
  IntfTable table;
  ASSERT_FALSE(table.add(arg("Vlan7", 2, 7)).has_error());
  ASSERT_FALSE(table.add(arg("Ethernet9", 1)).has_error());
  ASSERT_FALSE(table.add(arg("Ethernet2", 2)).has_error());
  sfe::pb::IntfTable shown;
  table.show(&shown);
  ASSERT_EQ(shown.intfs_size(), 3);
  EXPECT_EQ(shown.intfs(0).name(), "Ethernet9");
  EXPECT_EQ(shown.intfs(1).name(), "Ethernet2");
  EXPECT_EQ(shown.intfs(2).name(), "Vlan7");
  EXPECT_EQ(shown.intfs(2).id(), Nynet::IntfId::fromName("Vlan7").value());
  EXPECT_EQ(shown.intfs(2).vlan(), 7U);
  EXPECT_EQ(shown.intfs(2).gate_base(), 0U);
  EXPECT_EQ(shown.intfs(2).mac(), testing::kOwnMac);
}

}  // namespace
}  // namespace SfeModules
