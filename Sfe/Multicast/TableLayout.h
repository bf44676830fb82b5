// The byte layout of a counter table in shared memory, version 1.
//
// Every field is made of 64-bit words in the byte order of the machine that wrote it; the
// endianness mark tells a reader of another machine to keep off.
//
//   header, 512 bytes
//     offset   bytes
//          0       8  magic 0x3142544e43454653 ("SFECNTB1" in memory on a little-endian machine)
//          8       8  layout version, 1
//         16       8  endianness mark 0x0102030405060708
//         24       8  size of this header
//         32       8  size of one slot
//         40       8  capacity in slots
//         48       8  record kind: 1 interface counters, 2 route counters
//         56       8  K, 64-bit words of a key
//         64       8  C, 64-bit words of counters
//         72       8  process id of the writer, self-checking *
//         80       8  generation: 1, and 1 more each time a writer mounts the object again, s.-c. *
//         88       8  0
//         96      32  collection name, padded with zero bytes
//        128     376  mount path, padded with zero bytes
//        504       8  CRC32C of bytes 0..71 and 88..503, self-checking *
//   slot n, at 512 + n * slot size
//          0       8  sequence: odd while the slot is being written, 2 more after each write
//          8       8  state: kSlotUsed, kSlotFree, or 0 in a slot that was never used
//         16     8*K  key
//     16+8*K     8*C  counters
//   16+8*(K+C)     8  CRC32C of sequence, state, key, counters and n (as one more word), s.-c. *
//
//   * self-checking: the value in the low 32 bits, its complement in the high 32 bits.
//
// A slot that was never used is all zero. Keys and counters of the two kinds:
//   interface  K = 1: interface id
//              C = 6: pktsIn, pktsOut, bytesIn, bytesOut, pktsQueued, pktsDropped
//   route      K = 5: source address, group address (2 words each, network byte order as stored),
//                     then source family | source prefix length << 8 | group family << 16 |
//                     group prefix length << 24, as a number
//              C = 5: pktsIn, bytesIn, wrongVif, pktsQueued, pktsDropped
//
// How to read a slot: read the sequence, the other words, the sequence again; the slot is good when
// both sequences are the same even number and the checksum is right. A slot that stays odd was left
// by a writer that died in it. A key is in at most one used slot; slots have no order and there is
// no index: nothing in the object refers to anything else in it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace Sfe::Multicast {

inline constexpr uint64_t kTableMagic = 0x3142544e43454653;
inline constexpr uint64_t kLayoutVersion = 1;
inline constexpr uint64_t kEndianMark = 0x0102030405060708;
inline constexpr size_t kHeaderBytes = 512;
inline constexpr size_t kCollectionBytes = 32;
inline constexpr size_t kPathBytes = 376;
inline constexpr uint64_t kSlotUsed = 0x5553454455534544;
inline constexpr uint64_t kSlotFree = 0x4652454546524545;
inline constexpr uint32_t kMaxCapacity = 1U << 24;

enum class RecordKind : uint64_t { kIntf = 1, kMroute = 2 };

// Words of a record, and of the slot around it: sequence, state, record, checksum.
struct RecordShape {
  RecordKind kind;
  uint32_t keyWords;
  uint32_t counterWords;

  constexpr uint32_t recordWords() const { return keyWords + counterWords; }
  constexpr uint32_t slotWords() const { return recordWords() + 3; }
  constexpr size_t slotBytes() const { return size_t{slotWords()} * sizeof(uint64_t); }
  constexpr size_t tableBytes(uint32_t capacity) const {
    return kHeaderBytes + size_t{capacity} * slotBytes();
  }
  friend bool operator==(const RecordShape&, const RecordShape&) = default;
};
inline constexpr uint32_t kMaxRecordWords = 10;

// Returns: the shape of a kind of this version; nothing for a number that is no kind.
std::optional<RecordShape> shapeOf(uint64_t kind);

// What a header tells.
struct TableHeader {
  RecordShape shape;
  uint32_t capacity;
  std::string collection;
  std::string path;
  uint32_t writerPid = 0;
  uint32_t generation = 0;
};

// Writes a whole header; the magic last, so that an unfinished header is none.
// Requires: 8-byte aligned memory of kHeaderBytes; path and collection fit their fields.
void writeHeader(std::span<std::byte> object, const TableHeader& header);

// Marks a reused object as this process's. Returns: the new generation.
uint32_t renewHeader(std::span<std::byte> object, uint32_t writerPid);

// Why a header cannot be used.
struct HeaderFault {
  enum class Kind { kUnfinished, kForeign, kDamaged };  // foreign: another version, size or machine
  Kind kind;
  std::string text;
};

// Reads and checks a header and that the object's size fits it.
// Returns: true and `header` filled, or false and `fault` filled.
bool readHeader(std::span<const std::byte> object, TableHeader* header, HeaderFault* fault);

// A 32-bit value and its complement in one word; nothing when they do not agree.
constexpr uint64_t selfChecking(uint32_t value) {
  return uint64_t{value} | (uint64_t{~value} << 32);
}
constexpr std::optional<uint32_t> selfChecked(uint64_t word) {
  const auto value = static_cast<uint32_t>(word);
  return selfChecking(value) == word ? std::optional<uint32_t>(value) : std::nullopt;
}

}  // namespace Sfe::Multicast
