// Look-up-or-create and withdrawal of local counter entries.
//
// Workers that create the entry of one key at once all count into the same one. If one replaced
// the other's, what that one held would be lost, and the number of held packets be wrong for good.
//
// Threads    : workers and control; RCU: online. An entry stays valid for the caller until its next
// quiescent state. Cost       : one look-up; an allocation only on an entry's first use after a
// publication.
#pragma once

#include <memory>
#include <type_traits>

#include "Base/Bindle/Exceptions.h"
#include "Base/NySlab/NySlab.h"
#include "SfeModules/MfibTypes.h"
#include "SfeModules/NyUrcuHt.h"

namespace SfeModules {

template <class K, class Entry>
std::shared_ptr<Entry> lookupOrCreate(NyRcuHt<K, std::shared_ptr<Entry>>& table, const K& key) {
  if (const std::shared_ptr<Entry>* found = table.find(key); found != nullptr) {
    return *found;
  }
  return *table.findOrInsert(key, std::allocate_shared<Entry>(NySlab::StdAllocator<Entry>()));
}

// The same without taking a reference: the entry for counting, revived when it was withdrawn.
template <class K, class Entry>
Entry& countingEntry(NyRcuHt<K, std::shared_ptr<Entry>>& table, const K& key) {
  if (const std::shared_ptr<Entry>* found = table.find(key); found != nullptr) {
    return revive(**found);
  }
  return revive(
      **table.findOrInsert(key, std::allocate_shared<Entry>(NySlab::StdAllocator<Entry>())));
}

// A record of a shared counter table by key: `get` is the table's look-up. A damaged record goes to
// the table's corruption handler and reads as the default record, as an absent one does.
template <class Table, class Record, class Key>
Record readRecord(Table& table, Record (Table::*get)(Key) const, const std::decay_t<Key>& key) {
  try {
    return (table.*get)(key);
  } catch (const Bindle::CorruptionDetectedException& error) {
    table.doCorruptionDetected(error.what());
    return {};
  }
}

inline void withdraw(IntfCounterEntry& entry) {
  entry.pktsIn = 0;
  entry.pktsOut = 0;
  entry.bytesIn = 0;
  entry.bytesOut = 0;
  entry.pktsQueued = 0;
  entry.pktsDropped = 0;
  entry.state = kCounterWithdrawn;
}

inline void withdraw(MrouteCounterEntry& entry) {
  entry.pktsIn = 0;
  entry.bytesIn = 0;
  entry.wrongVif = 0;
  entry.pktsQueued = 0;
  entry.pktsDropped = 0;
  entry.state = kCounterWithdrawn;
}

}  // namespace SfeModules
