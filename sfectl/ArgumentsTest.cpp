#include "sfectl/Arguments.h"

#include <gtest/gtest.h>

#include <string>

#include "sfectl/Errors.h"

namespace Sfectl {
namespace {

using namespace std::string_literals;

// The text of the usage error that `call` throws; empty when it throws none.
template <class Call>
std::string complaint(Call&& call) {
  try {
    call();
  } catch (const UsageError& error) {
    return error.what();
  }
  return "";
}

TEST(Address, hasNetworkByteOrder) {
  EXPECT_EQ(parseAddress("10.0.0.2", "source").bytes, "\x0a\0\0\x02"s);
  EXPECT_EQ(parseAddress("ff15::1", "group").bytes, "\xff\x15\0\0\0\0\0\0\0\0\0\0\0\0\0\x01"s);
}

TEST(Address, knowsMulticastAndAny) {
  EXPECT_TRUE(parseAddress("224.0.0.0", "group").isMulticast());
  EXPECT_TRUE(parseAddress("239.255.255.255", "group").isMulticast());
  EXPECT_FALSE(parseAddress("223.255.255.255", "group").isMulticast());
  EXPECT_FALSE(parseAddress("240.0.0.0", "group").isMulticast());
  EXPECT_TRUE(parseAddress("ff00::", "group").isMulticast());
  EXPECT_FALSE(parseAddress("fe80::1", "group").isMulticast());
  EXPECT_TRUE(parseAddress("0.0.0.0", "source").isAny());
  EXPECT_FALSE(parseAddress("::1", "source").isAny());
}

TEST(Address, refusesOtherTextAndSaysWhatIsExpected) {
  for (const std::string& text :
       {"10.0.0"s, "10.0.0.256"s, "10.0.0.1/32"s, ""s, "host"s, "fe80::1%eth0"s, "1.2.3.4\0x"s}) {
    const std::string said = complaint([&] { parseAddress(text, "source"); });
    EXPECT_NE(said.find("source '"), std::string::npos) << text;
    EXPECT_NE(said.find("expected a form like 10.0.0.2"), std::string::npos) << text;
  }
}

TEST(Address, printsWhatItParses) {
  for (const char* text : {"10.0.0.2", "2001:db8::1", "::", "255.255.255.255"}) {
    EXPECT_EQ(addressText(parseAddress(text, "source").bytes), text);
  }
  EXPECT_EQ(addressText("\x01\x02"), "0x0102");
}

TEST(Mac, hasSixBytes) {
  EXPECT_EQ(parseMac("02:00:00:00:5F:e0"), "\x02\0\0\0\x5f\xe0"s);
  EXPECT_EQ(macText(parseMac("02:00:00:00:5F:e0")), "02:00:00:00:5f:e0");
}

TEST(Mac, refusesOtherForms) {
  for (const char* text : {"", "02:00:00:00:00", "02:00:00:00:00:01:02", "02-00-00-00-00-01",
                           "0g:00:00:00:00:01", "2:0:0:0:0:1", "+2:00:00:00:00:01"}) {
    EXPECT_NE(complaint([&] { parseMac(text); }).find("six pairs"), std::string::npos) << text;
  }
}

TEST(Endpoint, takesTheDefaultGateOrTheWrittenOne) {
  EXPECT_EQ(parseEndpoint("in", 3).name, "in");
  EXPECT_EQ(parseEndpoint("in", 3).gate, 3u);
  EXPECT_EQ(parseEndpoint("Ethernet3/1.100:8191", 1).name, "Ethernet3/1.100");
  EXPECT_EQ(parseEndpoint("Ethernet3/1.100:8191", 1).gate, 8191u);
}

TEST(Endpoint, refusesGatesThatNoModuleHas) {
  for (const char* text : {"in:8192", "in:", "in:-1", "in:1x", "in: 1", "in:99999999999"}) {
    EXPECT_NE(complaint([&] { parseEndpoint(text, 0); }).find("0 to 8191"), std::string::npos)
        << text;
  }
  EXPECT_NE(complaint([] { parseEndpoint(":1", 0); }).find("NAME"), std::string::npos);
}

TEST(IntfName, roundTrips) {
  for (const char* name : {"Ethernet3", "Ethernet3/1", "Ethernet3.100", "Vlan100", "Loopback0"}) {
    EXPECT_EQ(intfText(parseIntf(name, "--iif")), name);
  }
}

TEST(IntfName, refusesUnknownFormsAndNamesTheOption) {
  const std::string said = complaint([] { parseIntf("eth0", "--iif"); });
  EXPECT_NE(said.find("--iif"), std::string::npos);
  EXPECT_NE(said.find("eth0"), std::string::npos);
  EXPECT_NE(said.find("Ethernet"), std::string::npos);
}

}  // namespace
}  // namespace Sfectl
