// The interface counters of one VRF and address family in shared memory; contract in
// CounterTable.h.
#pragma once

#include <string>

#include "Nynet/Address.h"
#include "Nynet/VrfName.h"
#include "Sfe/Multicast/CounterTable.h"
#include "Sfe/Multicast/IntfCounter.h"

namespace Sfe::Multicast {

class IntfCounterTable : public CounterTable<IntfCounter> {
 public:
  using CounterTable::CounterTable;

  // Where the table of a VRF and family is mounted.
  static std::string mountPath(Nynet::AddressFamily af, const L3::VrfName& vrf);

  IntfCounter intf(Nynet::IntfId id) const { return lookup(id); }
  void intfIs(const IntfCounter& record) { store(record); }
  void intfDel(Nynet::IntfId id) { remove(id); }
  void intfDelAll() { removeAll(); }
};

}  // namespace Sfe::Multicast
