#include "Sfe/Multicast/MrouteCounterTable.h"

#include "Sfe/Multicast/EntityRegistration.h"
#include "Sfe/Multicast/MountPath.h"

namespace Sfe::Multicast {
namespace {
[[maybe_unused]] const bool kRegistered = registerCounterTable<MrouteCounterTable, MrouteCounter>();
}

std::string MrouteCounterTable::mountPath(Nynet::AddressFamily af, const L3::VrfName& vrf) {
  return counterMountPath(af, vrf, MrouteCounter::kCollection);
}

}  // namespace Sfe::Multicast
