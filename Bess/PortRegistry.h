// The ports of the process by name.
//
// Threads    : control only.
// Ownership  : the registry owns every port; a module that holds one says so with Port::addUser().
// Errors     : PortError, with an errno value and a text that names what is wrong.
// Invariants :
//   (1) no two ports have one name or one device.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Bess/Port.h"

namespace bess {

class PortRegistry {
 public:
  // The process's own. It lives until the process ends; closeAll() is what ends its ports.
  static PortRegistry& global();

  // Opens a port. Errors: EINVAL, EEXIST (the name or the device is taken), ENODEV, what the driver
  // answers.
  Port* create(const PortConfig& config);
  // Closes a port and removes its device. Errors: ENOENT, EBUSY (modules use it).
  void destroy(const std::string& name);
  // Closes every port. Requires: no module uses one.
  void closeAll();

  Port* find(const std::string& name) const;  // null when there is none
  Port* findById(uint16_t id) const;
  // Errors: ENOENT, with the names there are.
  Port& get(const std::string& name) const;
  std::vector<Port*> ports() const;  // in the order of their names

 private:
  std::map<std::string, std::unique_ptr<Port>> ports_;
};

}  // namespace bess
