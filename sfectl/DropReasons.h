// Why a multicast module dropped packets, in words: out of its state "metrics".
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sfectl/StateText.h"

namespace Sfectl {

struct DropReason {
  std::string name;   // "ttl"
  std::string words;  // "TTL or hop limit used up"
  uint64_t packets = 0;
};

// All reasons that the module counts, in the order in which a packet meets them; a reason that this
// program does not know is called by its name and comes last.
// Errors: RuntimeError when the text is no table of metrics.
std::vector<DropReason> dropReasons(const StateText& metrics);

}  // namespace Sfectl
