// A table of counter records by key in shared memory: the typed face of CounterStore.
//
// One object is one handle on a mounted table; several handles share the table, and the table is
// unmounted when the last of them goes. Made by OrpSharedMem::EntityManager, not by hand.
//
// Threads, RCU, cost: as CounterStore (operations on records need an online QSBR thread).
// Errors     : reading a damaged record throws Bindle::CorruptionDetectedException, whose text goes
//              to doCorruptionDetected(); after that the record reads as absent, and the next write
//              makes it good. A record that does not fit a full table is dropped, counted, and
//              logged once. Writing through a read-only mount throws std::logic_error.
#pragma once

#include <array>
#include <memory>
#include <string>
#include <utility>

#include "Base/Bindle/Exceptions.h"
#include "Base/Orp/Ptr.h"
#include "Sfe/Multicast/CounterStore.h"

namespace Sfe::Multicast {

template <class Record>
class CounterTable : public Orp::PtrInterface {
 public:
  using Key = typename Record::Key;

  explicit CounterTable(std::shared_ptr<CounterStore> store) : store_(std::move(store)) {}

  // Records in the table.
  uint64_t size() const { return store_->size(); }

  // Takes note of a corruption that a look-up reported: counts it, logs it, and makes the damaged
  // records read as absent until they are written again.
  void doCorruptionDetected(const std::string& what) { store_->corruptionDetected(what); }

  // Corruptions noted, and damaged records met when the table was mounted.
  uint64_t corruptions() const { return store_->corruptions(); }

  // Records that were dropped because the table was full.
  uint64_t overflows() const { return store_->overflows(); }

  // The path that it is mounted at.
  const std::string& path() const { return store_->path(); }

 protected:
  // Returns: the record of `key`; a default one when there is none.
  Record lookup(const Key& key) const {
    std::array<uint64_t, Record::kShape.recordWords()> words;
    Record(key).toWords(words);
    const std::array<uint64_t, Record::kShape.recordWords()> wanted = words;
    switch (store_->find(std::span(wanted).template first<Record::kShape.keyWords>(), words)) {
      case CounterStore::Found::kAbsent:
        return Record();
      case CounterStore::Found::kFound:
        if (Record found; Record::fromWords(words, &found)) {
          return found;
        }
        break;
      case CounterStore::Found::kDamaged:
        break;
    }
    throw damaged(key);
  }

  void store(const Record& record) {
    std::array<uint64_t, Record::kShape.recordWords()> words;
    record.toWords(words);
    store_->put(words);
  }

  // Leaves a record that there is as it is. Returns: false when there is one.
  bool storeNew(const Record& record) {
    std::array<uint64_t, Record::kShape.recordWords()> words;
    record.toWords(words);
    const CounterStore::Found found = store_->putNew(words);
    if (found == CounterStore::Found::kDamaged) {
      throw damaged(record.key());
    }
    return found == CounterStore::Found::kAbsent;
  }

  void remove(const Key& key) {
    std::array<uint64_t, Record::kShape.recordWords()> words;
    Record(key).toWords(words);
    store_->erase(std::span(words).template first<Record::kShape.keyWords>());
  }

  void removeAll() { store_->eraseAll(); }

 private:
  Bindle::CorruptionDetectedException damaged(const Key& key) const {
    return Bindle::CorruptionDetectedException(store_->name() + " " + store_->path() +
                                               ": the record of " + Record::keyText(key) +
                                               " is damaged");
  }

  std::shared_ptr<CounterStore> store_;
};

}  // namespace Sfe::Multicast
