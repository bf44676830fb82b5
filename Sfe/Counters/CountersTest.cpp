#include "Sfe/Counters/Counters.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace SfeModules {
namespace {

constexpr int kWid = 3;
constexpr uint32_t kId = 5;

TEST(BessCounters, countsInTheRowOfItsWorker) {
  createCounterRow(kWid);
  bessCounterInc(kWid, kId);
  bessCounterInc(kWid, kId);
  EXPECT_EQ(bessCounter(kWid, kId), 2u);
  EXPECT_EQ(bessCounter(kWid, kId + 1), 0u);
  EXPECT_EQ(bessCounterDb[kWid].load()[kId].load(), 2u);
  destroyCounterRow(kWid);
}

TEST(BessCounters, countsNothingWithoutARow) {
  bessCounterInc(kWid, kId);
  EXPECT_EQ(bessCounter(kWid, kId), 0u);
  EXPECT_EQ(bessCounterDb[kWid].load(), nullptr);
}

TEST(BessCounters, countsNothingOutOfRange) {
  createCounterRow(kWid);
  for (const int wid : {-1, 36, 1 << 30}) {
    bessCounterInc(wid, kId);
    EXPECT_EQ(bessCounter(wid, kId), 0u);
  }
  for (const uint32_t id : {kMaxCounters, ~0u}) {
    bessCounterInc(kWid, id);
    EXPECT_EQ(bessCounter(kWid, id), 0u);
  }
  destroyCounterRow(kWid);
}

TEST(BessCounters, startsEveryNewRowFromZero) {
  createCounterRow(kWid);
  bessCounterInc(kWid, kId);
  createCounterRow(kWid);
  EXPECT_EQ(bessCounter(kWid, kId), 1u);
  destroyCounterRow(kWid);
  createCounterRow(kWid);
  EXPECT_EQ(bessCounter(kWid, kId), 0u);
  destroyCounterRow(kWid);
}

TEST(BessCounters, mayBeReadWhileRowsComeAndGo) {
  std::thread reader([] {
    for (int i = 0; i < 20000; ++i) {
      bessCounter(kWid, kId);
    }
  });
  for (int i = 0; i < 200; ++i) {
    createCounterRow(kWid);
    bessCounterInc(kWid, kId);
    destroyCounterRow(kWid);
  }
  reader.join();
  EXPECT_EQ(bessCounter(kWid, kId), 0u);
}

// Uses up all ids, and is therefore the only test that asks for one.
TEST(CounterId, isOnePerNameUntilAllAreGivenAway) {
  const uint32_t first = counterId("first");
  const uint32_t second = counterId("second");
  EXPECT_NE(first, 0U);  // what a module counts into that was never given its ids
  EXPECT_NE(first, second);
  EXPECT_EQ(counterId("first"), first);
  for (unsigned n = 3; n < kMaxCounters; ++n) {
    EXPECT_LT(counterId("counter" + std::to_string(n)), kMaxCounters);
  }
  EXPECT_EQ(counterId("one too many"), kMaxCounters);
  EXPECT_EQ(counterId("second"), second);
}

}  // namespace
}  // namespace SfeModules
