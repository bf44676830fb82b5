// What the index adds to the table; what it must not change is in the table's own tests.
#include "SfeModules/NyUrcuHtIndex.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "SfeModules/NyUrcuHt.h"

namespace {

using Numbers = NyRcuHt<uint64_t, uint64_t>;

// A node as the index sees it.
struct Item {
  static bool sameKey(uint64_t a, uint64_t b) { return a == b; }
  uint64_t key = 0;
  std::atomic<uint64_t>* place = nullptr;
};
using Index = NyRcuHtIndex<Item>;

TEST(NyUrcuHtIndex, findsWhatWasAddedUntilItIsRemoved) {
  Index index(64);
  Item item{.key = 7};
  index.add(&item, 0x12345678);
  EXPECT_EQ(&item, index.find(uint64_t{7}, 0x12345678));
  EXPECT_EQ(nullptr, index.find(uint64_t{8}, 0x12345678));
  EXPECT_EQ(nullptr, index.find(uint64_t{7}, 0x12345679));
  index.remove(&item);
  EXPECT_EQ(nullptr, index.find(uint64_t{7}, 0x12345678));
  EXPECT_EQ(nullptr, item.place);
}

TEST(NyUrcuHtIndex, findsAKeyWhoseHashIsZero) {
  Index index(64);
  EXPECT_EQ(nullptr, index.find(uint64_t{0}, 0));
  Item item;
  index.add(&item, 0);
  EXPECT_EQ(&item, index.find(uint64_t{0}, 0));
  index.remove(&item);
}

TEST(NyUrcuHtIndex, leavesOutWhatFindsItsSetFull) {
  Index index(64);
  std::vector<Item> items(9);
  for (uint64_t i = 0; i < items.size(); ++i) {
    items[i].key = i;
    index.add(&items[i], 5);
  }
  for (uint64_t i = 0; i < 8; ++i) {
    EXPECT_EQ(&items[i], index.find(i, 5)) << i;
  }
  EXPECT_EQ(nullptr, index.find(uint64_t{8}, 5));
  EXPECT_EQ(nullptr, items[8].place);
  index.remove(&items[3]);
  index.add(&items[8], 5);
  EXPECT_EQ(&items[8], index.find(uint64_t{8}, 5));
}

TEST(NyUrcuHtIndex, growsToItsLimitAndKeepsWhatMoves) {
  Index index(1024);  // 256 sets
  std::vector<Item> items(600);
  const auto hashOf = [](uint64_t key) { return static_cast<uint32_t>(key * 2654435761U); };
  unsigned grown = 0;
  for (uint64_t i = 0; i < items.size(); ++i) {
    items[i].key = i;
    index.add(&items[i], hashOf(i));
    while (index.crowded(i + 1)) {
      index.grow(i + 1, [&](Item* item) {
        index.remove(item);
        index.add(item, hashOf(item->key));
      });
      ++grown;
    }
  }
  EXPECT_EQ(4U, grown);  // 16, 32, 64, 128, 256
  size_t found = 0;
  for (uint64_t i = 0; i < items.size(); ++i) {
    const Item* item = index.find(i, hashOf(i));
    EXPECT_TRUE(item == nullptr || item == &items[i]);
    found += item != nullptr ? 1 : 0;
  }
  EXPECT_LT(items.size() * 9 / 10, found);
}

// Who comes second, having seen the index crowded, must not grow it past its memory.
TEST(NyUrcuHtIndex, growsOnceForTwoThatSawItCrowded) {
  constexpr size_t kEntries = 65;  // more than 16 sets are for
  Index index(128);                // at most 32 sets
  Item item{.key = 1};
  const uint32_t hash = 32;  // in the set behind the last one, were there more than 32
  ASSERT_TRUE(index.crowded(kEntries));
  index.grow(kEntries, [](Item*) {});
  EXPECT_FALSE(index.crowded(kEntries));
  index.grow(kEntries, [](Item*) {});
  index.add(&item, hash);
  ASSERT_NE(nullptr, item.place);
  EXPECT_EQ(&item, index.find(uint64_t{1}, 0)) << "32 sets: both hashes mean the first one";
}

TEST(NyUrcuHtIndex, holdsNothingWithoutEntries) {
  Index index(0);
  Item item{.key = 1};
  index.add(&item, 1);
  index.prefetchSet(1);
  EXPECT_EQ(nullptr, index.probable(1));
  EXPECT_EQ(nullptr, index.find(uint64_t{1}, 1));
  EXPECT_FALSE(index.crowded(1000000));
}

// Whoever keeps what was found has to look again once an entry, any one, has left.
TEST(NyUrcuHt, countsWhatLeaves) {
  Numbers table;
  table.insert(1, 10);
  table.insert(2, 20);
  const uint64_t before = table.departures();
  EXPECT_EQ(10U, *table.findOrInsert(1, 11));
  EXPECT_FALSE(table.erase(3));
  EXPECT_EQ(before, table.departures());
  table.insert(1, 12);
  EXPECT_EQ(before + 1, table.departures()) << "the replaced one";
  EXPECT_TRUE(table.erase(2));
  EXPECT_EQ(before + 2, table.departures());
  EXPECT_TRUE(table.eraseNode(table.begin()));
  EXPECT_EQ(before + 3, table.departures());
}

// In steps and at once: the same is found, whatever the node was located for.
TEST(NyUrcuHt, findsInSteps) {
  for (const uint32_t indexed : {0U, 1024U}) {
    Numbers table(128, true, 128, nullptr, nullptr, indexed);
    for (uint64_t key = 0; key < 500; ++key) {
      table.insert(key, key + 1000);
    }
    size_t located = 0;
    for (uint64_t key = 0; key < 600; ++key) {
      const uint32_t hash = table.nyHash(key);
      table.prefetch(hash);
      const auto* node = table.locate(hash);
      located += node != nullptr ? 1 : 0;
      const uint64_t* value = table.find(key, hash, node);
      ASSERT_EQ(table.find(key), value);
      ASSERT_EQ(key < 500, value != nullptr);
      ASSERT_EQ(value, table.find(key, hash, nullptr));
    }
    EXPECT_EQ(indexed != 0, located > 450);
    const uint32_t hash = table.nyHash(7);
    const auto* node = table.locate(hash);
    table.erase(7);
    EXPECT_EQ(nullptr, table.find(7, hash, node)) << "erased since it was located";
    table.insert(7, 1);
    EXPECT_EQ(1U, *table.find(7, hash, node));
  }
}

// As many as the index was made for, twice as many, and none indexed: all are found.
TEST(NyUrcuHtIndex, findsEveryEntryOfATableOfAnySize) {
  for (const uint32_t indexedEntries : {0U, 64U, 10000U}) {
    Numbers table(128, true, 128, nullptr, nullptr, indexedEntries);
    constexpr uint64_t kEntries = 20000;
    for (uint64_t key = 0; key < kEntries; ++key) {
      ASSERT_TRUE(table.insert(key, key + 1));
    }
    for (uint64_t key = 0; key < kEntries; ++key) {
      const uint64_t* value = table.find(key);
      ASSERT_NE(nullptr, value) << key;
      ASSERT_EQ(key + 1, *value);
    }
    EXPECT_EQ(nullptr, table.find(kEntries));
  }
}

TEST(NyUrcuHtIndex, followsReplacementsAndRemovals) {
  Numbers table(128, true, 128, nullptr, nullptr, 1024);
  for (uint64_t round = 0; round < 3; ++round) {
    for (uint64_t key = 0; key < 500; ++key) {
      EXPECT_EQ(round == 0, table.insert(key, round));
      ASSERT_NE(nullptr, table.find(key));
      EXPECT_EQ(round, *table.find(key));
    }
  }
  for (uint64_t key = 0; key < 500; key += 2) {
    EXPECT_TRUE(table.erase(key));
    EXPECT_EQ(nullptr, table.find(key));
    EXPECT_EQ(9U, *table.findOrInsert(key, 9));
    EXPECT_EQ(9U, *table.find(key));
  }
  EXPECT_EQ(500U, table.size());
}

TEST(NyUrcuHtIndex, letsAWalkStartInTheMiddle) {
  Numbers table(128, true, 128, nullptr, nullptr, 1024);
  EXPECT_TRUE(table.near(0) == table.end()) << "nothing to start at";
  for (uint64_t key = 0; key < 500; ++key) {
    table.insert(key, key);
  }
  std::vector<uint64_t> all;
  unsigned long order = 0;
  for (auto at = table.begin(); !(at == table.end()); ++at) {
    EXPECT_LE(order, at.order());
    order = at.order();
    all.push_back(at.key());
  }
  for (uint64_t key = 0; key < 500; ++key) {
    const uint32_t hash = table.nyHash(key);
    auto at = table.near(hash);
    ASSERT_FALSE(at == table.end());
    EXPECT_EQ(hash % 128, table.nyHash(at.key()) % 128) << "as many sets as 500 entries take";
    const auto start = std::find(all.begin(), all.end(), at.key());
    std::vector<uint64_t> left;
    for (; !(at == table.end()); ++at) {
      left.push_back(at.key());
    }
    EXPECT_EQ(std::vector<uint64_t>(start, all.end()), left);
  }
}

TEST(NyUrcuHtIndex, tellsAWalkNothingWithoutEntries) {
  Numbers table;
  table.insert(1, 1);
  EXPECT_TRUE(table.near(0) == table.end());
}

}  // namespace
