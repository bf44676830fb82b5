#include "Nynet/Address.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <unordered_set>

#include "Nynet/Prefix.h"

namespace Nynet {
namespace {

IpGenAddr address(const std::string& text) {
  std::array<uint8_t, 16> bytes{};
  if (inet_pton(AF_INET, text.c_str(), bytes.data()) == 1) {
    return {AddressFamily::kIpv4, bytes.data()};
  }
  EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), bytes.data()), 1) << text;
  return {AddressFamily::kIpv6, bytes.data()};
}

TEST(IpAddr, keepsNetworkByteOrder) {
  const IpGenAddr addr(IpAddr(htonl(0xef010203)));
  EXPECT_EQ(addr.bytes()[0], 0xef);
  EXPECT_EQ(addr.bytes()[3], 0x03);
  EXPECT_EQ(addr.stringValue(), "239.1.2.3");
  EXPECT_EQ(addr.af(), AddressFamily::kIpv4);
  EXPECT_EQ(addr.length(), 4U);
}

TEST(Ip6Addr, copiesSixteenBytesOfAnyAlignment) {
  std::array<uint8_t, 19> buffer{};
  for (size_t i = 0; i < buffer.size(); ++i) {
    buffer[i] = static_cast<uint8_t>(i);
  }
  Ip6Addr addr;
  EXPECT_EQ(addr, Ip6Addr());
  addr.copyFromBuffer(buffer.data() + 3);
  EXPECT_EQ(addr.bytes()[0], 3);
  EXPECT_EQ(addr.bytes()[15], 18);
  EXPECT_EQ(IpGenAddr(addr).stringValue(), "304:506:708:90a:b0c:d0e:f10:1112");
}

TEST(IpGenAddr, leavesTheBytesBehindAnIpv4AddressZero) {
  std::array<uint8_t, 16> bytes;
  bytes.fill(0xff);
  const IpGenAddr addr(AddressFamily::kIpv4, bytes.data());
  for (size_t i = 0; i < IpGenAddr::kBytes; ++i) {
    EXPECT_EQ(addr.bytes()[i], i < 4 ? 0xff : 0x00) << i;
  }
}

TEST(IpGenAddr, isNoAddressByDefault) {
  EXPECT_EQ(IpGenAddr().af(), AddressFamily::kUnspec);
  EXPECT_EQ(IpGenAddr().length(), 0U);
  EXPECT_EQ(IpGenAddr().stringValue(), "");
  EXPECT_FALSE(IpGenAddr().isLinkLocalMulticast());
}

TEST(IpGenAddr, differsByFamilyAlone) {
  const IpGenAddr v4 = address("0.0.0.0");
  const IpGenAddr v6 = address("::");
  EXPECT_NE(v4, v6);
  EXPECT_EQ((std::unordered_set<IpGenAddr>{v4, v6, v4}.size()), 2U);
}

TEST(IpGenAddr, knowsLinkLocalMulticast) {
  for (const char* text :
       {"224.0.0.0", "224.0.0.1", "224.0.0.255", "ff02::1", "ff12::1", "fff2::", "ff32:ffff::9"}) {
    EXPECT_TRUE(address(text).isLinkLocalMulticast()) << text;
  }
  for (const char* text :
       {"224.0.1.0", "224.1.0.0", "225.0.0.1", "239.0.0.1", "10.0.0.1", "ff01::2", "ff05::2",
        "ff0e::1", "ff20::1", "fe02::1", "fe80::1", "::"}) {
    EXPECT_FALSE(address(text).isLinkLocalMulticast()) << text;
  }
}

TEST(IpGenAddr, streamsItsText) {
  std::ostringstream out;
  out << address("ff3e::1") << ' ' << IpGenPrefix(address("ff3e::1"), 128);
  EXPECT_EQ(out.str(), "ff3e::1 ff3e::1/128");
}

TEST(IpGenPrefix, printsAddressAndLength) {
  EXPECT_EQ(IpGenPrefix(address("10.0.0.1"), 32).stringValue(), "10.0.0.1/32");
  EXPECT_EQ(IpGenPrefix(address("0.0.0.0"), 0).stringValue(), "0.0.0.0/0");
}

TEST(IpGenPrefix, comparesAndHashesAddressAndLength) {
  const IpGenPrefix a(address("10.0.0.1"), 32);
  const IpGenPrefix b(address("10.0.0.1"), 31);
  const IpGenPrefix c(address("10.0.0.2"), 32);
  EXPECT_EQ(a, IpGenPrefix(address("10.0.0.1"), 32));
  EXPECT_NE(a, b);
  EXPECT_NE(a, c);
  EXPECT_EQ((std::unordered_set<IpGenPrefix>{a, b, c, a}.size()), 3U);
}

}  // namespace
}  // namespace Nynet
