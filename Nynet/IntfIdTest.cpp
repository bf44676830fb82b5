#include "Nynet/IntfId.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <type_traits>
#include <vector>

#include "Nynet/VlanIntfId.h"

namespace Nynet {
namespace {

using testing::HasSubstr;

static_assert(sizeof(IntfId) == 8 && std::is_trivially_copyable_v<IntfId> &&
              std::is_standard_layout_v<IntfId>);

struct NamedId {
  const char* name;
  uint64_t value;
  uint16_t vlan;  // 0: not a VLAN interface
};

// The ids are fixed for good: other processes, and files written earlier, hold them.
constexpr std::array kNamedIds = {
    NamedId{"None", 0, 0},
    NamedId{"Invalid", 0xffffffffffffffff, 0},
    NamedId{"Ethernet0", 0x0100000000000000, 0},
    NamedId{"Ethernet3", 0x0100000000300000, 0},
    NamedId{"Ethernet3/0", 0x0100000000301000, 0},
    NamedId{"Ethernet3/1", 0x0100000000302000, 0},
    NamedId{"Ethernet3.100", 0x0100000000300064, 100},
    NamedId{"Ethernet3/1.100", 0x0100000000302064, 100},
    NamedId{"Ethernet65535/254.4094", 0x0100000fffffffFE, 4094},
    NamedId{"Ethernet0.1", 0x0100000000000001, 1},
    NamedId{"Vlan1", 0x0200000000000001, 1},
    NamedId{"Vlan100", 0x0200000000000064, 100},
    NamedId{"Vlan4094", 0x0200000000000ffe, 4094},
    NamedId{"Loopback0", 0x0300000000000000, 0},
    NamedId{"Loopback100", 0x0300000000000064, 0},
    NamedId{"Register0", 0x0400000000000000, 0},
    NamedId{"Tunnel5", 0x0500000000000005, 0},
    NamedId{"Tunnel4294967295", 0x05000000ffffffff, 0},
    // Values that no name gives.
    NamedId{"Intf0x0000000000000001", 0x0000000000000001, 0},
    NamedId{"Intf0x0100000000000fff", 0x0100000000000fff, 0},
    NamedId{"Intf0x0100001000000001", 0x0100001000000001, 0},
    NamedId{"Intf0x0200000000000000", 0x0200000000000000, 0},
    NamedId{"Intf0x0200000000000fff", 0x0200000000000fff, 0},
    NamedId{"Intf0x0200000000001064", 0x0200000000001064, 0},
    NamedId{"Intf0x0300000100000000", 0x0300000100000000, 0},
    NamedId{"Intf0x0600000000000064", 0x0600000000000064, 0},
    NamedId{"Intf0xff00000000000000", 0xff00000000000000, 0},
    NamedId{"Intf0xfffffffffffffffe", 0xfffffffffffffffe, 0},
};

TEST(IntfId, roundTripsEveryKindOfName) {
  for (const NamedId& row : kNamedIds) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(IntfId::fromName(row.name).value(), row.value);
    EXPECT_EQ(IntfId(row.value).stringValue(), row.name);
    EXPECT_EQ(IntfId::parse(row.name), IntfId(row.value));
  }
}

TEST(IntfId, givesEveryNameOfAKindItsOwnId) {
  std::set<uint64_t> ids;
  size_t names = 0;
  const auto expectRoundTrip = [&](const std::string& name) {
    const auto id = IntfId::parse(name);
    ASSERT_TRUE(id) << name;
    EXPECT_EQ(id->stringValue(), name);
    ids.insert(id->value());
    ++names;
  };
  for (int vlan = 1; vlan <= 4094; ++vlan) {
    expectRoundTrip("Vlan" + std::to_string(vlan));
    expectRoundTrip("Ethernet7." + std::to_string(vlan));
    expectRoundTrip("Ethernet7/254." + std::to_string(vlan));
  }
  for (int lane = 0; lane <= 254; ++lane) {
    expectRoundTrip("Ethernet65535/" + std::to_string(lane));
  }
  for (int port = 0; port <= 65535; ++port) {
    expectRoundTrip("Ethernet" + std::to_string(port));
  }
  EXPECT_EQ(ids.size(), names);
}

TEST(IntfId, namesEveryValueSoThatItParsesBack) {
  std::mt19937_64 random(1);  // fixed seed: the same values in every run
  std::uniform_int_distribution<uint64_t> kinds(0, 7);
  for (int i = 0; i < 200000; ++i) {
    // Few bits set in the payload, so that many values fall on and next to valid names.
    const uint64_t value = kinds(random) << 56 | (random() & random() & random() & 0x3fffffffffULL);
    const IntfId id(value);
    const auto back = IntfId::parse(id.stringValue());
    ASSERT_TRUE(back) << id.stringValue();
    ASSERT_EQ(*back, id) << id.stringValue();
  }
}

struct Refusal {
  std::string_view name;
  const char* reason;
};

TEST(IntfId, refusesWhatIsNotANameAndSaysWhy) {
  const std::vector<Refusal> refusals = {
      {"", "begins with no kind of interface"},
      {"ethernet3", "begins with no kind of interface"},
      {" Ethernet3", "begins with no kind of interface"},
      {"eth0", "begins with no kind of interface"},
      {"3", "begins with no kind of interface"},
      {"none", "begins with no kind of interface"},
      {"None ", "begins with no kind of interface"},
      {"Intf", "begins with no kind of interface"},
      {"Ethernet", "a number is missing"},
      {"Ethernet-1", "a number is missing"},
      {"Ethernet+1", "a number is missing"},
      {"Ethernet 1", "a number is missing"},
      {"Ethernet3/", "a number is missing"},
      {"Ethernet3.", "a number is missing"},
      {"Ethernet3/.5", "a number is missing"},
      {"Ethernet3/1.", "a number is missing"},
      {"Vlan", "a number is missing"},
      {"Ethernet03", "leading zero"},
      {"Ethernet00", "leading zero"},
      {"Ethernet3/01", "leading zero"},
      {"Ethernet3.0100", "leading zero"},
      {"Vlan0100", "leading zero"},
      {"Loopback00", "leading zero"},
      {"Ethernet65536", "a port is 0..65535"},
      {"Ethernet99999999999999999999999999", "a port is 0..65535"},
      {"Ethernet18446744073709551619", "a port is 0..65535"},
      {"Ethernet3/255", "a lane is 0..254"},
      {"Ethernet3/18446744073709551617", "a lane is 0..254"},
      {"Ethernet3.0", "a VLAN is 1..4094"},
      {"Ethernet3.4095", "a VLAN is 1..4094"},
      {"Vlan0", "a VLAN is 1..4094"},
      {"Vlan4095", "a VLAN is 1..4094"},
      {"Vlan65537", "a VLAN is 1..4094"},
      {"Vlan18446744073709551617", "a VLAN is 1..4094"},
      {"Loopback4294967296", "the number is 0..4294967295"},
      {"Tunnel18446744073709551616", "the number is 0..4294967295"},
      {"Ethernet3x", "something follows"},
      {"Ethernet3/1/1", "something follows"},
      {"Ethernet3.1.1", "something follows"},
      {"Ethernet3.1/1", "something follows"},
      {"Vlan100 ", "something follows"},
      {"Vlan100.5", "something follows"},
      {std::string_view("Vlan100\0", 8), "something follows"},
      {"Intf0x", "16 lower-case hexadecimal digits"},
      {"Intf0x1", "16 lower-case hexadecimal digits"},
      {"Intf0x060000000000000G", "16 lower-case hexadecimal digits"},
      {"Intf0x06000000000000AB", "16 lower-case hexadecimal digits"},
      {"Intf0x06000000000000001", "16 lower-case hexadecimal digits"},
      {"Intf0x0000000000000000", "a name of its own"},
      {"Intf0xffffffffffffffff", "a name of its own"},
      {"Intf0x0200000000000064", "a name of its own"},
  };
  for (const Refusal& row : refusals) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(IntfId::parse(row.name), std::nullopt);
    try {
      IntfId::fromName(row.name);
      ADD_FAILURE() << "accepted";
    } catch (const std::invalid_argument& refused) {
      EXPECT_THAT(refused.what(), HasSubstr(row.reason));
      EXPECT_THAT(refused.what(), HasSubstr("valid are Ethernet<port>, "));
    }
  }
}

TEST(IntfId, quotesTheRefusedTextCutAndPrintable) {
  try {
    IntfId::fromName("Vlan\n\x01" + std::string(5000, 'x'));
    ADD_FAILURE() << "accepted";
  } catch (const std::invalid_argument& refused) {
    EXPECT_THAT(refused.what(), HasSubstr("\"Vlan??xxx"));
    EXPECT_LT(std::string(refused.what()).size(), 400U);
  }
}

TEST(IntfId, appendsItsNameToWhatIsThere) {
  std::string text = "Oifs: ";
  IntfId::fromName("Ethernet3/1.100").appendTo(text);
  IntfId(0x0600000000000001).appendTo(text);
  EXPECT_EQ(text, "Oifs: Ethernet3/1.100Intf0x0600000000000001");
}

TEST(IntfId, streamsItsNameWhateverTheStreamsFormat) {
  std::ostringstream out;
  out << std::hex << IntfId::fromName("Vlan100");
  EXPECT_EQ(out.str(), "Vlan100");
}

TEST(IntfId, comparesAndHashesByValue) {
  EXPECT_TRUE(IntfId().isNone());
  EXPECT_TRUE(IntfId::invalid().isInvalid());
  EXPECT_LT(IntfId(1), IntfId(2));
  EXPECT_NE(IntfId(1), IntfId(2));
  EXPECT_EQ(std::hash<IntfId>()(IntfId(7)), std::hash<IntfId>()(IntfId(7)));
}

TEST(VlanIntfId, knowsTheVlanOfEveryKindOfInterface) {
  for (const NamedId& row : kNamedIds) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(VlanIntfId::vlanId(IntfId(row.value)), row.vlan);
    EXPECT_EQ(VlanIntfId::isVlanIntfId(IntfId(row.value)), row.vlan != 0);
  }
}

// Known when compiling.
static_assert(VlanIntfId::vlanId(IntfId(0x0200000000000064)) == 100);
static_assert(!VlanIntfId::isVlanIntfId(IntfId()));

}  // namespace
}  // namespace Nynet
