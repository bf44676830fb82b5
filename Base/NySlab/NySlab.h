// A slab allocator with a cache per thread, for small objects that come and go on the packet path.
//
// Threads    : any; what one thread takes another may give back. The fast path touches the thread's
// own cache
//              only: no lock, no atomic read-modify-write. About one call in a magazine (4..64
//              objects) moves a whole magazine to or from the depot under a lock that is held for a
//              few instructions; new slabs are taken from the heap there, where one call in 2 MiB
//              of objects waits for a large page.
// Ownership  : the caller keeps the size and gives it back with the object.
// Errors     : std::bad_alloc when the heap is exhausted.
// Cost       : fast path like a free-list push or pop. A thread caches at most two magazines of
// each size.
//              Slabs stay with the allocator until the process ends and serve every thread.
// Invariants :
//   (1) memory is aligned for every type with alignof <= 16.
//       Up to kMaxSlabBytes, a size of whole cache lines, of 64 bytes, begins with one.
//   (2) a size above kMaxSlabBytes goes to the heap and back.
//   (3) the cache of a thread that ended is in the depot: nothing stays behind.
// In an address sanitizer build free objects are poisoned.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <new>

namespace NySlab {

inline constexpr size_t kMaxSlabBytes = 4096;
inline constexpr size_t kAlignment = 16;

[[nodiscard]] void* slabAlloc(size_t bytes);

// Requires: `p` came from slabAlloc(bytes) with the same `bytes`, or is null.
void slabFree(void* p, size_t bytes) noexcept;

// A look at the whole allocator; exact when no other thread is inside it.
struct Stats {
  uint64_t slabBytes;      // taken from the heap for slabs
  uint64_t liveObjects;    // taken and not given back, those beyond kMaxSlabBytes left out
  uint64_t cachedObjects;  // free, in thread caches
  uint64_t depotObjects;   // free, in the depot
  uint64_t threadCaches;
};
Stats stats();

// The standard allocator interface. Over-aligned types go to the heap.
template <class T>
class StdAllocator {
 public:
  using value_type = T;  // the standard's name

  constexpr StdAllocator() noexcept = default;
  template <class U>
  // NOLINTNEXTLINE(google-explicit-constructor)
  constexpr StdAllocator(const StdAllocator<U>& /*other*/) noexcept {}

  [[nodiscard]] T* allocate(size_t n) {
    if (n > std::numeric_limits<size_t>::max() / sizeof(T)) {
      throw std::bad_array_new_length();
    }
    if constexpr (alignof(T) > kAlignment) {
      return static_cast<T*>(::operator new(n * sizeof(T), std::align_val_t(alignof(T))));
    } else {
      return static_cast<T*>(slabAlloc(n * sizeof(T)));
    }
  }

  void deallocate(T* p, size_t n) noexcept {
    if constexpr (alignof(T) > kAlignment) {
      ::operator delete(p, std::align_val_t(alignof(T)));
    } else {
      slabFree(p, n * sizeof(T));
    }
  }
};

template <class T, class U>
constexpr bool operator==(const StdAllocator<T>& /*a*/, const StdAllocator<U>& /*b*/) noexcept {
  return true;
}

// Mixin: `new` and `delete` of a class that derives from it use the slab allocator.
// Requires: deleted as its own type or through a virtual destructor.
struct SlabObject {
  static void* operator new(size_t bytes) { return slabAlloc(bytes); }
  static void operator delete(void* p, size_t bytes) noexcept { slabFree(p, bytes); }

  static void* operator new(size_t bytes, std::align_val_t align) {
    return ::operator new(bytes, align);
  }
  static void operator delete(void* p, size_t /*bytes*/, std::align_val_t align) noexcept {
    ::operator delete(p, align);
  }

  static void* operator new(size_t /*bytes*/, void* at) noexcept { return at; }
  static void operator delete(void* /*p*/, void* /*at*/) noexcept {}
};

}  // namespace NySlab
