// A walk over a route table that keeps the processor's memory busy: what each route is made of
// comes from memory while the others are looked at.
//
// Threads    : control, readers; RCU: online, one read side for the whole walk. A route added or
//              removed during the walk may or may not be seen.
#pragma once

#include <array>
#include <cstddef>
#include <memory>

#include "SfeModules/NoCachePacketManager.h"

namespace SfeModules {

// Calls print(const MfibKey&, const MfibPvSet&) for each route, in the table's own order.
template <class Print>
class RouteGroup {
 public:
  explicit RouteGroup(Print& print) : print_(print) {}

  bool full() const { return count_ == kRoutes; }

  void add(const MfibKey& key, const std::shared_ptr<MfibPvSet>& entry) {
    keys_[count_] = &key;
    values_[count_] = &entry;
    __builtin_prefetch(&entry);
    ++count_;
  }

  void flush() {
    for (size_t i = 0; i < count_; ++i) {
      __builtin_prefetch(values_[i]->get());
    }
    for (size_t i = 0; i < count_; ++i) {
      entries_[i] = *values_[i];  // holds the entry while it is printed
      if (entries_[i] != nullptr) {
        __builtin_prefetch(entries_[i]->oifs.get());
        __builtin_prefetch(entries_[i]->oifGates.get());
      }
    }
    for (size_t i = 0; i < count_; ++i) {
      if (entries_[i] != nullptr) {
        print_(*keys_[i], *entries_[i]);
      }
      entries_[i] = nullptr;
    }
    count_ = 0;
  }

 private:
  static constexpr size_t kRoutes = 32;
  Print& print_;
  std::array<const MfibKey*, kRoutes> keys_{};
  std::array<const std::shared_ptr<MfibPvSet>*, kRoutes> values_{};
  std::array<std::shared_ptr<MfibPvSet>, kRoutes> entries_;
  size_t count_ = 0;
};

template <class Print>
void walkRoutes(const NoCachePacketManager::RouteTable& routes, Print print) {
  RouteGroup<Print> group(print);
  for (auto it = routes.begin(); it != routes.end(); ++it) {
    if (group.full()) {
      group.flush();
    }
    group.add(it.key(), it.value());
  }
  group.flush();
}

}  // namespace SfeModules
