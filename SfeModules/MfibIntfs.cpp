// The commands "addMulticastIntfs" and "deleteMulticastIntfs".

#include "Base/Trace.h"
#include "SfeModules/CounterEntries.h"
#include "SfeModules/Mfib.h"

namespace SfeModules {

Sfe::Multicast::IntfCounter intfCounter(Nynet::IntfId id) {
  return Sfe::Multicast::IntfCounter(id);
}

Sfe::Multicast::IntfCounter Mfib::intfRecord(Nynet::IntfId id) {
  return readRecord(*pellIntfCounterTable_, &Sfe::Multicast::IntfCounterTable::intf, id);
}

CommandResponse Mfib::addMulticastIntfs(const sfe::pb::MulticastIntfArg& arg) {
  for (const uint64_t value : arg.intf_ids()) {
    const Nynet::IntfId id(value);
    multicastIntfTable_->insert(value, true);
    if (intfRecord(id) == Sfe::Multicast::IntfCounter{}) {
      SFE_TRACE("Mfib", 7, "Initializing intf counter for ", id.stringValue());
      pellIntfCounterTable_->intfIs(intfCounter(id));
    }
  }
  return CommandSuccess();
}

CommandResponse Mfib::deleteMulticastIntfs(const sfe::pb::MulticastIntfArg& arg) {
  for (const uint64_t value : arg.intf_ids()) {
    const Nynet::IntfId id(value);
    multicastIntfTable_->erase(value);
    // A record with packets still held stays until they are gone; this does not depend on the
    // interface being there.
    if (intfRecord(id).pktsQueued() == 0) {
      pellIntfCounterTable_->intfDel(id);
    }
  }
  return CommandSuccess();
}

}  // namespace SfeModules
