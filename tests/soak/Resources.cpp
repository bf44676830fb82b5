#include "tests/soak/Resources.h"

#include <malloc.h>
#include <rte_malloc.h>
#include <rte_memory.h>
#include <urcu-qsbr.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "Base/RcuAnnotate.h"
#include "Bess/PacketPool.h"
#include "tests/soak/Isolation.h"

#if defined(SFE_WITH_ASAN) || defined(SFE_WITH_TSAN)
extern "C" size_t __sanitizer_get_current_allocated_bytes();  // NOLINT: the sanitizers' name
#endif

namespace soak {

namespace {

size_t heapInUse() {
#if defined(SFE_WITH_ASAN) || defined(SFE_WITH_TSAN)
  return __sanitizer_get_current_allocated_bytes();
#else
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
#endif
}

size_t dpdkInUse() {
  size_t sum = 0;
  for (int socket = 0; socket < RTE_MAX_NUMA_NODES; ++socket) {
    rte_malloc_socket_stats stats{};
    if (rte_malloc_get_socket_stats(socket, &stats) == 0) {
      sum += stats.heap_allocsz_bytes;
    }
  }
  return sum;
}

size_t entriesOf(const std::string& directory, const std::string& prefix = "") {
  size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    count += entry.path().filename().string().rfind(prefix, 0) == 0 ? 1 : 0;
  }
  return count;
}

size_t linesOf(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  size_t count = 0;
  while (std::getline(file, line)) {
    ++count;
  }
  return count;
}

}  // namespace

Resources Resources::now() {
  SFE_RCU_QUIESCENT();
  urcu_qsbr_barrier();
  Resources found;
  found.threads = entriesOf("/proc/self/task");
  found.fileDescriptors = entriesOf("/proc/self/fd");
  found.sharedObjects = entriesOf("/dev/shm", "sfe." + systemName());
  found.netlinkSockets = linesOf("/proc/thread-self/net/netlink");
  found.packets = bess::PacketPool::defaultPool()->inUse();
  found.dpdkBytes = dpdkInUse();
  found.heapBytes = heapInUse();
  return found;
}

std::string Resources::text() const {
  std::ostringstream out;
  out << "DPDK " << dpdkBytes << ", heap " << heapBytes << ", threads " << threads << ", files "
      << fileDescriptors << ", shared objects " << sharedObjects << ", netlink sockets "
      << netlinkSockets << ", packets " << packets;
  return out.str();
}

}  // namespace soak
