#include "SfeModules/CrcHash.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <random>
#include <vector>

namespace {

using SfeModules::crcHash;

// CRC32C bit by bit: reflected polynomial 0x1EDC6F41, no inversion at either end.
uint32_t bitwiseCrc(const std::vector<uint8_t>& bytes, uint32_t seed) {
  constexpr uint32_t kReflectedPolynomial = 0x82F63B78;
  uint32_t crc = seed;
  for (uint8_t byte : bytes) {
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc >> 1) ^ ((crc & 1) != 0 ? kReflectedPolynomial : 0);
    }
  }
  return crc;
}

std::vector<uint8_t> randomBytes(std::mt19937& random, size_t bytes) {
  std::vector<uint8_t> record(bytes);
  for (uint8_t& byte : record) {
    byte = static_cast<uint8_t>(random());
  }
  return record;
}

class CrcHashTest : public testing::TestWithParam<uint8_t> {
 protected:
  CrcHashTest() { rte_hash_crc_set_alg(GetParam()); }
  ~CrcHashTest() override { rte_hash_crc_set_alg(CRC32_SSE42_x64); }
};

TEST_P(CrcHashTest, givesTheKnownChecksum) {
  // RFC 3720 appendix B.4: 32 bytes of zeroes; the checksum there is inverted at both ends.
  const std::array<uint8_t, 32> zeroes{};
  EXPECT_EQ(~0x8A9136AAU, crcHash(zeroes.data(), zeroes.size(), 0xFFFFFFFFU));
}

TEST_P(CrcHashTest, isTheChecksumOfTheBytesInOrder) {
  std::mt19937 random(7);
  for (size_t bytes : {8U, 16U, 32U, 40U}) {
    for (int round = 0; round < 50; ++round) {
      const std::vector<uint8_t> record = randomBytes(random, bytes);
      const auto seed = static_cast<uint32_t>(random());
      ASSERT_EQ(bitwiseCrc(record, seed), crcHash(record.data(), bytes, seed)) << bytes;
    }
  }
}

TEST_P(CrcHashTest, takesARecordAtAnyAddress) {
  std::mt19937 random(8);
  const std::vector<uint8_t> record = randomBytes(random, 33);
  const std::vector<uint8_t> shifted(record.begin() + 1, record.end());
  EXPECT_EQ(bitwiseCrc(shifted, 5), crcHash(record.data() + 1, 32, 5));
}

INSTANTIATE_TEST_SUITE_P(Ways,
                         CrcHashTest,
                         testing::Values(CRC32_SW, CRC32_SSE42, CRC32_SSE42_x64),
                         [](const auto& way) {
                           switch (way.param) {
                             case CRC32_SW:
                               return "tables";
                             case CRC32_SSE42:
                               return "twoSteps";
                             default:
                               return "oneStep";
                           }
                         });

}  // namespace
