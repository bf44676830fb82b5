// The interfaces of a daemon: what the edge modules, the multicast modules, the ports and the
// counters in shared memory say of them, by name.
//
// Errors     : RuntimeError of the daemon; counters that cannot be read are told in faults.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Sfe/Multicast/IntfCounter.h"
#include "sfectl/Instances.h"

namespace Sfectl {

struct IntfCount {
  uint64_t rxPackets = 0;
  uint64_t rxBytes = 0;
  uint64_t txPackets = 0;
  uint64_t txBytes = 0;
  uint64_t queued = 0;
  uint64_t dropped = 0;

  IntfCount& operator+=(const Sfe::Multicast::IntfCounter& record);
  IntfCount& operator+=(const IntfCount& other);
};

// What one instance says of an interface.
struct IntfUse {
  Instance instance;
  bool multicast = false;  // forwards what arrives on it
  std::optional<IntfCount> count;
};

struct Interface {
  std::string name;
  std::optional<uint32_t> portId;  // absent when no edge module knows it
  std::string port;                // empty when there is no such port
  uint32_t vlan = 0;               // 0: untagged
  std::string mac;
  std::vector<IntfUse> uses;

  IntfCount total() const;
};

struct Interfaces {
  std::vector<Interface> list;  // in the order of their ids: Ethernet2 before Ethernet10
  std::vector<std::string> faults;
};

Interfaces loadInterfaces(Client& client, const std::vector<Instance>& instances);

// What the edge modules dropped, by module and reason.
struct EdgeDrop {
  std::string module;
  std::string reason;
  uint64_t packets = 0;
};
std::vector<EdgeDrop> edgeDrops(Client& client);

}  // namespace Sfectl
