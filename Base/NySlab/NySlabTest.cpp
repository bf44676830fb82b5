#include "Base/NySlab/NySlab.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sanitizer/asan_interface.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <random>
#include <set>
#include <thread>
#include <vector>

namespace NySlab {
namespace {

struct Block {
  unsigned char* at;
  size_t bytes;
  unsigned char fill;
};

Block take(size_t bytes, unsigned char fill) {
  auto* at = static_cast<unsigned char*>(slabAlloc(bytes));
  std::memset(at, fill, bytes);
  return {at, bytes, fill};
}

// Returns: whether nobody else wrote into the block.
bool giveBack(const Block& b) {
  const bool mine =
      std::all_of(b.at, b.at + b.bytes, [&b](unsigned char c) { return c == b.fill; });
  slabFree(b.at, b.bytes);
  return mine;
}

void churn(unsigned seed, int rounds) {
  std::mt19937 random(seed);
  std::vector<Block> held;
  for (int i = 0; i < rounds; ++i) {
    if (held.size() < 300 && random() % 2 == 0) {
      held.push_back(take(1 + random() % (kMaxSlabBytes + 500), static_cast<unsigned char>(i)));
    } else if (!held.empty()) {
      std::swap(held[random() % held.size()], held.back());
      ASSERT_TRUE(giveBack(held.back()));
      held.pop_back();
    }
  }
  for (const Block& b : held) {
    ASSERT_TRUE(giveBack(b));
  }
}

TEST(NySlab, givesAlignedMemoryOfEverySize) {
  const uint64_t before = stats().liveObjects;
  for (size_t bytes = 0; bytes <= kMaxSlabBytes + 64; ++bytes) {
    void* p = slabAlloc(bytes);
    ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % kAlignment, 0u) << bytes;
    if (bytes % 64 == 0 && bytes != 0 && bytes <= kMaxSlabBytes) {
      ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % 64, 0u) << bytes;
    }
    std::memset(p, 0xa5, bytes);
    slabFree(p, bytes);
  }
  EXPECT_EQ(stats().liveObjects, before);
}

TEST(NySlab, givesBlocksThatDoNotOverlap) {
  churn(1, 50000);
}

TEST(NySlab, usesAFreedBlockAgain) {
  void* first = slabAlloc(100);
  slabFree(first, 100);
  void* second = slabAlloc(97);  // the same size class
  EXPECT_EQ(first, second);
  slabFree(second, 97);
}

TEST(NySlab, acceptsNull) {
  slabFree(nullptr, 100);
}

TEST(NySlab, leavesLargeBlocksToTheHeap) {
  const Stats before = stats();
  void* p = slabAlloc(kMaxSlabBytes + 1);
  EXPECT_EQ(stats().liveObjects, before.liveObjects);
  EXPECT_EQ(stats().slabBytes, before.slabBytes);
  slabFree(p, kMaxSlabBytes + 1);
}

TEST(NySlab, boundsWhatAThreadKeeps) {
  const auto fillAndEmpty = [](size_t n) {
    std::vector<void*> held(n);
    std::ranges::generate(held, [] { return slabAlloc(64); });
    for (void* p : held) {
      slabFree(p, 64);
    }
    return stats().cachedObjects;
  };
  fillAndEmpty(1000);
  const uint64_t few = stats().cachedObjects;
  EXPECT_LE(fillAndEmpty(20000), few + 128);
  EXPECT_GE(stats().depotObjects, 19000u);
}

TEST(NySlab, servesEveryThreadFromTheMemoryOfEndedOnes) {
  const auto work = [] {
    std::thread([] {
      std::vector<void*> held(5000);
      std::ranges::generate(held, [] { return slabAlloc(48); });
      for (void* p : held) {
        slabFree(p, 48);
      }
    }).join();
  };
  work();
  const Stats after = stats();
  for (int i = 0; i < 50; ++i) {
    work();
  }
  EXPECT_EQ(stats().slabBytes, after.slabBytes);
  EXPECT_EQ(stats().threadCaches, after.threadCaches);
  EXPECT_EQ(stats().cachedObjects, after.cachedObjects);
}

TEST(NySlab, takesBackOnAnotherThread) {
  const uint64_t before = stats().liveObjects;
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<Block> queue;
  constexpr int kBlocks = 40000;
  std::jthread consumer([&] {
    for (int i = 0; i < kBlocks; ++i) {
      std::unique_lock lock(mutex);
      changed.wait(lock, [&queue] { return !queue.empty(); });
      const Block b = queue.front();
      queue.pop_front();
      lock.unlock();
      ASSERT_TRUE(giveBack(b));
    }
  });
  for (int i = 0; i < kBlocks; ++i) {
    const Block b = take(16 + i % 200, static_cast<unsigned char>(i));
    const std::lock_guard lock(mutex);
    queue.push_back(b);
    changed.notify_one();
  }
  consumer.join();
  EXPECT_EQ(stats().liveObjects, before);
}

TEST(NySlab, keepsThreadsApart) {
  const uint64_t before = stats().liveObjects;
  std::vector<std::jthread> threads;
  for (unsigned t = 0; t < 4; ++t) {
    threads.emplace_back([t] { churn(t, 20000); });
  }
  for (int i = 0; i < 100; ++i) {
    stats();  // may look at any time
  }
  threads.clear();
  EXPECT_EQ(stats().liveObjects, before);
}

pthread_key_t lateKey;

// Runs in every round of a thread's end, also after its cache is gone.
void useLate(void* round) {
  void* p = slabAlloc(80);
  std::memset(p, 1, 80);
  slabFree(p, 80);
  const auto n = reinterpret_cast<uintptr_t>(round);
  if (n < 3) {
    pthread_setspecific(lateKey, reinterpret_cast<void*>(n + 1));
  }
}

TEST(NySlab, worksForAThreadPastItsEnd) {
  const Stats before = stats();
  ASSERT_EQ(pthread_key_create(&lateKey, useLate), 0);
  std::thread([] {
    slabFree(slabAlloc(80), 80);
    pthread_setspecific(lateKey, reinterpret_cast<void*>(1));
  }).join();
  pthread_key_delete(lateKey);
  EXPECT_EQ(stats().liveObjects, before.liveObjects);
  EXPECT_EQ(stats().threadCaches, before.threadCaches);
}

struct alignas(64) OverAligned : SlabObject {
  char bytes[64];
};

struct Plain : SlabObject {
  virtual ~Plain() = default;
  uint64_t a = 1;
};
struct Larger : Plain {
  char more[300] = {};
};

TEST(SlabObject, honoursAlignmentAndTheDynamicSize) {
  const uint64_t before = stats().liveObjects;
  auto* wide = new OverAligned;
  EXPECT_EQ(reinterpret_cast<uintptr_t>(wide) % 64, 0u);
  delete wide;
  Plain* object = new Larger;
  EXPECT_EQ(stats().liveObjects, before + 1);
  delete object;
  EXPECT_EQ(stats().liveObjects, before);
}

TEST(StdAllocator, refusesACountThatOverflows) {
  StdAllocator<uint64_t> a;
  EXPECT_THROW((void)a.allocate(SIZE_MAX / 4), std::bad_array_new_length);
}

TEST(StdAllocator, servesContainersOfOverAlignedTypes) {
  std::vector<OverAligned, StdAllocator<OverAligned>> v(3);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(v.data()) % 64, 0u);
}

#if defined(__SANITIZE_ADDRESS__)
TEST(NySlab, poisonsFreeMemory) {
  auto* p = static_cast<char*>(slabAlloc(100));
  EXPECT_EQ(__asan_region_is_poisoned(p, 100), nullptr);
  slabFree(p, 100);
  EXPECT_TRUE(__asan_address_is_poisoned(p));
  EXPECT_TRUE(__asan_address_is_poisoned(p + 99));
}
#endif

}  // namespace
}  // namespace NySlab
