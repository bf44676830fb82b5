#include "Routing/Multicast/Notify/AllocationCount.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace {
thread_local uint64_t allocations = 0;
}  // namespace

// Together these are every form for types that are not over-aligned: a sanitizer lets nobody mix
// them with its own.
void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
  ++allocations;
  return std::malloc(size == 0 ? 1 : size);
}

void* operator new(size_t size) {
  if (void* memory = operator new(size, std::nothrow)) {
    return memory;
  }
  throw std::bad_alloc();
}

void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept {
  std::free(memory);
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}

void operator delete(void* memory, size_t /*size*/) noexcept {
  std::free(memory);
}

void* operator new[](size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return operator new(size, std::nothrow);
}

void* operator new[](size_t size) {
  return operator new(size);
}

void operator delete[](void* memory) noexcept {
  operator delete(memory);
}

void operator delete[](void* memory, size_t size) noexcept {
  operator delete(memory, size);
}

void operator delete[](void* memory, const std::nothrow_t& /*tag*/) noexcept {
  operator delete(memory);
}

uint64_t NotifyTest::allocationsOfThisThread() {
  return allocations;
}
