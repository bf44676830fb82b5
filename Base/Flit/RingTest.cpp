#include "Base/Flit/Ring.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <numeric>
#include <thread>

namespace Flit {
namespace {

// A record of `count` words that can be checked on its own: the first value and then its
// successors.
void appendRun(Ring& ring, uint64_t first, unsigned count) {
  std::array<uint64_t, kMaxRecordWords> words{};
  std::iota(words.begin(), words.begin() + count, first);
  ring.append(first, count + 1, words.data(), count);
}

bool isRun(const RawRecords& raw, const RawRecord& record) {
  if (record.point != record.words + 1) {
    return false;
  }
  for (unsigned i = 0; i < record.words; ++i) {
    if (raw.words[record.firstWord + i] != record.ticks + i) {
      return false;
    }
  }
  return true;
}

RawRecords contentsOf(const Ring& ring) {
  RawRecords raw;
  ring.read(raw);
  return raw;
}

TEST(Ring, startsEmpty) {
  EXPECT_TRUE(contentsOf(Ring(0)).records.empty());
}

TEST(Ring, returnsRecordsOfEveryLength) {
  Ring ring(3);
  for (unsigned count = 0; count <= kMaxRecordWords; ++count) {
    appendRun(ring, 1000 + count, count);
  }
  const RawRecords raw = contentsOf(ring);
  ASSERT_EQ(raw.records.size(), kMaxRecordWords + 1u);
  for (unsigned count = 0; count <= kMaxRecordWords; ++count) {
    EXPECT_EQ(raw.records[count].words, count);
    EXPECT_EQ(raw.records[count].slot, 3u);
    EXPECT_TRUE(isRun(raw, raw.records[count])) << count;
  }
}

TEST(Ring, keepsTheNewestWhenItIsFull) {
  Ring ring(0);
  constexpr uint64_t kRecords = 3 * kRingCells + 7;
  for (uint64_t i = 1; i <= kRecords; ++i) {
    appendRun(ring, i, 2);
  }
  const RawRecords raw = contentsOf(ring);
  ASSERT_EQ(raw.records.size(), kRingCells);
  EXPECT_EQ(raw.records.front().ticks, kRecords - kRingCells + 1);
  EXPECT_EQ(raw.records.back().ticks, kRecords);
}

TEST(Ring, dropsARecordThatIsOverwrittenInPart) {
  Ring ring(0);
  appendRun(ring, 1, 12);  // two cells
  for (uint64_t i = 2; i <= kRingCells; ++i) {
    appendRun(ring, i, 0);
  }
  const RawRecords raw = contentsOf(ring);
  EXPECT_EQ(raw.records.size(), kRingCells - 1);
  EXPECT_EQ(raw.records.front().ticks, 2u);
}

TEST(Ring, keepsTheOrderWhenTheClockStepsBack) {
  Ring ring(0);
  ring.append(100, 1, nullptr, 0);
  ring.append(90, 2, nullptr, 0);
  const RawRecords raw = contentsOf(ring);
  ASSERT_EQ(raw.records.size(), 2u);
  EXPECT_EQ(raw.records[1].ticks, 100u);
}

TEST(Ring, isNeverReadTornWhileItsOwnerWrites) {
  Ring ring(0);
  std::atomic<bool> done = false;
  std::jthread owner([&ring, &done] {
    for (uint64_t i = 1; i < 300000; ++i) {
      appendRun(ring, i, static_cast<unsigned>(i % 30));
    }
    done.store(true);
  });
  uint64_t reads = 0;
  for (bool last = false; !last;) {
    last = done.load();
    const RawRecords raw = contentsOf(ring);
    uint64_t ticks = 0;
    for (const RawRecord& record : raw.records) {
      ASSERT_TRUE(isRun(raw, record));
      ASSERT_GT(record.ticks, ticks);
      ticks = record.ticks;
    }
    reads += raw.records.size();
  }
  EXPECT_GT(reads, 0u);
}

}  // namespace
}  // namespace Flit
