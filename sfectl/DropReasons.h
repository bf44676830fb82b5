// Why a multicast module dropped packets, in words; counted by the daemon's event counters.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "protocol/bess.pb.h"
#include "sfectl/Instances.h"

namespace Sfectl {

struct DropReason {
  std::string name;   // "drop_ttl"
  std::string words;  // "TTL or hop limit used up"
  uint64_t packets = 0;
};

// The reasons of one instance, all of them, in the order in which a packet meets them; a reason
// that this program does not know is called by its name.
std::vector<DropReason> dropReasons(
    const google::protobuf::RepeatedPtrField<bess::pb::CounterValues>& counters,
    const Instance& instance);

}  // namespace Sfectl
