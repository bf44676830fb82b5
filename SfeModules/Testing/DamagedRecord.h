// Damages one record of a counter table behind the back of its owner.
#pragma once

#include <cstring>
#include <stdexcept>
#include <string>

#include "Sfe/Multicast/TableTesting.h"
#include "Sfe/OrpSharedMem/EntityManager.h"

namespace SfeModules {

// Requires: a record of that key in the table that is mounted at `path`.
template <class Record>
void damageRecord(const std::string& path, const typename Record::Key& key) {
  using namespace Sfe::Multicast;  // NOLINT(google-build-using-namespace): its layout
  std::array<uint64_t, Record::kShape.recordWords()> words;
  Record(key).toWords(words);
  Testing::RawObject object(OrpSharedMem::systemNameFromEnv(), path);
  constexpr size_t kKeyAt = 2 * sizeof(uint64_t);
  constexpr size_t kKeyBytes = Record::kShape.keyWords * sizeof(uint64_t);
  for (size_t slot = kHeaderBytes; slot + Record::kShape.slotBytes() <= object.bytes().size();
       slot += Record::kShape.slotBytes()) {
    if (std::memcmp(object.bytes().data() + slot + kKeyAt, words.data(), kKeyBytes) == 0) {
      object.flip(slot + kKeyAt + kKeyBytes, 0x40);
      return;
    }
  }
  throw std::runtime_error("no such record");
}

}  // namespace SfeModules
