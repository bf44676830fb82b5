// Makes a counter table class known to the shared-memory entity managers.
#pragma once

#include <memory>
#include <utility>

#include "Base/Orp/Ptr.h"
#include "Sfe/Multicast/CounterStore.h"
#include "Sfe/OrpSharedMem/EntityManager.h"

namespace Sfe::Multicast {

template <class Table, class Record>
bool registerCounterTable() {
  OrpSharedMem::EntityType type;
  type.mount = [](const OrpSharedMem::MountRequest& request) -> std::shared_ptr<void> {
    return std::make_shared<CounterStore>(request, Record::kShape, Record::kTypeName);
  };
  type.handle = [](std::shared_ptr<void> store) -> Orp::Ptr<Orp::PtrInterface> {
    return Orp::makePtr<Table>(std::static_pointer_cast<CounterStore>(std::move(store)));
  };
  return OrpSharedMem::registerEntityType(Record::kTypeName, std::move(type));
}

}  // namespace Sfe::Multicast
