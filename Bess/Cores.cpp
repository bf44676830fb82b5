#include "Bess/Cores.h"

namespace bess {
namespace {

cpu_set_t affinityOfCaller() {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (sched_getaffinity(0, sizeof(set), &set) != 0) {
    CPU_SET(0, &set);
  }
  return set;
}

// Before main, so before anything pins the main thread.
[[maybe_unused]] const cpu_set_t& takenAtLoad = usableCoreSet();

}  // namespace

const cpu_set_t& usableCoreSet() {
  static const cpu_set_t kSet = affinityOfCaller();
  return kSet;
}

std::vector<int> usableCores() {
  std::vector<int> cores;
  for (int core = 0; core < CPU_SETSIZE; core++) {
    if (CPU_ISSET(core, &usableCoreSet())) {
      cores.push_back(core);
    }
  }
  return cores;
}

}  // namespace bess
