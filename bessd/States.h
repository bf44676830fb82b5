// What the daemon itself shows (Bess/State.h).
//
//   trace    time_ns thread level function text   the ring trace of all threads in time order;
//   takes
//                                                 "[level=N] [function=TEXT] [count=N]"
//   toggles  owner name value                     feature toggles that were asked for
//
// Threads    : the texts on the control thread; writers of traces never wait for it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Bess/State.h"

namespace Bessd {

std::vector<bess::State> ownStates();

// The qualified name of a function, of its signature as the compiler writes it.
std::string_view functionName(std::string_view signature);

}  // namespace Bessd
