#include "Sfe/Multicast/MountPath.h"

#include "Sfe/OrpSharedMem/EntityManager.h"

namespace Sfe::Multicast {
namespace {
const std::string kRoot = "/Sfe/Multicast/";
}

std::string counterMountPath(Nynet::AddressFamily af,
                             const L3::VrfName& vrf,
                             const std::string& collection) {
  const char* family = af == Nynet::AddressFamily::kIpv4 ? "ipv4" : "ipv6";
  return kRoot + family + "/" + OrpSharedMem::escapeComponent(vrf.str()) + "/" + collection;
}

std::optional<CounterMount> parseCounterMountPath(const std::string& path) {
  if (path.compare(0, kRoot.size(), kRoot) != 0) {
    return std::nullopt;
  }
  const size_t vrfAt = path.find('/', kRoot.size());
  const size_t collectionAt = vrfAt == std::string::npos ? vrfAt : path.find('/', vrfAt + 1);
  if (collectionAt == std::string::npos || path.find('/', collectionAt + 1) != std::string::npos) {
    return std::nullopt;
  }
  const std::string family = path.substr(kRoot.size(), vrfAt - kRoot.size());
  if (family != "ipv4" && family != "ipv6") {
    return std::nullopt;
  }
  return CounterMount{
      family == "ipv4" ? Nynet::AddressFamily::kIpv4 : Nynet::AddressFamily::kIpv6,
      OrpSharedMem::unescapeComponent(path.substr(vrfAt + 1, collectionAt - vrfAt - 1)),
      path.substr(collectionAt + 1)};
}

}  // namespace Sfe::Multicast
