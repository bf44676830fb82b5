#include "SfeModules/RteAllocator.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace {

struct Record {
  uint64_t words[9];
};

using Allocator = Dpdk::RteAllocator<Record, 0>;

bool isZero(const Record& record) {
  const Record zero{};
  return std::memcmp(&record, &zero, sizeof(zero)) == 0;
}

TEST(RteAllocator, givesZeroFilledMemoryAlsoWhenItIsUsedAgain) {
  Allocator allocator;
  for (int round = 0; round < 2000; ++round) {
    Record* record = allocator.allocate(1);
    ASSERT_TRUE(isZero(*record)) << round;
    std::memset(record, 0xA5, sizeof(*record));
    Allocator::deallocate(record, 1);
  }
}

TEST(RteAllocator, alignsToACacheLine) {
  Allocator allocator("RTE");
  std::vector<Record*> records;
  for (int i = 0; i < 16; ++i) {
    records.push_back(allocator.allocate(1));
    EXPECT_EQ(0U, reinterpret_cast<uintptr_t>(records.back()) % 64);
  }
  for (Record* record : records) {
    Allocator::deallocate(record, 1);
  }
}

TEST(RteAllocator, alignsToWhatItsOwnerAsksFor) {
  Dpdk::RteAllocator<Record, 4096> allocator;
  Record* record = allocator.allocate(1);
  EXPECT_EQ(0U, reinterpret_cast<uintptr_t>(record) % 4096);
  allocator.deallocate(record, 1);
}

TEST(RteAllocator, givesRoomForSeveral) {
  Allocator allocator;
  Record* records = allocator.allocate(3);
  std::memset(records, 1, 3 * sizeof(Record));
  Record* other = allocator.allocate(1);
  EXPECT_TRUE(isZero(*other));
  Allocator::deallocate(other, 1);
  Allocator::deallocate(records, 3);
}

TEST(RteAllocator, takesNullBack) {
  Allocator::deallocate(nullptr, 1);
}

TEST(RteAllocator, isNamed) {
  EXPECT_EQ("RTE", Allocator().typeName());
  EXPECT_EQ("other", Allocator("other").typeName());
}

TEST(RteAllocatorDeathTest, stopsTheProcessWhenMemoryIsExhausted) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(Allocator().allocate(size_t{1} << 40),
               "Dpdk::RteAllocator<T, alignSizeOverride>::allocate.*Assertion");
}

#if defined(SFE_WITH_ASAN)
TEST(RteAllocatorDeathTest, makesFreedMemoryUnusable) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        Record* record = Allocator().allocate(1);
        Allocator::deallocate(record, 1);
        record->words[3] = 1;
      },
      "use-after-poison");
}
#endif

}  // namespace
