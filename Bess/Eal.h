// Starts the packet library.
//
// Threads    : the process's main thread, once, before any other thread uses packets.
// Errors     : std::system_error with the library's errno; EALREADY on a second start.
#pragma once

#include <string>
#include <vector>

namespace bess {

struct EalOptions {
  bool hugePages = false;               // false: ordinary memory, no privilege needed
  unsigned memoryMb = 1024;             // reserved at start without huge pages, the limit with them
  bool pci = false;                     // look for PCI devices
  std::vector<std::string> extra = {};  // further arguments, as the library takes them
};

void initEal(const EalOptions& options);
// After the last packet and port is gone.
void cleanupEal();
std::string ealVersion();
// Whether the packet library runs, whoever started it.
bool ealRunning();

// The arguments that initEal() hands over, the program's name first.
std::vector<std::string> ealArguments(const EalOptions& options);

}  // namespace bess
