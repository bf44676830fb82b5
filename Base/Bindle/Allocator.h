// Bindle::Allocator<T>: what the containers of this room take their memory from, the slab
// allocator.
#pragma once

#include "Base/NySlab/NySlab.h"

namespace Bindle {

template <class T>
class Allocator : public NySlab::StdAllocator<T> {
 public:
  using value_type = T;

  template <class U>
  struct rebind {                // NOLINT(readability-identifier-naming): the standard's name
    using other = Allocator<U>;  // NOLINT(readability-identifier-naming)
  };

  constexpr Allocator() noexcept = default;
  template <class U>
  // NOLINTNEXTLINE(google-explicit-constructor)
  constexpr Allocator(const Allocator<U>& /*other*/) noexcept {}
};

template <class T, class U>
constexpr bool operator==(const Allocator<T>& /*a*/, const Allocator<U>& /*b*/) noexcept {
  return true;
}

}  // namespace Bindle
