// Bindle::UnorderedMapTransient: a hash map that lives for one call; its nodes come from the
// thread's slab cache.
#pragma once

#include <functional>
#include <unordered_map>
#include <utility>

#include "Base/Bindle/Allocator.h"

namespace Bindle {

template <class K, class V, class H = std::hash<K>, class E = std::equal_to<K>>
using UnorderedMapTransient = std::unordered_map<K, V, H, E, Allocator<std::pair<const K, V>>>;

}  // namespace Bindle
