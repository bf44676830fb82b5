#include "bessd/EventCounters.h"

#include <gtest/gtest.h>

#include <system_error>

#include "Sfe/Counters/Counters.h"

namespace Bessd {
namespace {

TEST(EventCounters, giveEachNameOneId) {
  EventCounters counters;
  const uint32_t first = counters.id("a");
  EXPECT_NE(counters.id("b"), first);
  EXPECT_EQ(counters.id("a"), first);
}

TEST(EventCounters, refuseNamesThatAreNone) {
  EventCounters counters;
  EXPECT_THROW(counters.id(""), std::system_error);
  EXPECT_THROW(counters.id(std::string(EventCounters::kMaxNameBytes + 1, 'x')), std::system_error);
  EXPECT_NO_THROW(counters.id(std::string(EventCounters::kMaxNameBytes, 'x')));
}

TEST(EventCounters, showTheValuesOfEachWorker) {
  EventCounters counters;
  const uint32_t id = counters.id("shown");
  SfeModules::createCounterRow(2);
  SfeModules::createCounterRow(5);
  SfeModules::bessCounterInc(5, id);
  bess::pb::CountersResponse response;
  counters.fill(&response);
  SfeModules::destroyCounterRow(2);
  SfeModules::destroyCounterRow(5);
  ASSERT_EQ(response.counters_size(), 1);
  const auto& shown = response.counters(0);
  EXPECT_EQ(shown.name(), "shown");
  EXPECT_EQ(shown.id(), id);
  ASSERT_EQ(shown.values_size(), 2);
  EXPECT_EQ(shown.values(0).wid(), 2u);
  EXPECT_EQ(shown.values(0).value(), 0u);
  EXPECT_EQ(shown.values(1).wid(), 5u);
  EXPECT_EQ(shown.values(1).value(), 1u);
}

TEST(EventCounters, refuseMoreThanThereAre) {
  EventCounters counters;
  EXPECT_THROW(
      {
        for (unsigned i = 0; i <= SfeModules::kMaxCounters; ++i) {
          counters.id("counter" + std::to_string(i));
        }
      },
      std::system_error);
}

}  // namespace
}  // namespace Bessd
