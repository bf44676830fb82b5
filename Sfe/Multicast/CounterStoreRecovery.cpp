// What CounterStore does about records that it did not just write itself: those of an earlier run,
// damaged ones, and looking through all slots.
#include <glog/logging.h>

#include <bit>
#include <memory>
#include <string>

#include "Sfe/Multicast/CounterStoreInside.h"

namespace Sfe::Multicast {
namespace {
constexpr uint64_t kLoggedCorruptions = 10;  // after these, every one that is a power of two
}

// Takes the records of an earlier run into the index. What cannot be read is cleared.
// Requires: nobody else uses the store yet.
void CounterStore::rebuildIndex() {
  RecordBuffer buffer(memory_.shape());
  const std::span record = buffer.words();
  uint64_t cleared = 0;
  for (uint32_t slot = 0; slot < memory_.capacity(); ++slot) {
    const SlotState state = memory_.read(slot, record);
    if (state == SlotState::kFree || (state == SlotState::kUsed && adopt(slot, record))) {
      continue;
    }
    memory_.clear(slot);
    ++cleared;
  }
  corruptions_.store(cleared, std::memory_order_relaxed);
  LOG(INFO) << name_ << " " << path_ << ": an earlier run left " << size() << " records, "
            << cleared << " unreadable ones were cleared";
}

// Returns: false when the key has a slot already.
bool CounterStore::adopt(uint32_t slot, std::span<const uint64_t> record) {
  std::unique_ptr<Node> node = makeNode(slot, keyOf(record));
  if (!addToIndex(node.get())) {
    owners_[slot].store(0, std::memory_order_relaxed);
    return false;
  }
  free_.take(slot);
  size_.fetch_add(1, std::memory_order_relaxed);
  release(*node.release());
  return true;
}

CounterStore::Found CounterStore::findByScan(std::span<const uint64_t> key,
                                             std::span<uint64_t> record) const {
  RecordBuffer buffer(memory_.shape());
  const std::span words = buffer.words();
  for (uint32_t slot = 0; slot < memory_.capacity(); ++slot) {
    if (memory_.read(slot, words) == SlotState::kUsed && sameWords(keyOf(words), key)) {
      std::copy(words.begin(), words.end(), record.begin());
      return Found::kFound;
    }
  }
  return Found::kAbsent;
}

void CounterStore::repairFreeSlots() {
  RecordBuffer buffer(memory_.shape());
  const std::span words = buffer.words();
  for (uint32_t slot = 0; slot < memory_.capacity(); ++slot) {
    if (memory_.isUntouched(slot) || memory_.read(slot, words) == SlotState::kFree ||
        !free_.take(slot)) {
      continue;
    }
    if (memory_.read(slot, words) != SlotState::kFree) {
      memory_.clear(slot);
      corruptions_.fetch_add(1, std::memory_order_relaxed);
    }
    free_.give(slot);
  }
}

void CounterStore::corruptionDetected(const std::string& what) {
  const uint64_t count = corruptions_.fetch_add(1, std::memory_order_relaxed) + 1;
  if (count <= kLoggedCorruptions || (count & (count - 1)) == 0) {
    LOG(ERROR) << "Corruption " << count << " of shared memory: " << what;
  }
  if (readOnly_) {
    return;
  }
  RecordBuffer buffer(memory_.shape());
  const std::span words = buffer.words();
  for (size_t i = 0; i < damagedWords(memory_.capacity()); ++i) {
    uint64_t marks = damaged_[i].load(std::memory_order_relaxed);
    if (marks != 0) {
      marks = damaged_[i].exchange(0, std::memory_order_relaxed);
    }
    for (; marks != 0; marks &= marks - 1) {
      takeOutOfSight(
          static_cast<uint32_t>(i * kBits) + static_cast<uint32_t>(std::countr_zero(marks)), words);
    }
  }
}

// Clears a slot that is still damaged; its key stays in the index and reads as absent.
// `buffer` has the words of a record.
void CounterStore::takeOutOfSight(uint32_t slot, std::span<uint64_t> buffer) {
  std::atomic<uint64_t>& owner = owners_[slot];
  uint64_t tag = owner.load(std::memory_order_relaxed);
  for (Spinner spinner;; spinner.wait()) {
    if (tag == 0) {
      return;  // erased meanwhile, and so cleared
    }
    tag &= ~kClaimed;
    if (owner.compare_exchange_weak(tag, tag | kClaimed, std::memory_order_acquire,
                                    std::memory_order_relaxed)) {
      break;
    }
  }
  const SlotState state = memory_.read(slot, buffer);
  const Node* named = state == SlotState::kUsed ? lookup(keyOf(buffer)) : nullptr;
  if (named == nullptr || named->slot != slot) {
    memory_.clear(slot);
  }
  owner.store(tag, std::memory_order_release);
}

// Returns: used slots that can be read.
uint64_t CounterStore::countByScan() const {
  RecordBuffer buffer(memory_.shape());
  const std::span words = buffer.words();
  uint64_t used = 0;
  for (uint32_t slot = 0; slot < memory_.capacity(); ++slot) {
    used += memory_.read(slot, words) == SlotState::kUsed ? 1 : 0;
  }
  return used;
}

}  // namespace Sfe::Multicast
