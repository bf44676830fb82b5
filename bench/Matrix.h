// The cost of forwarding for every size, fan-out, table size, family and header mode that was asked
// for, beside its two floors: the copies alone, and the graph without the module.
#pragma once

#include <vector>

#include "bench/Options.h"
#include "bench/Report.h"

namespace bench {

// Requires: a rig with one worker.
std::vector<Row> runMatrix(const Options& options);

}  // namespace bench
