// What a daemon has to change to become what a configuration says.
//
// The packet graph that follows from a configuration:
//
//   rx.PORT -> in -> mfib4[.VRF], mfib6[.VRF] (gate 1) -> out -> tx.PORT
//              in (packets for the host), mfib gate 0 -> sink
//
// What stays: a module of any other name was made by hand and is never removed; where one stands
// for a part of the graph already (a PortInc of the port, a Mfib of the VRF), it is used. A gate
// that leads to a module that is no part of the graph stays as it is. A worker that runs a task of
// such a module stays. A port without rx.PORT and tx.PORT that the file does not have stays.
//
// Invariants :
//   (1) the steps of a daemon that is as the configuration says are none.
//   (2) no step touches a route, an interface, a port or a module that is the same before and
//   after.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "sfectl/config/Config.h"
#include "sfectl/config/Plan.h"
#include "sfectl/config/Running.h"

namespace Sfectl {

// Errors: RuntimeError when the configuration cannot become true, such as a worker on another core.
Plan makePlan(const Config& config, Running running);

// The daemon knows a toggle when a module has asked for it, so that some are known only after the
// steps. Returns: those that are not known. Errors: RuntimeError for those that are otherwise.
std::vector<std::string> checkToggles(const Config& config,
                                      const std::map<std::string, bool>& toggles);

}  // namespace Sfectl
