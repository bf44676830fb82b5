// What ends a command early, and the exit code that tells it.
#pragma once

#include <stdexcept>
#include <string>

namespace Sfectl {

inline constexpr int kExitOk = 0;
inline constexpr int kExitRuntime = 1;
inline constexpr int kExitUsage = 2;

// Found before anything was sent: the command line is wrong.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The daemon, the kernel or the shared memory refused.
class RuntimeError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace Sfectl
