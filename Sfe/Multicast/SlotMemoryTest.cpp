#include "Sfe/Multicast/SlotMemory.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <vector>

namespace Sfe::Multicast {
namespace {

constexpr uint32_t kCapacity = 4;
constexpr RecordShape kShape{RecordKind::kIntf, 1, 6};
using Record = std::array<uint64_t, kShape.recordWords()>;

class SlotMemoryTest : public ::testing::Test {
 protected:
  SlotMemoryTest()
      : words_(kShape.tableBytes(kCapacity) / sizeof(uint64_t)),
        memory_(std::as_writable_bytes(std::span(words_)), kShape, kCapacity) {}

  std::span<std::byte> slot(uint32_t n) {
    return std::as_writable_bytes(std::span(words_))
        .subspan(kHeaderBytes + n * kShape.slotBytes(), kShape.slotBytes());
  }
  SlotState read(uint32_t n) { return memory_.read(n, record_); }

  // Flips every bit of a slot, one at a time.
  void expectEveryFlipDetected(uint32_t n) {
    for (size_t bit = 0; bit < kShape.slotBytes() * 8; ++bit) {
      const std::byte mask{static_cast<uint8_t>(1 << (bit % 8))};
      slot(n)[bit / 8] ^= mask;
      const SlotState state = read(n);
      EXPECT_TRUE(state == SlotState::kDamaged || state == SlotState::kBusy) << "bit " << bit;
      slot(n)[bit / 8] ^= mask;
    }
  }

  std::vector<uint64_t> words_;
  SlotMemory memory_;
  Record record_{};
};

const Record kRecord{7, 1, 2, 3, 4, 5, 6};

TEST_F(SlotMemoryTest, isFreeAtFirst) {
  EXPECT_EQ(read(0), SlotState::kFree);
}

TEST_F(SlotMemoryTest, readsBackWhatWasWritten) {
  memory_.write(2, kRecord);
  EXPECT_EQ(read(2), SlotState::kUsed);
  EXPECT_EQ(record_, kRecord);
  EXPECT_EQ(read(1), SlotState::kFree);
  EXPECT_EQ(read(3), SlotState::kFree);
  memory_.clear(2);
  EXPECT_EQ(read(2), SlotState::kFree);
}

TEST_F(SlotMemoryTest, detectsEveryFlippedBitOfAUsedSlot) {
  memory_.write(1, kRecord);
  expectEveryFlipDetected(1);
  EXPECT_EQ(read(1), SlotState::kUsed);
}

TEST_F(SlotMemoryTest, detectsEveryFlippedBitOfAClearedSlot) {
  memory_.write(1, kRecord);
  memory_.clear(1);
  expectEveryFlipDetected(1);
}

TEST_F(SlotMemoryTest, detectsEveryFlippedBitOfANeverUsedSlot) {
  expectEveryFlipDetected(3);
}

TEST_F(SlotMemoryTest, detectsARecordThatWasMovedToAnotherSlot) {
  memory_.write(0, kRecord);
  std::memcpy(slot(1).data(), slot(0).data(), kShape.slotBytes());
  EXPECT_EQ(read(1), SlotState::kDamaged);
}

TEST_F(SlotMemoryTest, isBusyWhileItIsWritten) {
  memory_.write(0, kRecord);
  memory_.beginWrite(0);
  EXPECT_EQ(read(0), SlotState::kBusy);
  memory_.storeWord(0, 1, 99);
  EXPECT_EQ(read(0), SlotState::kBusy);
  memory_.endWrite(0, kSlotUsed);
  EXPECT_EQ(read(0), SlotState::kUsed);
  EXPECT_EQ(record_, (Record{7, 99, 2, 3, 4, 5, 6}));
}

TEST_F(SlotMemoryTest, isWritableAgainWhateverWasInIt) {
  for (const uint8_t fill : {0x00, 0x01, 0x55, 0xfe, 0xff}) {
    std::memset(slot(0).data(), fill, kShape.slotBytes());
    memory_.write(0, kRecord);
    EXPECT_EQ(read(0), SlotState::kUsed) << int{fill};
    EXPECT_EQ(record_, kRecord);
    std::memset(slot(0).data(), fill, kShape.slotBytes());
    memory_.clear(0);
    EXPECT_EQ(read(0), SlotState::kFree) << int{fill};
  }
}

}  // namespace
}  // namespace Sfe::Multicast
