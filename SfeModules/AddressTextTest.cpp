#include "SfeModules/AddressText.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <array>
#include <random>

namespace SfeModules {
namespace {

using Bytes = std::array<uint8_t, 16>;

std::string systemText(const Bytes& bytes, bool ipv4) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  inet_ntop(ipv4 ? AF_INET : AF_INET6, bytes.data(), text.data(), text.size());
  return text.data();
}

void expectSame(const Bytes& bytes) {
  EXPECT_EQ(numericAddr(bytes.data(), true), systemText(bytes, true));
  EXPECT_EQ(numericAddr(bytes.data(), false), systemText(bytes, false));
}

TEST(NumericAddr, writesWhatTheSystemWrites) {
  std::mt19937 random(1);
  for (int n = 0; n < 20000; ++n) {
    Bytes bytes{};
    // Zero words in every place and number.
    const unsigned mask = random();
    for (size_t word = 0; word < 8; ++word) {
      if ((mask >> word & 1) != 0) {
        const unsigned value = random() >> (random() % 20);
        bytes[2 * word] = static_cast<uint8_t>(value >> 8);
        bytes[2 * word + 1] = static_cast<uint8_t>(value);
      }
    }
    expectSame(bytes);
  }
}

TEST(NumericAddr, writesSpecialAddresses) {
  for (const char* text :
       {"::", "::1", "ff02::1", "2001:db8::1:0:0:1", "::ffff:10.0.0.1", "::10.0.0.1", "::1:0:0",
        "1::", "ff3e:30:2001:db8::1", "0:0:1::", "1:2:3:4:5:6:7:8", "ffff:ffff:ffff:ffff::"}) {
    Bytes bytes{};
    ASSERT_EQ(inet_pton(AF_INET6, text, bytes.data()), 1) << text;
    expectSame(bytes);
  }
  std::string appended = "x ";
  const Bytes group = {239, 255, 0, 1};
  appendNumericAddr(appended, group.data(), true);
  EXPECT_EQ(appended, "x 239.255.0.1");
}

}  // namespace
}  // namespace SfeModules
