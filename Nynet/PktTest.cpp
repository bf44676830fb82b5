#include "Nynet/Pkt.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "Base/NySlab/NySlab.h"

namespace Nynet {
namespace {

TEST(Pkt, startsWithoutHeadData) {
  const auto pkt = globalPktManager()->newPkt();
  EXPECT_FALSE(pkt->hasHeadData());
  EXPECT_EQ(pkt->headDataLength(), 0U);
}

TEST(Pkt, givesZeroedHeadDataThatItReadsBack) {
  for (const unsigned size : {1U, 40U, 1500U, 4096U, 9000U, 65575U}) {
    SCOPED_TRACE(size);
    {
      // Leave a used piece of memory behind for the next one to get.
      const auto used = globalPktManager()->newPkt();
      std::memset(used->newSharedHeadData(size), 0xa5, size);
    }
    const auto pkt = globalPktManager()->newPkt();
    uint8_t* data = pkt->newSharedHeadData(size);
    EXPECT_EQ(pkt->headData(), data);
    EXPECT_EQ(pkt->headDataLength(), size);
    EXPECT_TRUE(std::all_of(data, data + size, [](uint8_t byte) { return byte == 0; }));
    std::memset(data, 0x5a, size);
    EXPECT_EQ(pkt->headData()[size - 1], 0x5a);
  }
}

TEST(Pkt, takesHeadDataOfNoBytes) {
  const auto pkt = globalPktManager()->newPkt();
  EXPECT_NE(pkt->newSharedHeadData(0), nullptr);
  EXPECT_TRUE(pkt->hasHeadData());
  EXPECT_EQ(pkt->headDataLength(), 0U);
}

TEST(Pkt, replacesItsHeadDataAndGivesBackAllMemory) {
  const uint64_t before = NySlab::stats().liveObjects;
  {
    const auto pkt = globalPktManager()->newPkt();
    std::memset(pkt->newSharedHeadData(100), 0xff, 100);
    EXPECT_EQ(NySlab::stats().liveObjects, before + 3);  // packet, head data, its bytes
    const uint8_t* data = pkt->newSharedHeadData(200);
    EXPECT_EQ(pkt->headDataLength(), 200U);
    EXPECT_TRUE(std::all_of(data, data + 200, [](uint8_t byte) { return byte == 0; }));
    EXPECT_EQ(NySlab::stats().liveObjects, before + 3);

    const Orp::Ptr<Pkt> second = pkt;
    EXPECT_EQ(second->headData(), data);
  }
  EXPECT_EQ(NySlab::stats().liveObjects, before);
}

TEST(PktDeathTest, stopsWhenHeadDataIsAskedOfAPacketWithout) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto pkt = globalPktManager()->newPkt();
  EXPECT_DEATH(pkt->headData(), "Check failed: firstIoVec_ != maxIovecs_");
}

}  // namespace
}  // namespace Nynet
