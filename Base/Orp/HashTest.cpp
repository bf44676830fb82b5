#include "Base/Orp/Hash.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <string>
#include <string_view>
#include <vector>

namespace Orp {
namespace {

uint32_t hashOf(std::string_view text) {
  Hash h;
  h.hashMix(text.data(), text.size());
  return h.result();
}

TEST(Hash, isTheSameInEveryBuild) {
  Hash h;
  h.hashMix(uint64_t{0x0123456789abcdef});
  h.hashMix(uint16_t{42});
  EXPECT_EQ(h.result(), 0xca898418u);
}

TEST(Hash, mixesAnIntegerAsItsBytes) {
  const uint64_t value = 0x1122334455667788;
  Hash a;
  a.hashMix(value);
  Hash b;
  b.hashMix(&value, sizeof(value));
  EXPECT_EQ(a.result(), b.result());

  const uint16_t gate = 5;
  Hash c;
  c.hashMix(gate);
  Hash d;
  d.hashMix(&gate, sizeof(gate));
  EXPECT_EQ(c.result(), d.result());
}

TEST(Hash, tellsLengthsApart) {
  const std::string zeroes(64, '\0');
  std::vector<uint32_t> seen;
  for (size_t n = 0; n <= zeroes.size(); ++n) {
    seen.push_back(hashOf(std::string_view(zeroes).substr(0, n)));
  }
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(std::adjacent_find(seen.begin(), seen.end()), seen.end());
}

TEST(Hash, tellsCutsAndOrderApart) {
  const auto pair = [](std::string_view a, std::string_view b) {
    Hash h;
    h.hashMix(a.data(), a.size());
    h.hashMix(b.data(), b.size());
    return h.result();
  };
  EXPECT_NE(pair("ab", "c"), pair("a", "bc"));
  EXPECT_NE(pair("ab", "c"), pair("c", "ab"));
}

TEST(Hash, changesAboutHalfOfItsBitsWithEachInputBit) {
  uint64_t flipped = 0;
  uint64_t cases = 0;
  for (uint64_t key = 0; key < 256; ++key) {
    Hash base;
    base.hashMix(key);
    for (unsigned bit = 0; bit < 64; ++bit, ++cases) {
      Hash other;
      other.hashMix(key ^ (uint64_t{1} << bit));
      flipped += static_cast<unsigned>(std::popcount(base.result() ^ other.result()));
    }
  }
  const double mean = static_cast<double>(flipped) / static_cast<double>(cases);
  EXPECT_NEAR(mean, 16.0, 0.2);
}

TEST(Hash, spreadsConsecutiveKeysOverBuckets) {
  constexpr size_t kBuckets = 1024;
  constexpr size_t kKeys = 64 * kBuckets;
  std::array<unsigned, kBuckets> load{};
  for (uint64_t key = 0; key < kKeys; ++key) {
    Hash h;
    h.hashMix(key);
    ++load[h.result() % kBuckets];
  }
  // 64 a bucket on average, standard deviation 8: six of these either way.
  for (const unsigned n : load) {
    EXPECT_GT(n, 16u);
    EXPECT_LT(n, 112u);
  }
}

}  // namespace
}  // namespace Orp
