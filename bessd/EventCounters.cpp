#include "bessd/EventCounters.h"

#include <cerrno>
#include <system_error>

#include "Sfe/Counters/Counters.h"

namespace Bessd {

uint32_t EventCounters::id(const std::string& name) {
  if (name.empty() || name.size() > kMaxNameBytes) {
    throw std::system_error(
        EINVAL, std::generic_category(),
        "a counter's name has 1 to " + std::to_string(kMaxNameBytes) + " bytes");
  }
  const auto found = ids_.find(name);
  if (found != ids_.end()) {
    return found->second;
  }
  const uint32_t id = SfeModules::counterId(name);
  if (id >= SfeModules::kMaxCounters) {
    throw std::system_error(
        ENOSPC, std::generic_category(),
        "all " + std::to_string(SfeModules::kMaxCounters) + " event counters are taken");
  }
  ids_.emplace(name, id);
  return id;
}

void EventCounters::fill(bess::pb::CountersResponse* response) const {
  for (const auto& [name, id] : ids_) {
    bess::pb::CounterValues* counter = response->add_counters();
    counter->set_name(name);
    counter->set_id(id);
    for (unsigned wid = 0; wid < SfeModules::kMaxCounterRows; ++wid) {
      if (SfeModules::bessCounterRow(static_cast<int>(wid)) != nullptr) {
        bess::pb::WorkerCounter* value = counter->add_values();
        value->set_wid(wid);
        value->set_value(SfeModules::bessCounter(static_cast<int>(wid), id));
      }
    }
  }
}

}  // namespace Bessd
