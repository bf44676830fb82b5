#include "Sfe/Multicast/TableLayout.h"

#include <array>
#include <atomic>
#include <cstring>

#include "Sfe/Multicast/Crc32c.h"

namespace Sfe::Multicast {
namespace {

// Header fields as indices of 64-bit words.
enum HeaderWord : size_t {
  kMagicAt = 0,
  kVersionAt,
  kEndianAt,
  kHeaderBytesAt,
  kSlotBytesAt,
  kCapacityAt,
  kKindAt,
  kKeyWordsAt,
  kCounterWordsAt,
  kPidAt,
  kGenerationAt,
  kReservedAt,
  kCollectionAt,
  kPathAt = kCollectionAt + kCollectionBytes / 8,
  kChecksumAt = kPathAt + kPathBytes / 8,
};
constexpr size_t kHeaderWords = kHeaderBytes / 8;
static_assert(kChecksumAt == kHeaderWords - 1);

using Image = std::array<uint64_t, kHeaderWords>;
using Word = std::atomic<uint64_t>;

// The parts that never change: all but the pid, the generation and the checksum itself.
uint32_t checksumOf(const Image& image) {
  const std::span words(image);
  const uint32_t first = crc32c(words.first(kPidAt));
  return crc32c(words.subspan(kReservedAt, kChecksumAt - kReservedAt), first);
}

Word* wordsOf(std::span<std::byte> object) {
  return reinterpret_cast<Word*>(object.data());
}

Image load(std::span<const std::byte> object) {
  const auto* words = reinterpret_cast<const Word*>(object.data());
  Image image;
  image[kMagicAt] = words[kMagicAt].load(std::memory_order_acquire);
  for (size_t i = 1; i < kHeaderWords; ++i) {
    image[i] = words[i].load(std::memory_order_relaxed);
  }
  return image;
}

void putText(Image* image, size_t at, size_t bytes, const std::string& text) {
  std::memcpy(image->data() + at, text.data(), std::min(text.size(), bytes - 1));
}

std::string getText(const Image& image, size_t at, size_t bytes) {
  const auto* text = reinterpret_cast<const char*>(image.data() + at);
  return std::string(text, strnlen(text, bytes));
}

std::optional<HeaderFault> findFault(const Image& image, size_t objectBytes) {
  using Kind = HeaderFault::Kind;
  if (image[kMagicAt] == 0) {
    return HeaderFault{Kind::kUnfinished, "its header is not written yet"};
  }
  if (image[kMagicAt] == __builtin_bswap64(kTableMagic) ||
      image[kEndianAt] == __builtin_bswap64(kEndianMark)) {
    return HeaderFault{Kind::kForeign, "it was written in another byte order"};
  }
  if (image[kMagicAt] != kTableMagic) {
    return HeaderFault{Kind::kDamaged, "its magic number is wrong"};
  }
  if (image[kChecksumAt] != selfChecking(checksumOf(image)) || image[kEndianAt] != kEndianMark) {
    return HeaderFault{Kind::kDamaged, "the checksum of its header is wrong"};
  }
  if (!selfChecked(image[kPidAt]) || !selfChecked(image[kGenerationAt])) {
    return HeaderFault{Kind::kDamaged, "its writer or generation is not readable"};
  }
  if (image[kVersionAt] != kLayoutVersion) {
    return HeaderFault{Kind::kForeign, "it has layout version " +
                                           std::to_string(image[kVersionAt]) +
                                           ", this program uses " + std::to_string(kLayoutVersion)};
  }
  const std::optional<RecordShape> shape = shapeOf(image[kKindAt]);
  if (!shape || image[kHeaderBytesAt] != kHeaderBytes ||
      image[kSlotBytesAt] != shape->slotBytes() || image[kKeyWordsAt] != shape->keyWords ||
      image[kCounterWordsAt] != shape->counterWords) {
    return HeaderFault{Kind::kForeign, "its records have another size"};
  }
  if (image[kCapacityAt] == 0 || image[kCapacityAt] > kMaxCapacity ||
      objectBytes != shape->tableBytes(static_cast<uint32_t>(image[kCapacityAt]))) {
    return HeaderFault{Kind::kDamaged, "its size does not fit its capacity"};
  }
  return std::nullopt;
}

}  // namespace

std::optional<RecordShape> shapeOf(uint64_t kind) {
  switch (kind) {
    case static_cast<uint64_t>(RecordKind::kIntf):
      return RecordShape{RecordKind::kIntf, 1, 6};
    case static_cast<uint64_t>(RecordKind::kMroute):
      return RecordShape{RecordKind::kMroute, 5, 5};
    default:
      return std::nullopt;
  }
}

void writeHeader(std::span<std::byte> object, const TableHeader& header) {
  Image image{};
  image[kMagicAt] = kTableMagic;
  image[kVersionAt] = kLayoutVersion;
  image[kEndianAt] = kEndianMark;
  image[kHeaderBytesAt] = kHeaderBytes;
  image[kSlotBytesAt] = header.shape.slotBytes();
  image[kCapacityAt] = header.capacity;
  image[kKindAt] = static_cast<uint64_t>(header.shape.kind);
  image[kKeyWordsAt] = header.shape.keyWords;
  image[kCounterWordsAt] = header.shape.counterWords;
  image[kPidAt] = selfChecking(header.writerPid);
  image[kGenerationAt] = selfChecking(header.generation);
  putText(&image, kCollectionAt, kCollectionBytes, header.collection);
  putText(&image, kPathAt, kPathBytes, header.path);
  image[kChecksumAt] = selfChecking(checksumOf(image));
  Word* words = wordsOf(object);
  for (size_t i = kHeaderWords - 1; i > kMagicAt; --i) {
    words[i].store(image[i], std::memory_order_relaxed);
  }
  words[kMagicAt].store(image[kMagicAt], std::memory_order_release);
}

uint32_t renewHeader(std::span<std::byte> object, uint32_t writerPid) {
  Word* words = wordsOf(object);
  const uint64_t before = words[kGenerationAt].load(std::memory_order_relaxed);
  const uint32_t generation = static_cast<uint32_t>(before) + 1;
  words[kPidAt].store(selfChecking(writerPid), std::memory_order_relaxed);
  words[kGenerationAt].store(selfChecking(generation), std::memory_order_release);
  return generation;
}

bool readHeader(std::span<const std::byte> object, TableHeader* header, HeaderFault* fault) {
  if (object.size() < kHeaderBytes) {
    *fault = object.empty()
                 ? HeaderFault{HeaderFault::Kind::kUnfinished, "it is still empty"}
                 : HeaderFault{HeaderFault::Kind::kDamaged, "it is too small to hold a header"};
    return false;
  }
  const Image image = load(object);
  if (std::optional<HeaderFault> found = findFault(image, object.size())) {
    *fault = std::move(*found);
    return false;
  }
  header->shape = *shapeOf(image[kKindAt]);
  header->capacity = static_cast<uint32_t>(image[kCapacityAt]);
  header->collection = getText(image, kCollectionAt, kCollectionBytes);
  header->path = getText(image, kPathAt, kPathBytes);
  header->writerPid = *selfChecked(image[kPidAt]);
  header->generation = *selfChecked(image[kGenerationAt]);
  return true;
}

}  // namespace Sfe::Multicast
