// Tells the sanitizers what the RCU library guarantees; compiles to nothing without them.
//
// The library is not built with a sanitizer, so ThreadSanitizer sees neither that a published node
// is complete when a reader finds it, nor that a grace period lies between the last reader and the
// reclaimer. Each macro names one of these edges, and only these: a race that RCU does not exclude
// is still reported.
//
//   SFE_RCU_PUBLISH(node)      writer   : right before the call that makes `node` reachable
//   SFE_RCU_DEREFERENCE(node)  reader   : right after a look-up returned `node` (null is ignored);
//                                         also by a writer that looks a node up
//   SFE_RCU_QUIESCENT()        reader   : right before a quiescent state, before going offline and
//                                         before unregistering
//   SFE_RCU_RETIRE(node)       writer   : right before call_rcu for the unlinked `node`
//   SFE_RCU_RECLAIM(node)      reclaimer: first thing in the call_rcu callback, or after
//                                         synchronize_rcu, before `node` is destroyed
//
// Invariants:
//   (1) everything done before PUBLISH(n) happens before everything after DEREFERENCE(n).
//   (2) everything done before RETIRE(n) happens before everything after RECLAIM(n).
//   (3) everything a reader did before any earlier QUIESCENT() happens before what follows RECLAIM.
//   (4) edges of two different nodes are separate, except (3), which is one object per process.
//
// SFE_ASAN_POISON(p, n) and SFE_ASAN_UNPOISON(p, n) make memory that an own allocator holds back
// as unusable to AddressSanitizer as freed heap memory, and usable again.
#pragma once

#include <cstddef>

#if defined(__SANITIZE_THREAD__)
#define SFE_WITH_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define SFE_WITH_TSAN 1
#endif
#endif

#if defined(__SANITIZE_ADDRESS__)
#define SFE_WITH_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SFE_WITH_ASAN 1
#endif
#endif

#if defined(SFE_WITH_TSAN)

extern "C" void __tsan_acquire(void* addr);
extern "C" void __tsan_release(void* addr);

namespace RcuAnnotate {
inline char quiescentStates = 0;  // stands for "all quiescent states of all readers"
inline void release(const void* p) {
  __tsan_release(const_cast<void*>(p));
}
inline void acquire(const void* p) {
  if (p != nullptr) {
    __tsan_acquire(const_cast<void*>(p));
  }
}
}  // namespace RcuAnnotate

#define SFE_RCU_PUBLISH(node) ::RcuAnnotate::release(node)
#define SFE_RCU_DEREFERENCE(node) ::RcuAnnotate::acquire(node)
#define SFE_RCU_QUIESCENT() ::RcuAnnotate::release(&::RcuAnnotate::quiescentStates)
#define SFE_RCU_RETIRE(node) ::RcuAnnotate::release(node)
#define SFE_RCU_RECLAIM(node) \
  (::RcuAnnotate::acquire(node), ::RcuAnnotate::acquire(&::RcuAnnotate::quiescentStates))

#else

#define SFE_RCU_PUBLISH(node) static_cast<void>(node)
#define SFE_RCU_DEREFERENCE(node) static_cast<void>(node)
#define SFE_RCU_QUIESCENT() static_cast<void>(0)
#define SFE_RCU_RETIRE(node) static_cast<void>(node)
#define SFE_RCU_RECLAIM(node) static_cast<void>(node)

#endif

#if defined(SFE_WITH_ASAN)
#include <sanitizer/asan_interface.h>
#define SFE_ASAN_POISON(p, n) __asan_poison_memory_region((p), (n))
#define SFE_ASAN_UNPOISON(p, n) __asan_unpoison_memory_region((p), (n))
#else
#define SFE_ASAN_POISON(p, n) (static_cast<void>(p), static_cast<void>(n))
#define SFE_ASAN_UNPOISON(p, n) (static_cast<void>(p), static_cast<void>(n))
#endif
