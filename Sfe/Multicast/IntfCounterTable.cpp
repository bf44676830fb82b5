#include "Sfe/Multicast/IntfCounterTable.h"

#include "Sfe/Multicast/EntityRegistration.h"
#include "Sfe/Multicast/MountPath.h"

namespace Sfe::Multicast {
namespace {
[[maybe_unused]] const bool kRegistered = registerCounterTable<IntfCounterTable, IntfCounter>();
}

std::string IntfCounterTable::mountPath(Nynet::AddressFamily af, const L3::VrfName& vrf) {
  return counterMountPath(af, vrf, IntfCounter::kCollection);
}

}  // namespace Sfe::Multicast
