// What happens beside plain forwarding, each with its cost: floods that end in a drop, the (*,G)
// entry, Register messages, re-injection, two workers.
#pragma once

#include <vector>

#include "bench/Options.h"
#include "bench/Report.h"

namespace bench {

// Requires: a rig with one worker; with two for the last.
std::vector<Row> runScenarios(const Options& options);
std::vector<Row> runTwoWorkers(const Options& options);

}  // namespace bench
