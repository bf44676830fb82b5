// The text of an instance's route table, as the state file system shows it: ten lines a route, in
// the table's own order.
//
// Threads    : readers; RCU: online. A route added or removed during the walk may or may not
// appear. Cost       : one allocation for the text, about 0.2 us a route.
#pragma once

#include <functional>
#include <string>

namespace SfeModules {

class Mfib;

// `af` selects the address format (addrArrayToStr).
std::string getMroutes(Mfib* mfib, unsigned int af);

// Requires: `mfib` outlives the closure.
std::function<std::string()> vrfAfClosureGetMroutes(Mfib* mfib, unsigned int af);

}  // namespace SfeModules
