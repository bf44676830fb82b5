// A walk over a route table that keeps the processor's memory busy: what each route is made of
// comes from memory while the others are looked at.
//
// Threads    : control, readers; RCU: online, one read side for the whole walk. A route added or
//              removed during the walk may or may not be seen.
#pragma once

#include <array>
#include <cstddef>

#include "SfeModules/NoCachePacketManager.h"

namespace SfeModules {

// The routes between the walk and the printing: each comes a step closer with each route that is
// found. A route's entry stays as long as its node, so for the whole read side.
template <class Print>
class RoutePipeline {
 public:
  explicit RoutePipeline(Print& print) : print_(print) {}

  void push(const MfibKey& key, const std::shared_ptr<MfibPvSet>& entry) {
    __builtin_prefetch(&entry);
    slots_[found_++ % kSlots] = {&key, &entry};
    advance();
  }

  void drain() {
    for (size_t i = 0; i < kSlots; ++i) {
      ++found_;
      advance();
    }
  }

 private:
  static constexpr size_t kSlots = 32;  // more than the last stage
  static constexpr size_t kEntryStage = 6;
  static constexpr size_t kOifsStage = 12;
  static constexpr size_t kPrintStage = 18;
  struct Slot {
    const MfibKey* key = nullptr;
    const std::shared_ptr<MfibPvSet>* entry = nullptr;
    const MfibPvSet* get() const { return entry != nullptr ? entry->get() : nullptr; }
  };

  // The route that was found so many routes before the last one.
  Slot& at(size_t stage) { return slots_[(found_ + kSlots - 1 - stage) % kSlots]; }

  void advance() {
    if (const MfibPvSet* entry = at(kEntryStage).get(); entry != nullptr) {
      __builtin_prefetch(entry);
      __builtin_prefetch(reinterpret_cast<const char*>(entry + 1) - 1);  // it spans two lines
    }
    if (const MfibPvSet* entry = at(kOifsStage).get(); entry != nullptr) {
      __builtin_prefetch(entry->oifs);
      __builtin_prefetch(entry->oifGates);
    }
    Slot& last = at(kPrintStage);
    if (const MfibPvSet* entry = last.get(); entry != nullptr) {
      print_(*last.key, *entry);
    }
    last = {};
  }

  Print& print_;
  std::array<Slot, kSlots> slots_;
  size_t found_ = 0;
};

// Calls print(const MfibKey&, const MfibPvSet&) for each route, in the table's own order.
template <class Print>
void walkRoutes(const NoCachePacketManager::RouteTable& routes, Print print) {
  RoutePipeline<Print> pipeline(print);
  const auto end = routes.end();
  for (auto it = routes.begin(); !(it == end); ++it) {
    it.prefetchNext();
    pipeline.push(it.key(), it.value());
  }
  pipeline.drain();
}

}  // namespace SfeModules
