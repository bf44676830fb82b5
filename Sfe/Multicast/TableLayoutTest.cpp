#include "Sfe/Multicast/TableLayout.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace Sfe::Multicast {
namespace {

constexpr uint32_t kCapacity = 3;
const RecordShape kShape = *shapeOf(static_cast<uint64_t>(RecordKind::kMroute));

class TableLayoutTest : public ::testing::Test {
 protected:
  TableLayoutTest() : words_(kShape.tableBytes(kCapacity) / sizeof(uint64_t)) {
    writeHeader(object(), {kShape, kCapacity, "mroute", "/a/path", 4711, 5});
  }

  std::span<std::byte> object() { return std::as_writable_bytes(std::span(words_)); }
  bool isReadable() { return readHeader(object(), &header_, &fault_); }

  std::vector<uint64_t> words_;
  TableHeader header_;
  HeaderFault fault_;
};

TEST_F(TableLayoutTest, readsBackWhatWasWritten) {
  ASSERT_TRUE(isReadable());
  EXPECT_EQ(header_.shape, kShape);
  EXPECT_EQ(header_.capacity, kCapacity);
  EXPECT_EQ(header_.collection, "mroute");
  EXPECT_EQ(header_.path, "/a/path");
  EXPECT_EQ(header_.writerPid, 4711u);
  EXPECT_EQ(header_.generation, 5u);
}

TEST_F(TableLayoutTest, standsAtTheDocumentedOffsets) {
  EXPECT_EQ(std::memcmp(object().data(), "SFECNTB1", 8), 0);
  EXPECT_EQ(words_[8 / 8], 1u);
  EXPECT_EQ(words_[24 / 8], 512u);
  EXPECT_EQ(words_[32 / 8], 13u * 8);
  EXPECT_EQ(words_[40 / 8], kCapacity);
  EXPECT_EQ(words_[48 / 8], 2u);
  EXPECT_EQ(words_[72 / 8], selfChecking(4711));
  EXPECT_STREQ(reinterpret_cast<const char*>(object().data()) + 96, "mroute");
  EXPECT_STREQ(reinterpret_cast<const char*>(object().data()) + 128, "/a/path");
}

TEST_F(TableLayoutTest, detectsEveryFlippedBitOfTheHeader) {
  for (size_t at = 0; at < kHeaderBytes; ++at) {
    for (int bit = 0; bit < 8; ++bit) {
      object()[at] ^= std::byte(1 << bit);
      EXPECT_FALSE(isReadable()) << "byte " << at << " bit " << bit;
      object()[at] ^= std::byte(1 << bit);
    }
  }
  EXPECT_TRUE(isReadable());
}

TEST_F(TableLayoutTest, tellsAnUnfinishedObjectFromADamagedOne) {
  words_[0] = 0;
  ASSERT_FALSE(isReadable());
  EXPECT_EQ(fault_.kind, HeaderFault::Kind::kUnfinished);
  words_[0] = 1;
  ASSERT_FALSE(isReadable());
  EXPECT_EQ(fault_.kind, HeaderFault::Kind::kDamaged);
  ASSERT_FALSE(readHeader({}, &header_, &fault_));
  EXPECT_EQ(fault_.kind, HeaderFault::Kind::kUnfinished);
}

TEST_F(TableLayoutTest, refusesAnotherByteOrder) {
  for (uint64_t& word : words_) {
    word = __builtin_bswap64(word);
  }
  ASSERT_FALSE(isReadable());
  EXPECT_EQ(fault_.kind, HeaderFault::Kind::kForeign);
}

TEST_F(TableLayoutTest, refusesAnObjectOfAnotherSize) {
  const std::span<std::byte> whole = object();
  EXPECT_FALSE(readHeader(whole.first(whole.size() - 8), &header_, &fault_));
  EXPECT_FALSE(readHeader(whole.first(kHeaderBytes - 1), &header_, &fault_));
  EXPECT_FALSE(readHeader(whole.first(1), &header_, &fault_));
}

TEST_F(TableLayoutTest, countsGenerations) {
  EXPECT_EQ(renewHeader(object(), 4712), 6u);
  ASSERT_TRUE(isReadable());
  EXPECT_EQ(header_.generation, 6u);
  EXPECT_EQ(header_.writerPid, 4712u);
}

}  // namespace
}  // namespace Sfe::Multicast
