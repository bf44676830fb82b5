// Flit::Points: the descriptions of all trace points, by number. They are copies and stay until the
// process ends.
//
// Threads    : any; each call takes a lock.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "Base/Flit/Flit.h"

namespace Flit {

struct Point {
  std::string signature;
  int level = 0;
  std::vector<std::string> labels;
  std::vector<ArgKind> kinds;

  // Returns: "signature: message". Words that do not fit the description end the message.
  std::string text(std::span<const uint64_t> words) const;

  auto operator<=>(const Point&) const = default;
};

class Points {
 public:
  static Points& instance();

  // Requires: as registerPoint().
  uint32_t add(const PointInfo& info);
  // Returns: the description, valid for ever; null for a number that was never given.
  const Point* find(uint32_t number) const;

 private:
  mutable std::mutex mutex_;
  std::deque<Point> points_;            // guarded by mutex_; elements never change
  std::map<Point, uint32_t> numberOf_;  // guarded by mutex_
};

}  // namespace Flit
