// The processor cores that the process may use.
//
// Threads    : any. Taken once, when the library is loaded: a thread that was pinned later does not
//              change the answer.
#pragma once

#include <sched.h>

#include <vector>

namespace bess {

const cpu_set_t& usableCoreSet();
std::vector<int> usableCores();  // ascending

}  // namespace bess
