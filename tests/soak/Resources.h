// What a process holds of each kind of thing that a life of the module takes: for "is it back".
#pragma once

#include <cstddef>
#include <string>

#include "Base/RcuAnnotate.h"

namespace soak {

// What the module's node memory may keep back after it was freed: AddressSanitizer builds fill a
// ring of blocks before the first one goes.
#if defined(SFE_WITH_ASAN)
inline constexpr size_t kHeldBackBytes = 512 * 256;
#else
inline constexpr size_t kHeldBackBytes = 0;
#endif

struct Resources {
  size_t dpdkBytes = 0;  // allocated by rte_malloc, on all sockets
  size_t heapBytes = 0;  // allocated by malloc, in all arenas
  size_t threads = 0;
  size_t fileDescriptors = 0;
  size_t sharedObjects = 0;   // of this test, under /dev/shm
  size_t netlinkSockets = 0;  // in the test's network namespace
  unsigned packets = 0;       // out of the default pool

  // RCU: waits for every pending callback; the calling thread is a registered reader.
  static Resources now();
  std::string text() const;
};

}  // namespace soak
