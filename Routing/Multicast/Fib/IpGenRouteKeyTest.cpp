#include "Routing/Multicast/Fib/IpGenRouteKey.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <array>
#include <sstream>
#include <unordered_set>

namespace Routing::Multicast::Fib {
namespace {

Nynet::IpGenPrefix host(uint32_t address) {
  return {Nynet::IpGenAddr(Nynet::IpAddr(htonl(address))), 32};
}

Nynet::IpGenPrefix host6(uint8_t first, uint8_t last) {
  std::array<uint8_t, 16> bytes{};
  bytes.front() = first;
  bytes.back() = last;
  return {Nynet::IpGenAddr(Nynet::AddressFamily::kIpv6, bytes.data()), 128};
}

TEST(IpGenRouteKey, holdsSourceThenGroup) {
  const IpGenRouteKey key(host(0x0a000002), host(0xef010101));
  EXPECT_EQ(key.source(), host(0x0a000002));
  EXPECT_EQ(key.group(), host(0xef010101));
  EXPECT_EQ(key.first(), key.source());
  EXPECT_EQ(key.second(), key.group());
}

TEST(IpGenRouteKey, printsBothPrefixes) {
  EXPECT_EQ(IpGenRouteKey(host(0x0a000002), host(0xef010101)).stringValue(),
            "(10.0.0.2/32,239.1.1.1/32)");
  std::ostringstream out;
  out << IpGenRouteKey(host6(0, 0), host6(0xff, 1));
  EXPECT_EQ(out.str(), "(::/128,ff00::1/128)");
}

TEST(IpGenRouteKey, countsEveryPart) {
  const IpGenRouteKey key(host(1), host(2));
  const std::unordered_set<IpGenRouteKey> keys = {
      key,
      IpGenRouteKey(host(2), host(1)),
      IpGenRouteKey(host(1), host(3)),
      IpGenRouteKey(host(0), host(2)),
      IpGenRouteKey(Nynet::IpGenPrefix(host(1).address(), 31), host(2)),
      IpGenRouteKey(host6(0, 1), host6(0, 2)),
      IpGenRouteKey(host(1), host(2)),
  };
  EXPECT_EQ(keys.size(), 6U);
  EXPECT_EQ(key, IpGenRouteKey(host(1), host(2)));
}

}  // namespace
}  // namespace Routing::Multicast::Fib
