// What is behind the counter tables: records by key in shared memory, written without a lock.
//
// The index from key to slot is private to the writing process; readers in other processes scan.
//
// Threads    | operation                         | control | publisher | others, online in QSBR |
//            | find, put, erase, eraseAll,       |         |           |                        |
//            |   corruptionDetected              |   yes   |    yes    |          yes           |
//            | constructor, destructor           |  any one thread, when nobody else uses it    |
//            | size, corruptions, overflows      |  any thread                                  |
// RCU        : find, put, erase, eraseAll and corruptionDetected need a registered QSBR thread that
//              is online; they make no quiescent state. erase hands the index node to call_rcu. A
//              store that is mounted read-only has no index and needs none of this.
// Ownership  : owns the shared memory object; the destructor removes it.
// Errors     : a damaged record is a result of find(), a full table one of put(). A store mounted
//              read-only throws std::logic_error when it is written, and calls a record that is
//              damaged or long in the writing absent, since it cannot tell whose slot that is.
// Cost       : find and put one hash look-up and one checksum each. No system call, no lock; a
//              thread that meets another one in the same record yields until that one is through.
//              A read-only find() looks through all slots.
// Invariants :
//   (1) a key has at most one used slot at every moment, for every reader.
//   (2) a slot is written only by the thread that holds its claim, and a claim is held on behalf of
//       the one node that owns the slot: a slot that was freed and used again in between is never
//       written by a thread that found the earlier node.
//   (3) a new key is refused only while the table holds as many records as it has slots.
//   (4) damage to the shared memory, of whatever bytes, never changes which slots this process
//       believes to be free or whose they are.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "Sfe/Multicast/FreeSlots.h"
#include "Sfe/Multicast/SlotMemory.h"
#include "Sfe/Multicast/TableObject.h"
#include "Sfe/OrpSharedMem/EntityManager.h"

struct cds_lfht;

namespace Sfe::Multicast {

class CounterStore {
 public:
  enum class Found { kAbsent, kFound, kDamaged };

  // Mounts the table of request.path. `name` is what log lines call it.
  // An existing object of the same layout is used on, its records included.
  CounterStore(const OrpSharedMem::MountRequest& request,
               const RecordShape& shape,
               std::string name);
  ~CounterStore();
  CounterStore(const CounterStore&) = delete;
  CounterStore& operator=(const CounterStore&) = delete;

  // Looks a key up. `record` (shape.recordWords() words) is filled when it is found.
  Found find(std::span<const uint64_t> key, std::span<uint64_t> record) const;

  // Writes a record, its key in front. Returns: false when the key is new and the table is full.
  bool put(std::span<const uint64_t> record);

  // Writes a record whose key has none; one that find() would find or call damaged stays as it is.
  // Returns: kAbsent when it was written, or dropped because the table is full, else what there is.
  Found putNew(std::span<const uint64_t> record);

  // Returns: true when there was a record of that key.
  bool erase(std::span<const uint64_t> key);

  // Erases every record, and repairs free slots that were damaged.
  void eraseAll();

  // Counts and logs a corruption, and takes every record that find() called damaged out of sight:
  // it reads as absent until it is written again.
  void corruptionDetected(const std::string& what);

  // Records there are; counted slot by slot in a read-only store.
  uint64_t size() const {
    return readOnly_ ? countByScan() : size_.load(std::memory_order_relaxed);
  }
  uint64_t corruptions() const { return corruptions_.load(std::memory_order_relaxed); }
  uint64_t overflows() const { return overflows_.load(std::memory_order_relaxed); }
  const std::string& path() const { return path_; }
  const std::string& name() const { return name_; }

 private:
  struct Node;
  enum class Inserted { kDone, kLost, kFull };
  // What was to be seen before a key was looked for in vain.
  struct Fullness {
    bool full;
    uint64_t nextTag;
  };

  std::span<const uint64_t> keyOf(std::span<const uint64_t> record) const;
  void requireWritable() const;
  Node* lookup(std::span<const uint64_t> key) const;
  bool claim(const Node& node) const;
  void release(const Node& node) const;
  bool owns(const Node& node) const;
  Found findByScan(std::span<const uint64_t> key, std::span<uint64_t> record) const;
  Found confirm(const Node& node, std::span<uint64_t> record, bool* stale) const;
  std::optional<Found> read(const Node& node,
                            std::span<const uint64_t> key,
                            std::span<uint64_t> record) const;
  bool writeTo(const Node& node, std::span<const uint64_t> record);
  uint64_t countByScan() const;
  std::unique_ptr<Node> makeNode(uint32_t slot, std::span<const uint64_t> key);
  bool addToIndex(Node* node);
  Fullness fullness() const;
  bool wasFull(const Fullness& before) const;
  Inserted insert(std::span<const uint64_t> record, const Fullness& before);
  bool eraseNode(Node* node);
  void countOverflow();
  void rebuildIndex();
  bool adopt(uint32_t slot, std::span<const uint64_t> record);
  void repairFreeSlots();
  void takeOutOfSight(uint32_t slot, std::span<uint64_t> buffer);

  // Constant after construction.
  const std::string path_;
  const std::string name_;
  const bool readOnly_;
  TableObject table_;
  SlotMemory memory_;
  cds_lfht* index_ = nullptr;

  // Written by every writer thread.
  FreeSlots free_;
  std::unique_ptr<std::atomic<uint64_t>[]> owners_;   // per slot: 0, or tag of its node | claimed
  std::unique_ptr<std::atomic<uint64_t>[]> damaged_;  // bit per slot: find() called it damaged
  std::atomic<uint64_t> nextTag_;
  std::atomic<uint64_t> size_{0};
  std::atomic<uint64_t> corruptions_{0};
  std::atomic<uint64_t> overflows_{0};
};

}  // namespace Sfe::Multicast
