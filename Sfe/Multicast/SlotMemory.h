// The slots of a mapped counter table: reads and writes single records, knows no keys.
//
// Threads    | operation                     | writer of the slot | anyone, any process |
//            | write, clear, beginWrite, ... |        yes         |          -          |
//            | read                          |        yes         |         yes         |
//              A slot has at most one writer at a time; CounterStore sees to it.
// Ownership  : a view; the mapping must outlive it.
// Cost       : one pass over the slot's words and one checksum over them.
// Invariants :
//   (1) every access to the mapping is an atomic 64-bit access: no data race, whoever else writes.
//   (2) nothing read from the mapping is used as an index, a length or an address.
//   (3) a record that read() calls used was written by one write(): never a mixture of two.
#pragma once

#include <atomic>
#include <cstdint>
#include <span>

#include "Sfe/Multicast/TableLayout.h"

namespace Sfe::Multicast {

enum class SlotState {
  kFree,
  kUsed,
  kBusy,     // was being written at every attempt: by a writer at work, or by one that died
  kDamaged,  // fails its checks
};

class SlotMemory {
 public:
  // Requires: `object` is 8-byte aligned, of at least shape.tableBytes(capacity) bytes.
  SlotMemory(std::span<std::byte> object, const RecordShape& shape, uint32_t capacity);

  uint32_t capacity() const { return capacity_; }
  const RecordShape& shape() const { return shape_; }

  // Reads slot's record in a bounded number of attempts. Requires: record.size() ==
  // shape.recordWords(). Returns: what the slot is; `record` is filled when it is kUsed.
  SlotState read(uint32_t slot, std::span<uint64_t> record) const;

  // True for a free slot that was never written since its memory was made: all words are 0. Far
  // cheaper than read().
  bool isUntouched(uint32_t slot) const;

  // Replaces the record of the slot, whatever was in it. Requires: the slot's only writer.
  void write(uint32_t slot, std::span<const uint64_t> record);

  // Makes the slot a free one, whatever was in it. Requires: the slot's only writer.
  void clear(uint32_t slot);

  // The steps of a write: between the first and the last a reader finds the slot busy.
  void beginWrite(uint32_t slot);
  void storeWord(uint32_t slot, uint32_t index, uint64_t word);
  void endWrite(uint32_t slot, uint64_t state);

 private:
  using Word = std::atomic<uint64_t>;
  static_assert(Word::is_always_lock_free && sizeof(Word) == sizeof(uint64_t));

  Word* words(uint32_t slot) const { return slots_ + size_t{slot} * shape_.slotWords(); }
  SlotState classify(uint32_t slot, std::span<const uint64_t> image) const;

  Word* slots_;
  RecordShape shape_;
  uint32_t capacity_;
};

}  // namespace Sfe::Multicast
