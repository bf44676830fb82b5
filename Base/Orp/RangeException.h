// Orp::RangeException: a value is outside what its type may hold.
#pragma once

#include <stdexcept>

namespace Orp {

class RangeException : public std::out_of_range {
 public:
  using std::out_of_range::out_of_range;
};

}  // namespace Orp
