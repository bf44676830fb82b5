// Workers, and which of them runs which task.
//
// A task that a wanted worker runs stays there unless the file says another; a task that none runs
// goes to the worker with the fewest.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "sfectl/config/Config.h"
#include "sfectl/config/DifferSteps.h"

namespace Sfectl {

class TaskDiffer {
 public:
  TaskDiffer(const Config& config, DifferSteps& steps);

  void addWorkers();
  void attach();
  void removeWorkers();

 private:
  struct Wanted {
    std::string module;
    std::string name;            // what the step calls it
    std::optional<uint32_t> id;  // absent: not registered yet
    std::string registration;    // the command that does
    std::optional<int> worker;
    std::optional<uint64_t> rate;
  };

  bool isWanted(int worker) const;
  bool isMoved(const std::string& module) const;
  size_t mostWorkers() const;
  int leastLoaded() const;
  void attach(const Wanted& wanted);
  void attachReaders();
  void attachInstance(const VrfConfig& vrf, Family family, const InstanceConfig& wanted);

  const Config& config_;
  DifferSteps& steps_;
  std::map<int, uint32_t> load_;  // wanted workers and their tasks
};

}  // namespace Sfectl
