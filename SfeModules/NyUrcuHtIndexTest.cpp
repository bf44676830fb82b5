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

// With the first `count` of the items, as a table does it with its nodes.
void rearrange(Index& index, std::vector<Item>& items, size_t count, uint32_t (*hashOf)(uint64_t)) {
  index.rearrange(count, [&] {
    for (size_t i = 0; i < count; ++i) {
      index.remove(&items[i]);
      index.add(&items[i], hashOf(items[i].key));
    }
  });
}

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

// What probable() finds nothing for is not in its own set: a free word has no tag.
TEST(NyUrcuHtIndex, findsAKeyWhoseHashIsZero) {
  Index index(64);
  EXPECT_EQ(nullptr, index.find(uint64_t{0}, 0));
  Item item;
  index.add(&item, 0);
  EXPECT_EQ(&item, index.find(uint64_t{0}, 0));
  EXPECT_EQ(&item, index.probable(0));
  index.remove(&item);
}

// Eight go to a key's own set, eight to the one beside it; after that one is left out, and the
// index says what it knows at each stage.
TEST(NyUrcuHtIndex, leavesOutWhatFindsTwoSetsFull) {
  constexpr uint32_t kHash = 5;
  constexpr uint32_t kHashBeside = 4;
  Index index(64);
  const uint64_t arrangement = index.arrangement();
  std::vector<Item> items(17);
  for (uint64_t i = 0; i < items.size(); ++i) {
    EXPECT_TRUE(index.provesAbsence(kHash, arrangement)) << i;
    EXPECT_EQ(i <= 8, index.ownSetProvesAbsence(kHash, arrangement)) << i;
    items[i].key = i;
    index.add(&items[i], kHash);
  }
  EXPECT_FALSE(index.provesAbsence(kHash, arrangement));
  EXPECT_TRUE(index.provesAbsence(kHashBeside, arrangement)) << "its own are all here";
  for (uint64_t i = 0; i < 16; ++i) {
    EXPECT_EQ(&items[i], index.find(i, kHash)) << i;
  }
  EXPECT_EQ(nullptr, index.find(uint64_t{16}, kHash));
  EXPECT_EQ(nullptr, items[16].place);
  index.remove(&items[3]);
  index.add(&items[16], kHash);
  EXPECT_EQ(&items[16], index.find(uint64_t{16}, kHash));
  EXPECT_FALSE(index.provesAbsence(kHash, arrangement)) << "nobody counts those left out";

  Item other{.key = 100};
  index.add(&other, kHashBeside);
  EXPECT_EQ(nullptr, other.place) << "no room in either";
  EXPECT_FALSE(index.provesAbsence(kHashBeside, arrangement));
}

// What takes another's place is found where that was, and what took none anywhere.
TEST(NyUrcuHtIndex, putsOneInThePlaceOfAnother) {
  Index index(64);
  Item first{.key = 7};
  Item second{.key = 7};
  index.add(&first, 5);
  std::atomic<uint64_t>* place = first.place;
  EXPECT_TRUE(index.replace(&first, &second, 5));
  EXPECT_EQ(nullptr, first.place);
  EXPECT_EQ(place, second.place);
  EXPECT_EQ(&second, index.find(uint64_t{7}, 5));
  EXPECT_FALSE(index.replace(&first, &second, 5)) << "has none any more";
  index.remove(&second);
  EXPECT_EQ(nullptr, index.find(uint64_t{7}, 5));
}

// The other could not be moved when the index grew.
TEST(NyUrcuHtIndex, putsOneWhereItBelongsWhenTheOtherWasLeftBehind) {
  Index index(128);  // 16 sets, then 32
  Item first{.key = 7};
  Item second{.key = 7};
  const uint32_t hash = 16 + 3;
  index.add(&first, hash);
  index.rearrange(65, [&] { EXPECT_TRUE(index.replace(&first, &second, hash)); });
  EXPECT_EQ(&second, index.find(uint64_t{7}, hash));
}
TEST(NyUrcuHtIndex, saysThatOneIsBesideWhenTheOtherWasLeftBehind) {
  constexpr uint32_t kHash = 5;
  Index index(128);
  std::vector<Item> items(9);
  for (uint64_t i = 0; i < items.size(); ++i) {
    items[i].key = i;
    index.add(&items[i], kHash);
  }
  Item second{.key = 8};
  index.rearrange(65, [&] { EXPECT_TRUE(index.replace(&items[8], &second, kHash)); });
  EXPECT_EQ(&second, index.find(uint64_t{8}, kHash));
  EXPECT_FALSE(index.ownSetProvesAbsence(kHash, index.arrangement()));
}

// No absence is proved while the index grows, or by what was read before it grew.
TEST(NyUrcuHtIndex, provesNothingWhileItGrows) {
  Index index(128);
  Item item{.key = 7};
  const uint32_t hash = 16 + 3;
  index.add(&item, hash);
  const uint64_t before = index.arrangement();
  index.rearrange(65, [&] {
    EXPECT_FALSE(index.provesAbsence(1, before));
    EXPECT_FALSE(index.provesAbsence(1, index.arrangement()));
    index.remove(&item);
    index.add(&item, hash);
  });
  EXPECT_FALSE(index.provesAbsence(1, before));
  EXPECT_TRUE(index.provesAbsence(1, index.arrangement()));
  EXPECT_EQ(&item, index.find(uint64_t{7}, hash));
}

// Sets that overflowed once say so until the index is rearranged: what was left out may still be.
TEST(NyUrcuHtIndex, isRearrangedWhenManySetsHaveOverflowed) {
  constexpr uint32_t kSets = 16;
  constexpr size_t kEntries = 20;
  Index index(64);
  std::vector<Item> items(kEntries);
  unsigned wanted = 0;
  for (uint32_t set = 0; set < kSets; ++set) {
    EXPECT_FALSE(index.wantsRearranging(kEntries) && wanted == 0) << set;
    for (size_t i = 0; i < 17; ++i) {
      index.add(&items[i], set);
    }
    EXPECT_FALSE(index.provesAbsence(set, index.arrangement()));
    for (size_t i = 0; i < 17; ++i) {
      index.remove(&items[i]);
    }
    if (index.wantsRearranging(kEntries)) {
      ++wanted;
      index.rearrange(kEntries, [] {});
      EXPECT_FALSE(index.wantsRearranging(kEntries));
      for (uint32_t other = 0; other < kSets; ++other) {
        EXPECT_TRUE(index.ownSetProvesAbsence(other, index.arrangement()));
      }
    }
  }
  EXPECT_LT(0U, wanted);
  EXPECT_GT(kSets / 2, wanted);
}

// Entries come and go: sets that overflowed by chance are forgotten now and then.
TEST(NyUrcuHtIndex, isRearrangedAsEntriesComeAndGo) {
  constexpr uint64_t kLive = 250;
  constexpr uint64_t kTurnovers = 300;
  Numbers table(128, true, 128, nullptr, nullptr, 1024);
  for (uint64_t key = 0; key < kLive * kTurnovers; ++key) {
    table.insert(key * 0x9e3779b97f4a7c15, key);
    if (key >= kLive) {
      table.erase((key - kLive) * 0x9e3779b97f4a7c15);
    }
    if (key % kLive == 0) {
      urcu_qsbr_quiescent_state();
    }
  }
  EXPECT_LT(2U * 6U, table.arrangement()) << "more often than it grew";
  EXPECT_EQ(kLive, table.size());
}

// Keys whose hashes meet in a quarter of the sets overflow whatever is done: it is not done again
// and again.
TEST(NyUrcuHtIndex, isNotRearrangedWhereThatDoesNotHelp) {
  constexpr size_t kEntries = 4096;
  Index index(kEntries);
  std::vector<Item> items(kEntries);
  const auto hashOf = [](uint64_t key) { return static_cast<uint32_t>(key * 4); };
  unsigned rearranged = 0;
  for (uint64_t i = 0; i < kEntries; ++i) {
    items[i].key = i;
    index.add(&items[i], hashOf(i));
    if (index.wantsRearranging(i + 1)) {
      rearrange(index, items, i + 1, hashOf);
      ++rearranged;
    }
  }
  EXPECT_GT(40U, rearranged);
}

TEST(NyUrcuHtIndex, growsToItsLimitAndKeepsWhatMoves) {
  Index index(1024);  // 256 sets
  std::vector<Item> items(600);
  const auto hashOf = [](uint64_t key) { return static_cast<uint32_t>(key * 2654435761U); };
  unsigned grown = 0;
  for (uint64_t i = 0; i < items.size(); ++i) {
    items[i].key = i;
    index.add(&items[i], hashOf(i));
    while (index.wantsRearranging(i + 1)) {
      rearrange(index, items, i + 1, hashOf);
      ++grown;
    }
  }
  EXPECT_EQ(4U, grown);  // 16, 32, 64, 128, 256
  size_t found = 0;
  for (uint64_t i = 0; i < items.size(); ++i) {
    const Item* item = index.find(i, hashOf(i));
    EXPECT_TRUE(item == nullptr || item == &items[i]);
    EXPECT_TRUE(item != nullptr || !index.provesAbsence(hashOf(i), index.arrangement()));
    found += item != nullptr ? 1 : 0;
  }
  EXPECT_LT(items.size() * 9 / 10, found);
}

// Who comes second, having seen that it has to grow, must not grow it past its memory.
TEST(NyUrcuHtIndex, growsOnceForTwoThatSawItCrowded) {
  constexpr size_t kEntries = 65;  // more than 16 sets are for
  Index index(128);                // at most 32 sets
  Item item{.key = 1};
  const uint32_t hash = 32;  // in the set behind the last one, were there more than 32
  ASSERT_TRUE(index.wantsRearranging(kEntries));
  index.rearrange(kEntries, [] {});
  EXPECT_FALSE(index.wantsRearranging(kEntries));
  index.rearrange(kEntries, [] {});
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
  EXPECT_FALSE(index.provesAbsence(1, index.arrangement()));
  EXPECT_FALSE(index.ownSetProvesAbsence(1, index.arrangement()));
  EXPECT_FALSE(index.wantsRearranging(1000000));
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
    const uint64_t arrangement = table.arrangement();
    size_t located = 0;
    for (uint64_t key = 0; key < 600; ++key) {
      const uint32_t hash = table.nyHash(key);
      table.prefetch(hash);
      const auto* node = table.locate(hash);
      located += node != nullptr ? 1 : 0;
      const uint64_t* value = table.find(key, hash, node, arrangement);
      ASSERT_EQ(table.find(key), value);
      ASSERT_EQ(key < 500, value != nullptr);
      ASSERT_EQ(value, table.find(key, hash));
    }
    EXPECT_EQ(indexed != 0, located > 450);
    const uint32_t hash = table.nyHash(7);
    const auto* node = table.locate(hash);
    table.erase(7);
    EXPECT_EQ(nullptr, table.find(7, hash, node, arrangement)) << "erased since it was located";
    table.insert(7, 1);
    EXPECT_EQ(1U, *table.find(7, hash, node, arrangement));
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
