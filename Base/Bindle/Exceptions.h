// What the containers report about memory that others may have damaged.
#pragma once

#include <stdexcept>

namespace Bindle {

// A record fails its own checks. what() says which record and why.
class CorruptionDetectedException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace Bindle
