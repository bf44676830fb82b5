#include "Base/NySlab/NySlab.h"

#include <sanitizer/asan_interface.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <mutex>
#include <utility>
#include <vector>

#include "Base/Orp/ThreadExit.h"

namespace NySlab {
namespace {

constexpr size_t kSlabBytes = size_t{64} * 1024;

constexpr size_t kRegionBytes = size_t{2} * 1024 * 1024;  // a large page
static_assert(kRegionBytes % kSlabBytes == 0);

// Four classes for each doubling: at most a quarter of an object is lost to rounding (16 bytes for
// small ones).
constexpr std::array<uint16_t, 27> kClassBytes = {
    16,  32,  48,  64,  80,  96,   112,  128,  160,  192,  224,  256,  320, 384,
    448, 512, 640, 768, 896, 1024, 1280, 1536, 1792, 2048, 2560, 3072, 4096};
constexpr size_t kClasses = kClassBytes.size();
static_assert(kClassBytes.back() == kMaxSlabBytes);

constexpr auto kClassOfStep = [] {
  std::array<uint8_t, kMaxSlabBytes / kAlignment + 1> table{};
  for (size_t step = 0, cls = 0; step < table.size(); ++step) {
    cls += step * kAlignment > kClassBytes[cls] ? 1 : 0;
    table[step] = static_cast<uint8_t>(cls);
  }
  return table;
}();

constexpr size_t classOf(size_t bytes) {
  return kClassOfStep[(bytes + kAlignment - 1) / kAlignment];
}

constexpr uint32_t magazineSize(size_t cls) {
  return static_cast<uint32_t>(std::clamp<size_t>(8192 / kClassBytes[cls], 4, 64));
}

struct FreeObject {
  FreeObject* next;
  FreeObject* nextChain;  // in the depot, the first object of a chain only
};
static_assert(sizeof(FreeObject) <= kAlignment);

// Free objects are poisoned in a sanitizer build: their links are uncovered for the moment of the
// access.
FreeObject* nextOf(FreeObject* object, FreeObject* FreeObject::*link = &FreeObject::next) {
  ASAN_UNPOISON_MEMORY_REGION(object, sizeof(FreeObject));
  FreeObject* next = object->*link;
  ASAN_POISON_MEMORY_REGION(object, sizeof(FreeObject));
  return next;
}

void linkTo(FreeObject* object,
            FreeObject* next,
            FreeObject* FreeObject::*link = &FreeObject::next) {
  ASAN_UNPOISON_MEMORY_REGION(object, sizeof(FreeObject));
  object->*link = next;
  ASAN_POISON_MEMORY_REGION(object, sizeof(FreeObject));
}

// A chain of free objects of one class. One thread changes it; stats() may look at its count.
class Magazine {
 public:
  uint32_t count() const { return count_.load(std::memory_order_relaxed); }
  FreeObject* chain() const { return head_; }

  void push(FreeObject* object) {
    linkTo(object, head_);
    set(object, count() + 1);
  }
  // Requires: count() != 0.
  FreeObject* pop() {
    FreeObject* object = head_;
    set(nextOf(object), count() - 1);
    return object;
  }
  void set(FreeObject* chain, uint32_t count) {
    head_ = chain;
    count_.store(count, std::memory_order_relaxed);
  }
  void takeFrom(Magazine& other) {
    set(other.head_, other.count());
    other.set(nullptr, 0);
  }

 private:
  FreeObject* head_ = nullptr;
  std::atomic<uint32_t> count_{0};
};

// Where slabs come from: regions as large as a large page, and aligned like one, so that the
// objects of a large table cost few misses of address translation where the kernel has large pages
// to give.
class Regions {
 public:
  // Returns: a slab. Errors: std::bad_alloc.
  std::byte* takeSlab() {
    const std::lock_guard lock(mutex_);
    if (next_ == end_) {
      regions_.reserve(regions_.size() + 1);
      next_ = static_cast<std::byte*>(::operator new(kRegionBytes, std::align_val_t(kRegionBytes)));
      end_ = next_ + kRegionBytes;
      // A small program has one region, and uses little of it.
      if (!regions_.empty()) {
        madvise(next_, kRegionBytes, MADV_HUGEPAGE);
      }
      regions_.push_back(next_);
    }
    return std::exchange(next_, next_ + kSlabBytes);
  }

 private:
  std::mutex mutex_;
  // All guarded by mutex_.
  std::byte* next_ = nullptr;
  std::byte* end_ = nullptr;
  std::vector<std::byte*> regions_;  // kept, and known to the leak checker
};

Regions& regions() {
  static auto& instance = *new Regions;
  return instance;
}

// All that no thread's cache holds, of one class.
class alignas(64) Depot {
 public:
  // Takes a whole magazine if there is one, else as much of one as is at hand.
  // Errors: std::bad_alloc.
  void fill(Magazine& magazine, size_t cls) {
    const std::lock_guard lock(mutex_);
    if (fullChains_ != nullptr) {
      FreeObject* chain = fullChains_;
      fullChains_ = nextOf(chain, &FreeObject::nextChain);
      fullObjects_ -= magazineSize(cls);
      magazine.set(chain, magazineSize(cls));
      return;
    }
    while (magazine.count() < magazineSize(cls) && loose_.count() != 0) {
      magazine.push(loose_.pop());
    }
    if (magazine.count() == 0) {
      carve(magazine, cls);
    }
  }

  // Requires: a full magazine.
  void give(Magazine& magazine) noexcept {
    FreeObject* chain = magazine.chain();
    const std::lock_guard lock(mutex_);
    linkTo(chain, fullChains_, &FreeObject::nextChain);
    fullChains_ = chain;
    fullObjects_ += magazine.count();
    magazine.set(nullptr, 0);
  }

  void giveLoose(Magazine& magazine) noexcept {
    const std::lock_guard lock(mutex_);
    while (magazine.count() != 0) {
      loose_.push(magazine.pop());
    }
  }

  void addTo(Stats& sum, uint64_t& carved) const {
    const std::lock_guard lock(mutex_);
    sum.slabBytes += slabs_ * kSlabBytes;
    sum.depotObjects += fullObjects_ + loose_.count();
    carved += carved_;
  }

 private:
  void carve(Magazine& magazine, size_t cls) {
    const size_t bytes = kClassBytes[cls];
    if (static_cast<size_t>(end_ - next_) < bytes) {
      next_ = regions().takeSlab();
      end_ = next_ + kSlabBytes;
      ++slabs_;
      ASAN_POISON_MEMORY_REGION(next_, kSlabBytes);
    }
    for (; magazine.count() < magazineSize(cls) && static_cast<size_t>(end_ - next_) >= bytes;
         next_ += bytes) {
      magazine.push(reinterpret_cast<FreeObject*>(next_));
      ++carved_;
    }
  }

  mutable std::mutex mutex_;
  // All guarded by mutex_.
  FreeObject* fullChains_ = nullptr;  // chains of magazineSize() objects
  uint64_t fullObjects_ = 0;
  Magazine loose_;  // what ended threads left in magazines that were not full
  std::byte* next_ = nullptr;
  std::byte* end_ = nullptr;
  uint64_t slabs_ = 0;
  uint64_t carved_ = 0;
};

struct ClassCache {
  Magazine loaded;
  Magazine spare;  // empty or full
};

struct Cache {
  std::array<ClassCache, kClasses> classes;
};

// What all threads share; never destroyed, since threads may outlive main().
struct Shared {
  std::array<Depot, kClasses> depots;
  std::mutex mutex;
  std::vector<Cache*> caches;  // guarded by mutex
};

Shared& shared() {
  static auto& instance = *new Shared;
  return instance;
}

[[gnu::tls_model("initial-exec")]] constinit thread_local Cache* mine = nullptr;
[[gnu::tls_model("initial-exec")]] constinit thread_local bool ended = false;

void reclaim(void* armed) {
  auto* cache = static_cast<Cache*>(armed);
  mine = nullptr;
  ended = true;
  Shared& all = shared();
  {
    const std::lock_guard lock(all.mutex);
    std::erase(all.caches, cache);
  }
  for (size_t cls = 0; cls < kClasses; ++cls) {
    all.depots[cls].giveLoose(cache->classes[cls].loaded);
    if (cache->classes[cls].spare.count() != 0) {
      all.depots[cls].give(cache->classes[cls].spare);
    }
  }
  delete cache;
}

// Returns: the thread's new cache; null when it is past its end or there is no memory for one.
[[gnu::noinline, gnu::cold]] Cache* makeCache() noexcept {
  if (ended) {
    return nullptr;
  }
  static auto& atExit = *new Orp::ThreadExit(reclaim);
  Shared& all = shared();
  auto* cache = new (std::nothrow) Cache;
  if (cache == nullptr) {
    return nullptr;
  }
  try {
    const std::lock_guard lock(all.mutex);
    all.caches.push_back(cache);
  } catch (const std::bad_alloc&) {
    delete cache;
    return nullptr;
  }
  mine = cache;
  atExit.arm(cache);
  return cache;
}

Cache* cacheOfThread() noexcept {
  return mine != nullptr ? mine : makeCache();
}

void* uncover(FreeObject* object, size_t cls) {
  ASAN_UNPOISON_MEMORY_REGION(object, kClassBytes[cls]);
  return object;
}

[[gnu::noinline, gnu::cold]] void* allocWithoutCache(size_t cls) {
  Depot& depot = shared().depots[cls];
  Magazine magazine;
  depot.fill(magazine, cls);
  FreeObject* object = magazine.pop();
  depot.giveLoose(magazine);
  return uncover(object, cls);
}

[[gnu::noinline]] void refill(ClassCache& cache, size_t cls) {
  if (cache.spare.count() != 0) {
    cache.loaded.takeFrom(cache.spare);
  } else {
    shared().depots[cls].fill(cache.loaded, cls);
  }
}

[[gnu::noinline]] void makeRoom(ClassCache& cache, size_t cls) noexcept {
  if (cache.spare.count() != 0) {
    shared().depots[cls].give(cache.spare);
  }
  cache.spare.takeFrom(cache.loaded);
}

}  // namespace

void* slabAlloc(size_t bytes) {
  if (bytes > kMaxSlabBytes) [[unlikely]] {
    return ::operator new(bytes);
  }
  const size_t cls = classOf(bytes);
  Cache* cache = cacheOfThread();
  if (cache == nullptr) [[unlikely]] {
    return allocWithoutCache(cls);
  }
  ClassCache& mineOfClass = cache->classes[cls];
  if (mineOfClass.loaded.count() == 0) [[unlikely]] {
    refill(mineOfClass, cls);
  }
  return uncover(mineOfClass.loaded.pop(), cls);
}

void slabFree(void* p, size_t bytes) noexcept {
  if (p == nullptr) {
    return;
  }
  if (bytes > kMaxSlabBytes) [[unlikely]] {
    ::operator delete(p);
    return;
  }
  const size_t cls = classOf(bytes);
  ASAN_POISON_MEMORY_REGION(p, kClassBytes[cls]);
  auto* object = static_cast<FreeObject*>(p);
  Cache* cache = cacheOfThread();
  if (cache == nullptr) [[unlikely]] {
    Magazine one;
    one.push(object);
    shared().depots[cls].giveLoose(one);
    return;
  }
  ClassCache& mineOfClass = cache->classes[cls];
  if (mineOfClass.loaded.count() == magazineSize(cls)) [[unlikely]] {
    makeRoom(mineOfClass, cls);
  }
  mineOfClass.loaded.push(object);
}

Stats stats() {
  Stats sum{};
  uint64_t carved = 0;
  Shared& all = shared();
  const std::lock_guard lock(all.mutex);
  for (const Cache* cache : all.caches) {
    ++sum.threadCaches;
    for (const ClassCache& cls : cache->classes) {
      sum.cachedObjects += cls.loaded.count() + cls.spare.count();
    }
  }
  for (const Depot& depot : all.depots) {
    depot.addTo(sum, carved);
  }
  const uint64_t free = sum.cachedObjects + sum.depotObjects;
  sum.liveObjects = carved > free ? carved - free : 0;
  return sum;
}

}  // namespace NySlab
