// Finds the device that a string of device arguments means, and starts its driver.
//
// Threads    : control only.
// Errors     : PortError; the text holds what the driver itself wrote about its refusal.
#pragma once

#include <cstdint>
#include <string>

namespace bess {

// The port that `devargs` already has in the packet library, -1 for none.
int findProbedPort(const std::string& devargs);

// Starts the driver of `devargs`. Returns: the id of its port.
// Requires: findProbedPort(devargs) is -1.
uint16_t probePort(const std::string& devargs);

// What the packet library and its drivers write while an object of this class lives; it still goes
// where it went.
// Requires: one object at a time.
class DriverLog {
 public:
  DriverLog();
  ~DriverLog();
  DriverLog(const DriverLog&) = delete;
  DriverLog& operator=(const DriverLog&) = delete;
  std::string text() const;  // one line, at most 400 bytes
};

}  // namespace bess
