// Flit::Ring: the newest trace records of one thread.
//
// The ring is an array of cells of eight words. A cell's first word is its stamp; the others carry
// a record, which begins in a cell of its own and takes as many as it needs:
//
//     stamp | ticks | point << 32 | number of value words | values ...
//     stamp | values ...
//
// Threads    : append(): the owner. read(): any thread, also while the owner writes.
// Invariants :
//   (1) a cell whose stamp names a position holds the words written for that position: the stamp is
//   0 while they
//       change (sequence lock; every word is an atomic, data words are released after the 0 and
//       acquired before the stamp is looked at again).
//   (2) positions grow by one for each cell written and never repeat.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Base/Flit/Encode.h"
#include "Base/Flit/Flit.h"

namespace Flit {

// Records as they come out of rings; their words are in one array.
struct RawRecord {
  uint64_t ticks;
  uint32_t point;
  uint32_t slot;
  size_t firstWord;
  unsigned words;
};
struct RawRecords {
  std::vector<RawRecord> records;
  std::vector<uint64_t> words;
};

inline constexpr unsigned kMaxRecordWords = kMaxArgs * kMaxStringWords;

class Ring {
 public:
  explicit Ring(uint32_t slot);

  // Requires: the owner's thread; count <= kMaxRecordWords.
  void append(uint64_t ticks, uint32_t point, const uint64_t* words, unsigned count) noexcept;

  // Adds what the ring holds, oldest first.
  void read(RawRecords& to) const;

 private:
  static constexpr unsigned kBodyWords = 7;
  static constexpr unsigned kHeadWords = 2;  // ticks, point and count
  static constexpr unsigned kFirstValues = kBodyWords - kHeadWords;
  static constexpr uint64_t kMask = kRingCells - 1;
  static_assert((kRingCells & kMask) == 0);

  using Body = std::array<uint64_t, kBodyWords>;

  struct alignas(64) Cell {
    std::atomic<uint64_t> stamp{0};
    std::array<std::atomic<uint64_t>, kBodyWords> body{};

    void open() { stamp.store(0, std::memory_order_relaxed); }
    void put(unsigned i, uint64_t word) { body[i].store(word, std::memory_order_release); }
    void close(uint64_t newStamp) { stamp.store(newStamp, std::memory_order_release); }
    // Returns: whether `to` is what was written under `expected`.
    bool get(uint64_t expected, Body& to) const;
  };

  // Never 0; a record's first cell and its other cells cannot be mistaken for each other.
  static constexpr uint64_t stampOf(uint64_t position, bool first) {
    return (position + 1) << 1 | (first ? 1 : 0);
  }
  static constexpr uint64_t cellsFor(unsigned words) {
    return (words + kHeadWords + kBodyWords - 1) / kBodyWords;
  }

  // Returns: the position after the record at `position`; the next cell's when there is none (any
  // more).
  uint64_t readOne(uint64_t position, RawRecords& to) const;

  const uint32_t slot_;
  const std::unique_ptr<Cell[]> cells_;
  uint64_t lastTicks_ = 0;         // the owner's
  std::atomic<uint64_t> head_{0};  // cells written; the owner writes, readers read
};

}  // namespace Flit
