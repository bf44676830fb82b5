// The counter tables of a system in shared memory, as two tables of results. Needs no daemon.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Nynet/Address.h"
#include "Sfe/Multicast/IntfCounter.h"
#include "Sfe/Multicast/MountPath.h"
#include "Sfe/Multicast/MrouteCounter.h"
#include "sfectl/Report.h"

namespace Sfectl {

struct CounterFilter {
  std::optional<std::string> vrf;
  std::optional<Nynet::AddressFamily> af;
};

class CounterReport {
 public:
  CounterReport();

  void add(const Sfe::Multicast::CounterMount& mount, const Sfe::Multicast::IntfCounter& counter);
  void add(const Sfe::Multicast::CounterMount& mount, const Sfe::Multicast::MrouteCounter& counter);
  // Reads every table of `systemName` that passes the filter. What cannot be read is told in
  // faults(). Returns: false when there is no such table.
  bool readAll(const std::string& systemName, const CounterFilter& filter);

  const Report& interfaces() const { return interfaces_; }
  const Report& routes() const { return routes_; }
  const std::vector<std::string>& faults() const { return faults_; }

 private:
  template <class Record>
  void readTable(const std::string& systemName,
                 const std::string& path,
                 const Sfe::Multicast::CounterMount& mount);

  Report interfaces_;
  Report routes_;
  std::vector<std::string> faults_;
};

}  // namespace Sfectl
