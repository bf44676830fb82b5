// The mount paths of the counter tables: "/Sfe/Multicast/<ipv4|ipv6>/<VRF>/<collection>".
#pragma once

#include <optional>
#include <string>

#include "Nynet/Address.h"
#include "Nynet/VrfName.h"

namespace Sfe::Multicast {

// Bytes of the VRF name that separate names here or in a file name are written as %XX.
std::string counterMountPath(Nynet::AddressFamily af,
                             const L3::VrfName& vrf,
                             const std::string& collection);

// What a mount path says.
struct CounterMount {
  Nynet::AddressFamily af;
  std::string vrf;
  std::string collection;
};

// Returns: the parts of a path of counterMountPath(); nothing for any other text.
std::optional<CounterMount> parseCounterMountPath(const std::string& path);

}  // namespace Sfe::Multicast
