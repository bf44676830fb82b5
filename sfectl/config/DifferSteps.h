// The steps a plan is made of, and the change that each makes to the copy of the running state.
#pragma once

#include <string>
#include <utility>

#include "sfectl/config/Plan.h"
#include "sfectl/config/Running.h"

namespace Sfectl {

class DifferSteps {
 public:
  explicit DifferSteps(Running running) : now(std::move(running)) {}

  void add(Change change,
           std::string kind,
           std::string name,
           std::string detail,
           std::function<void(Executor&)> run) {
    plan.steps.push_back({change, std::move(kind), std::move(name), std::move(detail),
                          std::move(run), std::nullopt});
  }
  void command(Step step,
               const std::string& module,
               const std::string& command,
               const google::protobuf::Message& arg);

  void removeModule(const std::string& name);
  void addModule(const std::string& className,
                 const std::string& name,
                 const google::protobuf::Message& arg,
                 const std::string& detail);
  void connect(const GateName& from, const GateName& to);
  // The gate with the number of the port, which may be known only when the step runs.
  void connectPort(const std::string& from, const std::string& port, const std::string& to);
  void disconnect(const GateName& from);
  void removeInterface(const std::string& module, const std::string& name);

  Running now;
  Plan plan;
};

}  // namespace Sfectl
