#include <glog/logging.h>

#include <exception>

#include "Bess/LogLimit.h"
#include "Bess/Module.h"
#include "Bess/ModuleGraph.h"
#include "bessd/StateMetrics.h"

namespace Bessd {
namespace {

void complain(const std::string& module, const std::string& what) {
  static bess::LogLimit limit;
  uint64_t dropped = 0;
  if (limit.admit(&dropped)) {
    LOG(WARNING) << "metrics of module " << module << ": " << what;
  }
}

bool addMetrics(const Module& module,
                const bess::State& state,
                const std::string& argument,
                MetricFamilies* families) {
  try {
    const StateMetricsResult result =
        addStateMetrics(module.name(), state.text(argument), families);
    if (result.refused != 0) {
      complain(module.name(), std::to_string(result.refused) +
                                  " lines are none, the first is: " + result.firstRefused);
    }
    return result.refused == 0;
  } catch (const std::exception& error) {
    complain(module.name(), error.what());
    return false;
  }
}

}  // namespace

void addModuleMetrics(const std::string& argument, MetricFamilies* families) {
  for (const Module* module : ModuleGraph::modules()) {
    const bess::State* state = bess::findState(module->states(), kMetricsState);
    if (state != nullptr) {
      const bool good = addMetrics(*module, *state, argument, families);
      families->gauge(
          {"bessd_module_metrics_success", "1 when all metrics of the module were read"},
          {{"module", module->name()}}, good ? 1 : 0);
    }
  }
}

}  // namespace Bessd
