// The event counters of the workers by name: gives out their ids and reads them for the control
// service.
//
// Threads    : control only.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "protocol/bess.pb.h"

namespace Bessd {

class EventCounters {
 public:
  static constexpr size_t kMaxNameBytes = 256;

  // The id of that counter, a new one at its first use.
  // Errors: std::system_error, EINVAL for an empty or overlong name, ENOSPC when every id is given
  // out.
  uint32_t id(const std::string& name);
  // Every counter that has an id, with its value on each worker.
  void fill(bess::pb::CountersResponse* response) const;

 private:
  std::map<std::string, uint32_t> ids_;
};

}  // namespace Bessd
