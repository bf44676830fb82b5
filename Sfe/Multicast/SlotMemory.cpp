#include "Sfe/Multicast/SlotMemory.h"

#include <algorithm>
#include <array>
#include <cassert>

#include "Sfe/Multicast/Crc32c.h"

namespace Sfe::Multicast {
namespace {

constexpr uint32_t kSequenceAt = 0;
constexpr uint32_t kStateAt = 1;
constexpr uint32_t kRecordAt = 2;
constexpr uint32_t kMaxSlotWords = kMaxRecordWords + 3;
constexpr unsigned kReadAttempts = 16;

// `image` is a slot up to its checksum.
uint64_t checksumOf(uint32_t slot, std::span<const uint64_t> image) {
  const uint64_t number = slot;
  return selfChecking(crc32c(std::span(&number, 1), crc32c(image)));
}

}  // namespace

SlotMemory::SlotMemory(std::span<std::byte> object, const RecordShape& shape, uint32_t capacity)
    : slots_(reinterpret_cast<Word*>(object.data() + kHeaderBytes)),
      shape_(shape),
      capacity_(capacity) {
  assert(object.size() >= shape.tableBytes(capacity));
  assert(shape.recordWords() <= kMaxRecordWords);
}

SlotState SlotMemory::classify(uint32_t slot, std::span<const uint64_t> image) const {
  if (std::all_of(image.begin(), image.end(), [](uint64_t word) { return word == 0; })) {
    return SlotState::kFree;
  }
  if (image.back() != checksumOf(slot, image.first(image.size() - 1))) {
    return SlotState::kDamaged;
  }
  switch (image[kStateAt]) {
    case kSlotUsed:
      return SlotState::kUsed;
    case kSlotFree:
      return SlotState::kFree;
    default:
      return SlotState::kDamaged;
  }
}

// The acquire loads pair with the release stores of storeWord(): a reader that meets a word of a
// later write also meets that write's odd sequence when it looks again.
SlotState SlotMemory::read(uint32_t slot, std::span<uint64_t> record) const {
  assert(slot < capacity_ && record.size() == shape_.recordWords());
  const Word* from = words(slot);
  std::array<uint64_t, kMaxSlotWords> buffer;
  const std::span image = std::span(buffer).first(shape_.slotWords());
  for (unsigned attempt = 0; attempt < kReadAttempts; ++attempt) {
    image[kSequenceAt] = from[kSequenceAt].load(std::memory_order_acquire);
    if ((image[kSequenceAt] & 1) != 0) {
      continue;
    }
    for (uint32_t i = kStateAt; i < image.size(); ++i) {
      image[i] = from[i].load(std::memory_order_acquire);
    }
    if (from[kSequenceAt].load(std::memory_order_relaxed) != image[kSequenceAt]) {
      continue;
    }
    const SlotState state = classify(slot, image);
    if (state == SlotState::kUsed) {
      std::copy_n(image.begin() + kRecordAt, record.size(), record.begin());
    }
    return state;
  }
  return SlotState::kBusy;
}

bool SlotMemory::isUntouched(uint32_t slot) const {
  const Word* from = words(slot);
  uint64_t any = 0;
  for (uint32_t i = 0; i < shape_.slotWords(); ++i) {
    any |= from[i].load(std::memory_order_relaxed);
  }
  return any == 0;
}

void SlotMemory::write(uint32_t slot, std::span<const uint64_t> record) {
  assert(record.size() == shape_.recordWords());
  beginWrite(slot);
  for (uint32_t i = 0; i < record.size(); ++i) {
    storeWord(slot, i, record[i]);
  }
  endWrite(slot, kSlotUsed);
}

void SlotMemory::clear(uint32_t slot) {
  beginWrite(slot);
  for (uint32_t i = 0; i < shape_.recordWords(); ++i) {
    storeWord(slot, i, 0);
  }
  endWrite(slot, kSlotFree);
}

void SlotMemory::beginWrite(uint32_t slot) {
  assert(slot < capacity_);
  Word& sequence = words(slot)[kSequenceAt];
  sequence.store((sequence.load(std::memory_order_relaxed) + 1) | 1, std::memory_order_relaxed);
}

void SlotMemory::storeWord(uint32_t slot, uint32_t index, uint64_t word) {
  words(slot)[kRecordAt + index].store(word, std::memory_order_release);
}

void SlotMemory::endWrite(uint32_t slot, uint64_t state) {
  Word* to = words(slot);
  std::array<uint64_t, kMaxSlotWords> buffer;
  const std::span image = std::span(buffer).first(shape_.slotWords() - 1);
  image[kSequenceAt] = to[kSequenceAt].load(std::memory_order_relaxed) + 1;
  image[kStateAt] = state;
  for (uint32_t i = kRecordAt; i < image.size(); ++i) {
    image[i] = to[i].load(std::memory_order_relaxed);
  }
  to[kStateAt].store(state, std::memory_order_release);
  to[image.size()].store(checksumOf(slot, image), std::memory_order_release);
  to[kSequenceAt].store(image[kSequenceAt], std::memory_order_release);
}

}  // namespace Sfe::Multicast
