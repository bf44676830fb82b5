// A walk over a route table that keeps the processor's memory busy. Only an entry says where the
// next one lies, so a plain walk waits for memory at each: this one goes through many parts of the
// table side by side, and then fetches what routes are made of ahead of the printing.
//
// Threads    : control, readers; RCU: online, one read side for the whole walk. A route added or
//              removed during the walk may or may not be seen.
// Cost       : memory for a key and a pointer of each route while it lasts.
// Errors     : std::bad_alloc.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

#include "SfeModules/NoCachePacketManager.h"

namespace SfeModules {

// The routes of a table, in the table's own order: part by part.
class FoundRoutes {
 public:
  using Table = NoCachePacketManager::RouteTable;

  // A route's entry stays as long as its node, so for the whole read side.
  struct Route {
    MfibKey key;
    const MfibPvSet* entry;
  };
  struct Part {
    Table::NyRcuHtIterator at;
    unsigned long end;  // the order at which the next part begins
    std::vector<Route> routes;
  };

  explicit FoundRoutes(const Table& table) {
    parts_.reserve(kParts);
    parts_.push_back({table.begin(), kNoEnd, {}});
    const auto end = table.end();
    for (uint32_t i = 1; i < kParts && !(parts_.front().at == end); ++i) {
      if (const auto start = table.near(lastBits(i)); !(start == end)) {
        addPart(start);
      }
    }
    collect(end);
  }

  const std::vector<Part>& parts() const { return parts_; }

 private:
  static constexpr unsigned kPartBits = 5;
  static constexpr uint32_t kParts = 1U << kPartBits;  // as many nodes come from memory at once
  static constexpr unsigned kLinksAhead = 2;           // most routes are no farther apart
  static constexpr unsigned long kNoEnd = std::numeric_limits<unsigned long>::max();

  // The table's order is that of the hashes with their bits reversed. Returns: the bits in which
  // the hashes end that come first in the part.
  static uint32_t lastBits(uint32_t part) {
    uint32_t bits = 0;
    for (unsigned i = 0; i < kPartBits; ++i) {
      bits |= (part >> i & 1) << (kPartBits - 1 - i);
    }
    return bits;
  }

  // Parts are added in their order; one without a start belongs to the part before it.
  void addPart(const Table::NyRcuHtIterator& start) {
    if (start.order() > parts_.back().at.order()) {
      parts_.back().end = start.order();
      parts_.push_back({start, kNoEnd, {}});
    }
  }

  static const cds_lfht_node* withoutFlags(const cds_lfht_node* link) {
    constexpr uintptr_t kFlags = alignof(cds_lfht_node) - 1;
    return reinterpret_cast<const cds_lfht_node*>(reinterpret_cast<uintptr_t>(link) & ~kFlags);
  }
  // Null at the end.
  static const cds_lfht_node* linkAfter(const cds_lfht_node* link) {
    return link == nullptr ? nullptr : withoutFlags(__atomic_load_n(&link->next, __ATOMIC_RELAXED));
  }

  // Steps through all parts in turn. Each round first reads the links that lie before its steps,
  // for all parts at once.
  void collect(const Table::NyRcuHtIterator& end) {
    std::vector<Part*> active;
    for (Part& part : parts_) {
      active.push_back(&part);
    }
    while (!active.empty()) {
      std::array<const cds_lfht_node*, kParts> links{};
      for (size_t i = 0; i < active.size(); ++i) {
        links[i] = withoutFlags(active[i]->at.link());
      }
      for (unsigned step = 0; step < kLinksAhead; ++step) {
        for (size_t i = 0; i < active.size(); ++i) {
          links[i] = linkAfter(links[i]);
        }
      }
      std::erase_if(active, [&end](Part* part) { return !advance(*part, end); });
    }
  }

  // Returns: false at the end of the part.
  static bool advance(Part& part, const Table::NyRcuHtIterator& end) {
    if (part.at == end || part.at.order() >= part.end) {
      return false;
    }
    if (const MfibPvSet* entry = part.at.value().get(); entry != nullptr) {
      part.routes.push_back({part.at.key(), entry});
    }
    ++part.at;
    return true;
  }

  std::vector<Part> parts_;
};

// Reads a value for nothing but having it in the cache. Where the address is not translated yet, a
// prefetch may be dropped; a read is not.
template <class T>
void touch(const T& value) {
  asm volatile("" ::"r"(*reinterpret_cast<const char*>(&value)));
}

// Reads the ends of all entries, so that these come from memory at once.
inline void touchEntries(std::span<const FoundRoutes::Route> routes) {
  for (const auto& [key, entry] : routes) {
    touch(entry->iif);
    touch(entry->iifFrr);
  }
  for (const auto& [key, entry] : routes) {
    if (entry->numOifs > 0) {
      touch(entry->oifs()[entry->numOifs - 1]);
      touch(entry->oifGates()[entry->numOifs - 1]);
    }
  }
}

// Calls print(const MfibKey&, const MfibPvSet&) for each route, in the table's own order.
template <class Print>
void walkRoutes(const FoundRoutes::Table& table, Print print) {
  constexpr size_t kAtOnce = 16;
  const FoundRoutes found(table);
  for (const FoundRoutes::Part& part : found.parts()) {
    std::span<const FoundRoutes::Route> left(part.routes);
    while (!left.empty()) {
      const auto routes = left.first(std::min(kAtOnce, left.size()));
      touchEntries(routes);
      for (const auto& [key, entry] : routes) {
        print(key, *entry);
      }
      left = left.subspan(routes.size());
    }
  }
}

}  // namespace SfeModules
