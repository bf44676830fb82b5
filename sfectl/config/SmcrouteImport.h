// The static routes of an SMCRoute configuration as a Config.
//
// Each kernel interface becomes a port on a packet socket and an interface EthernetN, in the order
// of their first appearance; a VLAN device such as eth0.100 becomes that VLAN of its parent's port.
//
// Errors     : a line that cannot be expressed is a problem "FILE:LINE: ..."; all of them are
// found.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "sfectl/config/Config.h"

namespace Sfectl {

struct ImportResult {
  Config config;
  // Kernel interface and what it became, in that order.
  std::vector<std::pair<std::string, std::string>> interfaces;
  std::vector<std::string> warnings;  // lines that ask for nothing of ours
  std::vector<std::string> problems;  // lines that cannot be expressed
};

// Errors: RuntimeError when a file cannot be read.
ImportResult importSmcroute(const std::vector<std::string>& files);

// The text of one file, without its includes' files unless they can be found from `directory`.
ImportResult importSmcrouteText(const std::string& text, const std::string& file);

// The YAML text, with a head that says what became of what.
std::string importText(const ImportResult& result);

}  // namespace Sfectl
