#include "sfectl/DropReasons.h"

#include <gtest/gtest.h>

#include "sfectl/Errors.h"

namespace Sfectl {
namespace {

StateText metrics(const std::string& rows) {
  const std::string text = "type\tname\thelp\tlabels\tvalue\n" + rows;
  return {"metrics", std::vector<char>(text.begin(), text.end())};
}

std::string drop(const std::string& reason, const std::string& packets) {
  return "counter\tmfib_dropped_packets_total\thelp\tvrf=a,reason=" + reason + ",family=ipv4\t" +
         packets + "\n";
}

TEST(DropReasons, areWordsInTheOrderOfThePacketsWay) {
  const auto reasons =
      dropReasons(metrics(drop("\"ttl\"", "3") + "gauge\tmfib_routes\thelp\tvrf=a,reason=no\t9\n" +
                          drop("new_one", "1") + drop("cut_off", "0")));
  std::string text;
  for (const DropReason& reason : reasons) {
    text += reason.words + ": " + std::to_string(reason.packets) + "\n";
  }
  EXPECT_EQ(text, "a header is not all there: 0\nTTL or hop limit used up: 3\nnew_one: 1\n");
}

TEST(DropReasons, mustBeNumbers) {
  EXPECT_THROW(dropReasons(metrics(drop("ttl", "many"))), RuntimeError);
}

}  // namespace
}  // namespace Sfectl
