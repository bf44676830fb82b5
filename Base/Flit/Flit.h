// The ring trace: every thread writes small binary records into a ring of its own; a reader makes
// text of them.
//
// A trace point is described once (registerPoint); a record holds the point's number, the time and
// the values. Descriptions are copied: a record can be read after the code that wrote it was
// unloaded.
//
// Threads    | operation      | any thread                      |
//            | append         | yes; writes its own ring only   |
//            | registerPoint  | yes; takes a lock               |
//            | read, print    | yes; writers never wait for it  |
// Cost       : append() reads the time stamp counter and stores words: no formatting, lock,
// allocation or system
//              call, except a thread's first one, which makes its ring (kRingCells * 64 bytes).
// Errors     : append() never fails; a thread whose ring cannot be made writes nothing.
// Invariants :
//   (1) a ring holds the newest records; an older record is lost whole or read whole, never torn.
//   (2) records of one thread are read in the order they were written.
//   (3) rings of ended threads stay readable; only the newest kMaxEndedRings of them are kept.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Flit {

enum class ArgKind : uint8_t { kU64, kI64, kU32, kStr };

inline constexpr size_t kMaxArgs = 8;
inline constexpr size_t kMaxStringBytes = 64;  // longer strings are cut
inline constexpr size_t kRingCells = 4096;     // of 64 bytes; a record of numbers takes one or two
inline constexpr size_t kMaxEndedRings = 16;
inline constexpr uint32_t kNoSlot = ~uint32_t{0};

// What a trace point says. Its text is labels[0] value0 labels[1] value1 ...; one label may follow
// the last value.
struct PointInfo {
  std::string_view signature;
  int level = 0;
  std::span<const std::string_view> labels;
  std::span<const ArgKind> kinds;
};

// Returns: the number of the point, not 0. The same description always has the same number.
// Requires: at most kMaxArgs kinds; as many labels as kinds or one more.
uint32_t registerPoint(const PointInfo& info);

// Writes one record: `words` are the point's values as Base/Flit/Encode.h lays them out.
void append(uint32_t point, const uint64_t* words, unsigned count) noexcept;

struct Record {
  uint64_t timeNs;      // since 1970, UTC
  uint32_t threadSlot;  // the writer's Orp::threadSlot(); kNoSlot when it had none
  int level;
  std::string text;            // "signature: message with values"
  std::string_view signature;  // of the writing function; valid for ever

  std::string_view message() const {
    constexpr size_t kSeparator = 2;
    return std::string_view(text).substr(signature.size() + kSeparator);
  }
};

// Returns: the records of all rings up to `maxLevel`, in time order.
std::vector<Record> read(int maxLevel = 9);

// One line for each record: time, slot, level, text; bytes that are not printable as \xNN.
void print(std::FILE* out, int maxLevel = 9);

}  // namespace Flit
