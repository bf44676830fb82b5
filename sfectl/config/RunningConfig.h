// The configuration that a running daemon has.
//
// What no configuration can say (modules and ports that were made by hand for something else) is
// left out; makePlan() leaves it alone. Invariants :
//   (1) makePlan(configOf(running), running) is empty when every part of the graph is there.
#pragma once

#include "sfectl/config/Config.h"
#include "sfectl/config/Running.h"

namespace Sfectl {

Config configOf(const Running& running);

}  // namespace Sfectl
