// What a soak test needs of its process: a network and mount namespace of its own (as root), a
// system name of its own for shared memory, and a control thread that is a well-behaved RCU reader.
#pragma once

#include <urcu-qsbr.h>

#include <chrono>
#include <functional>
#include <string>

#include "Base/RcuAnnotate.h"

namespace soak {

// The system name under which the test's shared memory lives.
std::string systemName();

// Returns: the value of an environment variable, `fallback` when it is absent or no number.
unsigned setting(const char* name, unsigned fallback);

// While it lives the calling thread, a registered reader, delays no grace period.
class ScopedOffline {
 public:
  ScopedOffline() {
    SFE_RCU_QUIESCENT();
    urcu_qsbr_thread_offline();
  }
  ~ScopedOffline() { urcu_qsbr_thread_online(); }
  ScopedOffline(const ScopedOffline&) = delete;
  ScopedOffline& operator=(const ScopedOffline&) = delete;
};

// Waits until `condition` holds; it is asked online. Returns: false when `patience` is over.
bool await(const std::function<bool()>& condition, std::chrono::seconds patience);

}  // namespace soak
