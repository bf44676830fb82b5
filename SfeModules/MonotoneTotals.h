// Totals that never fall, made of counts that may begin again: the count of a worker that is gone,
// of an interface that was removed and added again.
//
// Threads    : one.
// Invariants :
//   (1) total() of one key never falls, and grows by what the count grew.
#pragma once

#include <cstdint>
#include <map>
#include <utility>

namespace SfeModules {

class MonotoneTotals {
 public:
  using Key = std::pair<uint64_t, uint64_t>;

  // The total of `key`, whose count is `now`. A count below the last one began again from 0.
  uint64_t total(const Key& key, uint64_t now) {
    if (now == 0 && !counts_.contains(key)) {
      return 0;
    }
    Count& count = counts_[key];
    if (now < count.last) {
      count.before += count.last;
    }
    count.last = now;
    return count.before + now;
  }

 private:
  struct Count {
    uint64_t before = 0;
    uint64_t last = 0;
  };
  std::map<Key, Count> counts_;
};

}  // namespace SfeModules
