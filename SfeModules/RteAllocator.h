// Dpdk::RteAllocator<T>: zero-filled, cache-line aligned memory for T from the DPDK heap.
//
// Threads    : any; the DPDK heap has its own lock.
// Ownership  : the caller constructs in the memory and destroys before it gives the memory back.
// Errors     : an exhausted heap stops the process (assertion in allocate()).
// Invariants :
//   (1) with AddressSanitizer, memory given back is unusable until DPDK hands it out again: the
//       last kHeldBack blocks are kept, poisoned, before rte_free gets them.
#pragma once

#include <rte_malloc.h>

#include <cstddef>
#include <string>
#include <type_traits>
#include <utility>

#include "Base/RcuAnnotate.h"
#include "SfeModules/Assert.h"

#if defined(SFE_WITH_ASAN)
#include <array>
#include <mutex>
#endif

#if defined(SFE_WITH_TSAN)
extern "C" void AnnotateIgnoreReadsBegin(const char* file, int line);
extern "C" void AnnotateIgnoreReadsEnd(const char* file, int line);
extern "C" void AnnotateIgnoreWritesBegin(const char* file, int line);
extern "C" void AnnotateIgnoreWritesEnd(const char* file, int line);
#endif

namespace Dpdk {
namespace Detail {

// The heap's lock orders a block's last use before its next one; DPDK is not built with a
// sanitizer, so ThreadSanitizer is told. Its clearing of freed memory is the heap's own business.
struct HeapCall {
#if defined(SFE_WITH_TSAN)
  static inline char lock = 0;  // stands for the heap's lock
  HeapCall() {
    SFE_RCU_PUBLISH(&lock);
    AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
    AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
  }
  ~HeapCall() {
    AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
    AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
    SFE_RCU_DEREFERENCE(&lock);
  }
#else
  // User-provided, so that an object of this type counts as used.
  HeapCall() {}   // NOLINT(modernize-use-equals-default)
  ~HeapCall() {}  // NOLINT(modernize-use-equals-default)
#endif
  HeapCall(const HeapCall&) = delete;
  HeapCall& operator=(const HeapCall&) = delete;
};

#if defined(SFE_WITH_ASAN)
// Freed blocks on their way to rte_free. DPDK reuses the inside of freed memory for its own
// headers, so a block is made usable again before it goes.
class HeldBackBlocks {
 public:
  static constexpr size_t kHeldBack = 512;

  static void add(void* block, size_t bytes) {
    static constinit HeldBackBlocks
        blocks;  // needs no destruction: outlives every thread that frees
    static_assert(std::is_trivially_destructible_v<HeldBackBlocks>);
    SFE_ASAN_POISON(block, bytes);
    auto [oldest, oldestBytes] = blocks.swapOldest(block, bytes);
    if (oldest != nullptr) {
      SFE_ASAN_UNPOISON(oldest, oldestBytes);
      rte_free(oldest);
    }
  }

 private:
  using Block = std::pair<void*, size_t>;

  Block swapOldest(void* block, size_t bytes) {
    std::lock_guard guard(mutex_);
    Block oldest = std::exchange(ring_[next_], Block(block, bytes));
    next_ = (next_ + 1) % kHeldBack;
    return oldest;
  }

  std::mutex mutex_;
  std::array<Block, kHeldBack> ring_{};
  size_t next_ = 0;
};
#endif

}  // namespace Detail

// alignSizeOverride: alignment in bytes, a power of two; 0 means one cache line.
template <class T, size_t alignSizeOverride>
class RteAllocator {
 public:
  using value_type = T;
  static constexpr size_t kAlignment = alignSizeOverride != 0 ? alignSizeOverride : 64;
  static_assert((kAlignment & (kAlignment - 1)) == 0, "an alignment is a power of two");
  static_assert(kAlignment >= alignof(T), "the alignment is too small for the type");

  // `typeName` names the memory's purpose to DPDK.
  explicit RteAllocator(std::string typeName = "RTE") : typeName_(std::move(typeName)) {}

  // Returns: zero-filled memory for `n` objects; never null.
  T* allocate(size_t n) {
    void* memory = nullptr;
    {
      Detail::HeapCall call;
      memory = rte_zmalloc(typeName_.c_str(), n * sizeof(T), kAlignment);
    }
    SFE_ASSERT(memory != nullptr);
    return static_cast<T*>(memory);
  }

  // Requires: `memory` came from allocate(n) and its objects are destroyed. Null is ignored.
  static void deallocate(T* memory, size_t n) {
    if (memory == nullptr) {
      return;
    }
#if defined(SFE_WITH_ASAN)
    Detail::HeldBackBlocks::add(memory, n * sizeof(T));
#else
    static_cast<void>(n);
    Detail::HeapCall call;
    rte_free(memory);
#endif
  }

  const std::string& typeName() const {
    return typeName_;
  }

 private:
  std::string typeName_;
};

}  // namespace Dpdk
