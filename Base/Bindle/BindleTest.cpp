#include <gtest/gtest.h>

#include "Base/Bindle/Exceptions.h"
#include "Base/Bindle/String.h"
#include "Base/Bindle/UnorderedMapTransient.h"
#include "Base/NySlab/NySlab.h"

namespace Bindle {
namespace {

TEST(UnorderedMapTransient, takesItsNodesFromTheSlabsAndGivesThemBack) {
  const uint64_t before = NySlab::stats().liveObjects;
  {
    UnorderedMapTransient<uint64_t, int> map(1);
    for (uint64_t i = 0; i < 100; ++i) {
      map[i] = static_cast<int>(2 * i);
    }
    EXPECT_EQ(map.at(41), 82);
    EXPECT_GE(NySlab::stats().liveObjects, before + 100);
  }
  EXPECT_EQ(NySlab::stats().liveObjects, before);
}

TEST(UnorderedMapTransient, movesItsNodesToAnotherMap) {
  UnorderedMapTransient<int, int> a;
  a[1] = 10;
  UnorderedMapTransient<int, int> b;
  b = std::move(a);
  EXPECT_EQ(b.at(1), 10);
}

TEST(BindleString, growsOverTheSlabsAndConverts) {
  const uint64_t before = NySlab::stats().liveObjects;
  {
    String s("ns-");
    s += std::string(500, 'x');
    EXPECT_EQ(toStd(s), "ns-" + std::string(500, 'x'));
    EXPECT_EQ(fromStd("ns-").size(), 3u);
    EXPECT_EQ(NySlab::stats().liveObjects, before + 1);
  }
  EXPECT_EQ(NySlab::stats().liveObjects, before);
}

TEST(CorruptionDetectedException, isARuntimeErrorWithItsText) {
  try {
    throw CorruptionDetectedException("record 7: bad checksum");
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "record 7: bad checksum");
  }
}

}  // namespace
}  // namespace Bindle
