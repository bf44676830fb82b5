#include "sfectl/config/Differ.h"

#include "sfectl/Client.h"
#include "sfectl/Errors.h"
#include "sfectl/config/DifferSteps.h"
#include "sfectl/config/GraphDiffer.h"
#include "sfectl/config/RouteDiffer.h"
#include "sfectl/config/TaskDiffer.h"

namespace Sfectl {
namespace {

using Stub = Client::Stub;

struct PluginOf {
  const char* className;
  const char* file;
};
constexpr PluginOf kPlugins[] = {{"IntfIn", "libSfeIntf.so"}, {"Mfib", "libMfib.so"}};

void loadPlugins(DifferSteps& steps) {
  for (const PluginOf& plugin : kPlugins) {
    if (steps.now.classes.contains(plugin.className)) {
      continue;
    }
    bess::pb::PluginRequest request;
    request.set_path(plugin.file);
    steps.add(Change::kAdd, "plug-in", plugin.file, "", [request](Executor& executor) {
      executor.client().call(&Stub::LoadPlugin, request);
    });
  }
}

void settings(const Config& config, DifferSteps& steps) {
  if (!config.publishPeriod.has_value() || config.publishPeriod == steps.now.publishPeriod) {
    return;
  }
  bess::pb::Settings wanted;
  wanted.set_publish_period_ms(*config.publishPeriod);
  const auto& now = steps.now.publishPeriod;
  steps.add(Change::kChange, "publication period", std::to_string(*config.publishPeriod) + " ms",
            now.has_value() ? "from " + std::to_string(*now) + " ms" : "",
            [wanted](Executor& executor) { executor.client().call(&Stub::SetSettings, wanted); });
}

// The part of a plan that another part may be based on comes first; what is in the way goes before
// what takes its place, and packets come in when everything behind is there.
Plan orderedSteps(const Config& config, Running running) {
  DifferSteps steps(std::move(running));
  loadPlugins(steps);
  settings(config, steps);
  TaskDiffer tasks(config, steps);
  tasks.addWorkers();
  GraphDiffer graph(config, steps);
  RouteDiffer routes(config, steps);
  routes.remove();
  graph.remove();
  graph.add();
  routes.add();
  tasks.attach();
  tasks.removeWorkers();
  return std::move(steps.plan);
}

}  // namespace

// Toggles are read when the daemon starts: a file can ask for them, not set them.
std::vector<std::string> checkToggles(const Config& config,
                                      const std::map<std::string, bool>& toggles) {
  std::vector<std::string> unknown;
  std::string wrong;
  for (const auto& [name, wanted] : config.toggles) {
    const auto found = toggles.find(name);
    if (found == toggles.end()) {
      unknown.push_back(name);
    } else if (found->second != wanted) {
      wrong += (wrong.empty() ? "toggle " : "\ntoggle ") + printable(name) + " is " +
               (found->second ? "on" : "off") + " in the daemon and the file says " +
               (wanted ? "true" : "false") +
               "; toggles are read when the daemon starts: change the file in its toggle "
               "directory and start it again";
    }
  }
  if (!wrong.empty()) {
    throw RuntimeError(wrong);
  }
  return unknown;
}

Plan makePlan(const Config& config, Running running) {
  return orderedSteps(config, std::move(running));
}

}  // namespace Sfectl
