#include "SfeModules/ForwardingMetadata.h"

#include <gtest/gtest.h>

#include <cstring>

namespace SfeModules {
namespace {

TEST(ForwardingMetadata, readsAbsentAttributesAsZero) {
  ForwardingMetadata metadata;
  std::memset(&metadata, 0xff, sizeof(metadata));
  metadata.presence = 0;
  EXPECT_EQ(metadata.inIntfOrZero(), 0U);
  EXPECT_EQ(metadata.outIntfOrZero(), 0U);
  EXPECT_EQ(metadata.vrfIdOrZero(), 0U);
  EXPECT_EQ(metadata.encapHintOrZero(), 0U);
  EXPECT_EQ(metadata.qosMarkOrZero(), 0U);
  EXPECT_EQ(metadata.carriedWord1OrZero(), 0U);
  EXPECT_EQ(metadata.carriedWord2OrZero(), 0U);
  EXPECT_EQ(metadata.vlanIdOrZero(), 0U);
  EXPECT_EQ(metadata.gateSelectOrZero(), 0U);
  EXPECT_EQ(metadata.carriedByteOrZero(), 0U);
}

TEST(ForwardingMetadata, takesEachAttributeFromItsPlace) {
  uint8_t bytes[sizeof(ForwardingMetadata)] = {};
  // presence: bits 0 1 2 3 / 12 13 / 16 17 / 24 / 36
  bytes[0] = 0x0f;
  bytes[1] = 0x30;
  bytes[2] = 0x03;
  bytes[3] = 0x01;
  bytes[4] = 0x10;
  for (size_t at : {16, 24, 32, 36, 44, 48, 52, 62, 66, 67}) {
    bytes[at] = static_cast<uint8_t>(at);
  }
  ForwardingMetadata metadata;
  std::memcpy(&metadata, bytes, sizeof(metadata));
  EXPECT_EQ(metadata.inIntfOrZero(), 16U);
  EXPECT_EQ(metadata.outIntfOrZero(), 24U);
  EXPECT_EQ(metadata.vrfIdOrZero(), 32U);
  EXPECT_EQ(metadata.encapHintOrZero(), 36U);
  EXPECT_EQ(metadata.qosMarkOrZero(), 44U);
  EXPECT_EQ(metadata.carriedWord1OrZero(), 48U);
  EXPECT_EQ(metadata.carriedWord2OrZero(), 52U);
  EXPECT_EQ(metadata.vlanIdOrZero(), 62U);
  EXPECT_EQ(metadata.gateSelectOrZero(), 66U);
  EXPECT_EQ(metadata.carriedByteOrZero(), 67U);
}

}  // namespace
}  // namespace SfeModules
