// What the host framework counts, as metrics: build, workers, packet buffers,
// ports, modules, tasks, event counters, RCU, and the process itself. Knows nothing of what the
// modules do.
//
// Threads    : control only, while workers forward: everything read is made for that.
#pragma once

#include "bessd/EventCounters.h"
#include "bessd/MetricFamilies.h"

namespace Bessd {

void addFrameworkMetrics(const EventCounters& counters, MetricFamilies* families);

}  // namespace Bessd
