// The metrics of the modules: whatever module shows a state "metrics" offers them, as a table with
// the columns type, name, help, labels and value. Labels are key="value", separated by commas
// (\ stands before a quote or another \ within the value); each sample gets the module's name as
// one more label.
//
// Threads    : addStateMetrics on any; addModuleMetrics on control, while workers forward.
// Errors     : a line that is none is left out and counted; a table without these columns has no
// lines.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "bessd/MetricFamilies.h"

namespace Bessd {

inline constexpr const char* kMetricsState = "metrics";

struct StateMetricsResult {
  size_t taken = 0;
  size_t refused = 0;
  std::string firstRefused;  // what was refused first, for people
};

StateMetricsResult addStateMetrics(const std::string& module,
                                   std::string_view table,
                                   MetricFamilies* families);

// Those of every module in the graph. `argument` goes to each of them. A module that fails is left
// out and logged, and bessd_module_metrics_success says which.
void addModuleMetrics(const std::string& argument, MetricFamilies* families);

}  // namespace Bessd
