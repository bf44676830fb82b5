#include "sfectl/PcapStream.h"

#include <gtest/gtest.h>

#include <cstring>

#include "sfectl/Errors.h"

namespace Sfectl {
namespace {

std::string word(uint32_t value) {
  return {reinterpret_cast<const char*>(&value), sizeof(value)};
}

const std::string kHeader = word(0xa1b23c4d) + std::string(20, 'h');

std::string record(const std::string& packet) {
  const auto size = static_cast<uint32_t>(packet.size());
  return word(1) + word(2) + word(size) + word(size) + packet;
}

TEST(PcapStream, givesTheBytesUnchangedHoweverTheyCome) {
  const std::string whole = kHeader + record("first") + record("") + record(std::string(2000, 'x'));
  for (const size_t step : {size_t{1}, size_t{7}, size_t{24}, whole.size()}) {
    PcapStream stream;
    std::string got;
    for (size_t at = 0; at < whole.size(); at += step) {
      stream.add(std::string_view(whole).substr(at, step));
      while (const auto part = stream.next()) {
        got += *part;
      }
    }
    EXPECT_EQ(got, whole) << step;
    EXPECT_EQ(stream.records(), 3U) << step;
  }
}

TEST(PcapStream, keepsBackWhatIsNotAllThere) {
  PcapStream stream;
  stream.add(kHeader + record("packet").substr(0, 18));
  EXPECT_EQ(stream.next(), kHeader);
  EXPECT_EQ(stream.next(), std::nullopt);
  EXPECT_EQ(stream.records(), 0U);
}

TEST(PcapStream, refusesWhatIsNoCapture) {
  PcapStream text;
  text.add("this is a text, and no capture at all");
  EXPECT_THROW(text.next(), RuntimeError);
  PcapStream huge;
  huge.add(kHeader + word(1) + word(2) + word(1 << 30) + word(1 << 30));
  huge.next();
  EXPECT_THROW(huge.next(), RuntimeError);
}

}  // namespace
}  // namespace Sfectl
