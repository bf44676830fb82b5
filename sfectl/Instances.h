// The multicast modules of a daemon: each serves one VRF and one address family.
//
// Errors     : RuntimeError when the daemon cannot be asked, and when nothing serves a VRF that was
//              asked for by name.
#pragma once

#include <string>
#include <vector>

#include "Nynet/Address.h"
#include "sfectl/Client.h"
#include "sfectl/Counters.h"

namespace Sfectl {

inline constexpr const char* kMulticastClass = "Mfib";
inline constexpr const char* kDefaultVrf = "default";

struct Instance {
  std::string module;
  std::string vrf;
  Nynet::AddressFamily af = Nynet::AddressFamily::kUnspec;

  friend bool operator==(const Instance&, const Instance&) = default;
};

// "ipv4" or "ipv6".
const char* familyText(Nynet::AddressFamily af);

// In the order in which people read them: the default VRF first, IPv4 before IPv6.
std::vector<Instance> multicastInstances(Client& client, const CounterFilter& filter);

}  // namespace Sfectl
