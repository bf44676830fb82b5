// The route counters of one VRF and address family in shared memory; contract in CounterTable.h.
#pragma once

#include <string>

#include "Nynet/Address.h"
#include "Nynet/VrfName.h"
#include "Sfe/Multicast/CounterTable.h"
#include "Sfe/Multicast/MrouteCounter.h"

namespace Sfe::Multicast {

class MrouteCounterTable : public CounterTable<MrouteCounter> {
 public:
  using CounterTable::CounterTable;

  // Where the table of a VRF and family is mounted.
  static std::string mountPath(Nynet::AddressFamily af, const L3::VrfName& vrf);

  MrouteCounter mroute(const Key& key) const { return lookup(key); }
  void mrouteIs(const MrouteCounter& record) { store(record); }
  // Only where the key has none. Returns: false when it has one.
  bool mrouteNew(const MrouteCounter& record) { return storeNew(record); }
  void mrouteDel(const Key& key) { remove(key); }
  void mrouteDelAll() { removeAll(); }
};

}  // namespace Sfe::Multicast
