// The walk through all parts of a route table at once.
#include "SfeModules/RouteWalk.h"

#include <gtest/gtest.h>
#include <urcu-qsbr.h>

#include <atomic>
#include <map>
#include <memory>
#include <thread>
#include <vector>

namespace SfeModules {
namespace {

using Table = FoundRoutes::Table;

constexpr uint32_t kIndexed = 1U << 16;
constexpr uint32_t kRoutes = 5000;

MfibKey keyOf(uint32_t n) {
  const std::array<uint8_t, 4> source = {10, 0, 0, 2};
  const std::array<uint8_t, 4> group = {239, static_cast<uint8_t>(n >> 16),
                                        static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)};
  return MfibKey::of(source.data(), group.data(), kIpv4AddrLen);
}

// The route's number is where it can be read back.
void add(Table& table, uint32_t n) {
  auto entry = MfibPvSet::make(n % 4);
  entry->iif = Nynet::IntfId(n);
  table.insert(keyOf(n), std::move(entry));
}

std::vector<uint64_t> plainWalk(const Table& table) {
  std::vector<uint64_t> numbers;
  for (auto it = table.begin(); !(it == table.end()); ++it) {
    numbers.push_back(it.value()->iif.value());
  }
  return numbers;
}

std::vector<uint64_t> walk(const Table& table) {
  std::vector<uint64_t> numbers;
  walkRoutes(table, [&](const MfibKey& key, const MfibPvSet& entry) {
    EXPECT_EQ(keyOf(static_cast<uint32_t>(entry.iif.value())), key);
    numbers.push_back(entry.iif.value());
  });
  return numbers;
}

TEST(RouteWalk, keepsTheTablesOrder) {
  for (const uint32_t indexed : {0U, kIndexed}) {
    Table table(128, true, 128, nullptr, nullptr, indexed);
    EXPECT_TRUE(walk(table).empty());
    for (uint32_t n = 0; n < kRoutes; ++n) {
      add(table, n);
      if (n < 100 || n % 1000 == 999) {
        const auto numbers = walk(table);
        ASSERT_EQ(n + 1, numbers.size());
        ASSERT_EQ(plainWalk(table), numbers) << n << " routes, " << indexed << " indexed";
      }
    }
  }
}

TEST(RouteWalk, goesThroughATableOfManyRoutesInParts) {
  Table table(128, true, 128, nullptr, nullptr, kIndexed);
  for (uint32_t n = 0; n < kRoutes; ++n) {
    add(table, n);
  }
  const FoundRoutes found(table);
  EXPECT_LT(16U, found.parts().size());
  for (const auto& part : found.parts()) {
    EXPECT_LT(part.routes.size(), kRoutes / 4);
  }
}

TEST(RouteWalk, meetsEveryRouteThatStaysOnceWhileOthersComeAndGo) {
  Table table(128, true, 128, nullptr, nullptr, kIndexed);
  for (uint32_t n = 0; n < kRoutes; ++n) {
    add(table, n);
  }
  std::atomic<uint32_t> rounds{0};
  std::thread writer([&] {
    urcu_qsbr_register_thread();
    while (rounds.load() < 20) {
      for (uint32_t n = kRoutes; n < 2 * kRoutes; ++n) {
        add(table, n);
      }
      for (uint32_t n = kRoutes; n < 2 * kRoutes; ++n) {
        table.erase(keyOf(n));
      }
      SFE_RCU_QUIESCENT();
      urcu_qsbr_quiescent_state();
    }
    SFE_RCU_QUIESCENT();
    urcu_qsbr_unregister_thread();
  });
  for (; rounds.load() < 20; ++rounds) {
    std::map<uint64_t, uint32_t> met;
    for (const uint64_t number : walk(table)) {
      ++met[number];
    }
    for (uint32_t n = 0; n < kRoutes; ++n) {
      EXPECT_EQ(1U, met[n]) << n;
    }
    SFE_RCU_QUIESCENT();
    urcu_qsbr_quiescent_state();
  }
  urcu_qsbr_thread_offline();
  writer.join();
  urcu_qsbr_thread_online();
}

}  // namespace
}  // namespace SfeModules
