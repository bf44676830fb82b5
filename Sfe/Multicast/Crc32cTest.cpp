#include "Sfe/Multicast/Crc32c.h"

#include <gtest/gtest.h>

#include <string_view>
#include <vector>

namespace Sfe::Multicast {
namespace {

std::span<const std::byte> bytesOf(std::string_view text) {
  return std::as_bytes(std::span(text.data(), text.size()));
}

TEST(Crc32c, givesThePublishedValues) {
  EXPECT_EQ(crc32c(bytesOf("")), 0u);
  EXPECT_EQ(crc32c(bytesOf("123456789")), 0xe3069283u);
  const std::vector<std::byte> zeros(32);
  EXPECT_EQ(crc32c(zeros), 0x8a9136aau);
  const std::vector<std::byte> ones(32, std::byte{0xff});
  EXPECT_EQ(crc32c(ones), 0x62a8ab43u);
}

TEST(Crc32c, isTheSameWithAndWithoutTheInstruction) {
  std::vector<std::byte> bytes;
  uint32_t random = 1;
  for (int length = 0; length < 200; ++length) {
    const uint32_t start = random;
    EXPECT_EQ(crc32c(bytes, start), crc32cByTables(bytes, start)) << length;
    random = random * 1664525 + 1013904223;
    bytes.push_back(static_cast<std::byte>(random >> 24));
  }
  EXPECT_EQ(crc32cByTables(bytesOf("123456789")), 0xe3069283u);
}

TEST(Crc32c, goesOnWhereAnEarlierCallEnded) {
  const std::string_view text = "a text that is longer than two words of eight bytes";
  const uint32_t whole = crc32c(bytesOf(text));
  for (size_t cut = 0; cut <= text.size(); ++cut) {
    EXPECT_EQ(crc32c(bytesOf(text.substr(cut)), crc32c(bytesOf(text.substr(0, cut)))), whole);
  }
}

}  // namespace
}  // namespace Sfe::Multicast
