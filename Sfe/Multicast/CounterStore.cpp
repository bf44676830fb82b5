#include <glog/logging.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <new>
#include <optional>
#include <stdexcept>
#include <utility>

#include "Base/RcuAnnotate.h"
#include "Base/RcuCallbacks.h"
#include "Sfe/Multicast/CounterStoreInside.h"
#include "Sfe/Multicast/Crc32c.h"

namespace Sfe::Multicast {

using OrpSharedMem::MountRequest;
using OrpSharedMem::SharedObject;

namespace {

// One bucket per record of a full table: the index never resizes.
unsigned long bucketsFor(uint32_t capacity) {
  constexpr uint32_t kFewest = 64;
  return std::bit_ceil(std::max(capacity, kFewest));
}

std::unique_ptr<std::atomic<uint64_t>[]> zeroedAtomics(size_t count) {
  return std::unique_ptr<std::atomic<uint64_t>[]>(new std::atomic<uint64_t>[count]());
}

SharedObject openForWriting(const MountRequest& request, const RecordShape& shape) {
  const OrpPell::MountInfo& info = request.info;
  if (info.entries() == 0 || info.entries() > kMaxCapacity ||
      info.collection().size() >= kCollectionBytes || request.path.size() >= kPathBytes) {
    throw std::invalid_argument(
        request.path + ": a table has 1 to " + std::to_string(kMaxCapacity) +
        " records, a collection name below " + std::to_string(kCollectionBytes) +
        " and a path below " + std::to_string(kPathBytes) + " bytes");
  }
  auto check = [&](std::span<const std::byte> object) -> std::optional<std::string> {
    TableHeader header;
    HeaderFault fault;
    if (!readHeader(object, &header, &fault)) {
      return fault.text;
    }
    if (header.shape != shape || header.capacity != info.entries() ||
        header.collection != info.collection() || header.path != request.path) {
      return "it holds another table";
    }
    return std::nullopt;
  };
  return SharedObject::openForWriting(OrpSharedMem::objectName(request.systemName, request.path),
                                      shape.tableBytes(info.entries()), check);
}

TableObject openTable(const MountRequest& request, const RecordShape& shape) {
  if (request.readOnly) {
    return openTableForReading(request.systemName, request.path, shape);
  }
  return TableObject{openForWriting(request, shape),
                     {shape, request.info.entries(), request.info.collection(), request.path}};
}

}  // namespace

CounterStore::CounterStore(const MountRequest& request, const RecordShape& shape, std::string name)
    : path_(request.path),
      name_(std::move(name)),
      readOnly_(request.readOnly),
      table_(openTable(request, shape)),
      memory_(table_.object.bytes(), shape, table_.header.capacity),
      free_(memory_.capacity()),
      owners_(zeroedAtomics(memory_.capacity())),
      damaged_(zeroedAtomics(damagedWords(memory_.capacity()))),
      nextTag_(2 * kClaimed) {
  if (readOnly_) {
    return;
  }
  const unsigned long buckets = bucketsFor(memory_.capacity());
  index_ = cds_lfht_new(buckets, buckets, buckets, 0, nullptr);
  if (index_ == nullptr) {
    throw std::bad_alloc();
  }
  const auto pid = static_cast<uint32_t>(getpid());
  if (table_.object.created()) {
    table_.header.writerPid = pid;
    table_.header.generation = 1;
    writeHeader(table_.object.bytes(), table_.header);
  } else {
    table_.header.generation = renewHeader(table_.object.bytes(), pid);
    rebuildIndex();
  }
}

// Nobody else uses the store any more: nodes go at once, without a grace period.
CounterStore::~CounterStore() {
  if (index_ == nullptr) {
    return;
  }
  cds_lfht_iter position;
  cds_lfht_first(index_, &position);
  while (cds_lfht_node* found = cds_lfht_iter_get_node(&position)) {
    Node* node = Node::of(found);
    SFE_RCU_DEREFERENCE(node);
    cds_lfht_next(index_, &position);
    cds_lfht_del(index_, found);
    delete node;
  }
  if (cds_lfht_destroy(index_, nullptr) != 0) {
    LOG(ERROR) << name_ << " " << path_ << ": the index cannot be destroyed";
  }
}

std::span<const uint64_t> CounterStore::keyOf(std::span<const uint64_t> record) const {
  return record.first(memory_.shape().keyWords);
}

void CounterStore::requireWritable() const {
  if (readOnly_) {
    throw std::logic_error(name_ + " " + path_ + " is mounted read-only");
  }
}

CounterStore::Node* CounterStore::lookup(std::span<const uint64_t> key) const {
  auto match = [](cds_lfht_node* candidate, const void* wanted) -> int {
    const Node* node = Node::of(candidate);
    SFE_RCU_DEREFERENCE(node);
    return sameWords(node->key(), *static_cast<const std::span<const uint64_t>*>(wanted)) ? 1 : 0;
  };
  cds_lfht_iter position;
  cds_lfht_lookup(index_, crc32c(key), match, &key, &position);
  cds_lfht_node* found = cds_lfht_iter_get_node(&position);
  return found == nullptr ? nullptr : Node::of(found);
}

// Waits for another holder. Returns: false when the slot is not the node's any more.
bool CounterStore::claim(const Node& node) const {
  std::atomic<uint64_t>& owner = owners_[node.slot];
  for (Spinner spinner;; spinner.wait()) {
    uint64_t expected = node.tag;
    if (owner.compare_exchange_weak(expected, node.tag | kClaimed, std::memory_order_acquire,
                                    std::memory_order_relaxed)) {
      return true;
    }
    if ((expected & ~kClaimed) != node.tag) {
      return false;
    }
  }
}

void CounterStore::release(const Node& node) const {
  owners_[node.slot].store(node.tag, std::memory_order_release);
}

bool CounterStore::owns(const Node& node) const {
  return (owners_[node.slot].load(std::memory_order_acquire) & ~kClaimed) == node.tag;
}

CounterStore::Found CounterStore::find(std::span<const uint64_t> key,
                                       std::span<uint64_t> record) const {
  if (readOnly_) {
    return findByScan(key, record);
  }
  for (;;) {
    const Node* node = lookup(key);
    if (node == nullptr) {
      return Found::kAbsent;
    }
    if (const std::optional<Found> found = read(*node, key, record)) {
      return *found;
    }
  }
}

// Returns: nothing when the node was erased meanwhile.
std::optional<CounterStore::Found> CounterStore::read(const Node& node,
                                                      std::span<const uint64_t> key,
                                                      std::span<uint64_t> record) const {
  __builtin_prefetch(&owners_[node.slot], 1);  // two lines that no cache holds: at once
  const SlotState state = memory_.read(node.slot, record);
  if (!owns(node)) {
    return std::nullopt;
  }
  if (state == SlotState::kFree) {
    return Found::kAbsent;  // its first write is under way, or it was taken out of sight
  }
  if (state == SlotState::kUsed && sameWords(keyOf(record), key)) {
    return Found::kFound;
  }
  bool stale = false;
  const Found confirmed = confirm(node, record, &stale);
  return stale ? std::nullopt : std::optional(confirmed);
}

// Reads a slot that looked wrong again, as its only writer: what is wrong now is damage.
CounterStore::Found CounterStore::confirm(const Node& node,
                                          std::span<uint64_t> record,
                                          bool* stale) const {
  if (!claim(node)) {
    *stale = true;
    return Found::kAbsent;
  }
  const SlotState state = memory_.read(node.slot, record);
  Found found = Found::kDamaged;
  if (state == SlotState::kFree) {
    found = Found::kAbsent;
  } else if (state == SlotState::kUsed && sameWords(keyOf(record), node.key())) {
    found = Found::kFound;
  } else {
    damaged_[node.slot / kBits].fetch_or(uint64_t{1} << (node.slot % kBits),
                                         std::memory_order_relaxed);
  }
  release(node);
  return found;
}

bool CounterStore::put(std::span<const uint64_t> record) {
  requireWritable();
  for (Spinner spinner;; spinner.wait()) {
    const Fullness before = fullness();
    const Node* node = lookup(keyOf(record));
    if (node != nullptr) {
      if (writeTo(*node, record)) {
        return true;
      }
      continue;  // erased meanwhile
    }
    if (const Inserted inserted = insert(record, before); inserted != Inserted::kLost) {
      return inserted == Inserted::kDone;
    }
  }
}

CounterStore::Found CounterStore::putNew(std::span<const uint64_t> record) {
  requireWritable();
  RecordBuffer buffer(memory_.shape());
  for (Spinner spinner;; spinner.wait()) {
    const Fullness before = fullness();
    const Node* node = lookup(keyOf(record));
    if (node == nullptr) {
      if (insert(record, before) != Inserted::kLost) {
        return Found::kAbsent;
      }
      continue;
    }
    const std::optional<Found> found = read(*node, keyOf(record), buffer.words());
    if (found.has_value() && (*found != Found::kAbsent || writeTo(*node, record))) {
      return *found;
    }
  }
}

// Returns: false when the slot is not the node's any more.
bool CounterStore::writeTo(const Node& node, std::span<const uint64_t> record) {
  if (!claim(node)) {
    return false;
  }
  memory_.write(node.slot, record);
  release(node);
  return true;
}

// A node for `slot`, which it owns and has claimed.
std::unique_ptr<CounterStore::Node> CounterStore::makeNode(uint32_t slot,
                                                           std::span<const uint64_t> key) {
  std::unique_ptr<Node> node = Node::make(key);
  node->tag = nextTag_.fetch_add(2 * kClaimed);
  node->slot = slot;
  owners_[slot].store(node->tag | kClaimed, std::memory_order_release);
  return node;
}

// Returns: false when the key is in the index already.
bool CounterStore::addToIndex(Node* node) {
  auto match = [](cds_lfht_node* candidate, const void* wanted) -> int {
    const Node* other = Node::of(candidate);
    SFE_RCU_DEREFERENCE(other);
    return sameWords(other->key(), static_cast<const Node*>(wanted)->key()) ? 1 : 0;
  };
  SFE_RCU_PUBLISH(node);
  return cds_lfht_add_unique(index_, crc32c(node->key()), match, node, &node->hashNode) ==
         &node->hashNode;
}

CounterStore::Fullness CounterStore::fullness() const {
  const uint64_t tag = nextTag_.load();
  return {size_.load() >= memory_.capacity(), tag};
}

// Whether there was a moment at which the table was full and had no record of a key, which was
// looked for in vain since `before`. Without one, other threads hold slots for a moment and give
// them back.
// A count that is the capacity means that every slot has a counted record and no insertion or
// erasure is between its steps. If a record of the key was erased between the two counts, the count
// went down, and it did not come back without an insertion, which takes a new tag.
bool CounterStore::wasFull(const Fullness& before) const {
  return before.full && size_.load() >= memory_.capacity() && nextTag_.load() == before.nextTag;
}

// Requires: the key was not in the index, looked up since `before`.
// The node enters the index claimed: who finds it waits until its first record is written.
// Returns: kLost when another thread was first with this key or with the last slot.
CounterStore::Inserted CounterStore::insert(std::span<const uint64_t> record,
                                            const Fullness& before) {
  const std::span key = keyOf(record);
  if (wasFull(before)) {
    countOverflow();  // without a look at every slot
    return Inserted::kFull;
  }
  const std::optional<uint32_t> slot = free_.take();
  if (!slot) {
    return Inserted::kLost;
  }
  std::unique_ptr<Node> node = makeNode(*slot, key);
  if (!addToIndex(node.get())) {
    owners_[*slot].store(0, std::memory_order_release);
    free_.give(*slot);
    return Inserted::kLost;
  }
  const Node& added = *node.release();
  memory_.write(*slot, record);
  size_.fetch_add(1);
  release(added);
  return Inserted::kDone;
}

void CounterStore::countOverflow() {
  if (overflows_.fetch_add(1, std::memory_order_relaxed) == 0) {
    LOG(WARNING) << name_ << " " << path_ << " is full with " << memory_.capacity()
                 << " records; further ones are dropped and counted";
  }
}

bool CounterStore::erase(std::span<const uint64_t> key) {
  requireWritable();
  Node* node = lookup(key);
  while (node != nullptr) {
    if (eraseNode(node)) {
      return true;
    }
    node = lookup(key);
  }
  return false;
}

// The slot is cleared before the key leaves the index, and given away after: no moment has two
// slots of one key. Returns: false when another thread erased the node.
bool CounterStore::eraseNode(Node* node) {
  if (!claim(*node)) {
    return false;
  }
  const uint32_t slot = node->slot;
  memory_.clear(slot);
  size_.fetch_sub(1);  // first: whoever misses the key finds room
  cds_lfht_del(index_, &node->hashNode);
  SFE_RCU_RETIRE(node);
  owners_[slot].store(0, std::memory_order_release);
  free_.give(slot);
  RcuCallbacks::queued();
  urcu_qsbr_call_rcu(&node->reclaim, [](rcu_head* head) {
    Node* old =
        reinterpret_cast<Node*>(reinterpret_cast<std::byte*>(head) - offsetof(Node, reclaim));
    SFE_RCU_RECLAIM(old);
    delete old;
    RcuCallbacks::ran();
  });
  return true;
}

void CounterStore::eraseAll() {
  requireWritable();
  cds_lfht_iter position;
  cds_lfht_first(index_, &position);
  while (cds_lfht_node* found = cds_lfht_iter_get_node(&position)) {
    Node* node = Node::of(found);
    SFE_RCU_DEREFERENCE(node);
    cds_lfht_next(index_, &position);
    eraseNode(node);
  }
  repairFreeSlots();
}

}  // namespace Sfe::Multicast
