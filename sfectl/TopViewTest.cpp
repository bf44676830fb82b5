#include "sfectl/TopView.h"

#include <gtest/gtest.h>

namespace Sfectl {
namespace {

using Style = TopLine::Style;

TopSample sample(int second) {
  TopSample result;
  result.time += std::chrono::seconds(second);
  result.daemon = "up 5 s";
  const auto n = static_cast<uint64_t>(second);
  result.interfaces["Ethernet2"] = {.rxPackets = n * 1000, .rxBytes = n * 125'000};
  result.interfaces["Ethernet10"] = {
      .txPackets = n * 2000, .txBytes = n * 250'000, .dropped = n * 3};
  result.routes[{"default", "239.1.1.1", "10.0.0.2"}] = {"Ethernet2", 2, n * 10, n * 1000, 0, 0, 0};
  result.routes[{"default", "239.1.1.2", "10.0.0.2"}] = {"Ethernet2", 0, n * 5, n * 5000,
                                                         n,           0, n * 7};
  return result;
}

std::vector<std::string> firstWords(const std::vector<TopLine>& lines, size_t column) {
  std::vector<std::string> words;
  for (const TopLine& line : lines) {
    size_t at = 0;
    for (size_t skip = column; skip > 0; --skip) {
      at = line.text.find_first_not_of(' ', line.text.find(' ', at));
    }
    words.push_back(line.text.substr(at, line.text.find(' ', at) - at));
  }
  return words;
}

TEST(TopView, showsRatesInTables) {
  const TopSample now = sample(4);
  EXPECT_EQ(topText(now, topTables(sample(2), now, TopOrder::kPackets), TopOrder::kPackets),
            "up 5 s, sorted by packets\n"
            "\n"
            "INTERFACE   RX-PKT/S  RX-BIT/S  TX-PKT/S  TX-BIT/S  QUEUED/S  DROPPED/S\n"
            "Ethernet10         0         0      2.0k      2.0M         0        3.0\n"
            "Ethernet2       1.0k      1.0M         0         0         0          0\n"
            "\n"
            "SOURCE    GROUP      VRF      IIF        OIFS  PKT/S  BIT/S  WRONG-IIF/S  QUEUED/S  "
            "DROPPED/S\n"
            "10.0.0.2  239.1.1.1  default  Ethernet2     2     10   8.0k            0         0  "
            "        0\n"
            "10.0.0.2  239.1.1.2  default  Ethernet2     0    5.0  40.0k          1.0         0  "
            "      7.0\n");
}

TEST(TopView, sortsByWhatIsAskedFor) {
  const TopSample now = sample(3);
  const auto groups = [&](TopOrder order) {
    return firstWords(topTables(sample(2), now, order).routes, 1)[1];
  };
  EXPECT_EQ(groups(TopOrder::kPackets), "239.1.1.1");
  EXPECT_EQ(groups(TopOrder::kBits), "239.1.1.2");
  EXPECT_EQ(groups(TopOrder::kDrops), "239.1.1.2");
  EXPECT_EQ(groups(TopOrder::kName), "239.1.1.1");
  const auto interfaces = topTables(sample(2), now, TopOrder::kName).interfaces;
  EXPECT_EQ(firstWords(interfaces, 0)[1], "Ethernet2");
}

TEST(TopView, goesThroughEveryOrder) {
  TopOrder order = TopOrder::kPackets;
  std::string names;
  for (int i = 0; i < 5; ++i, order = next(order)) {
    names += std::string(nameOf(order)) + " ";
  }
  EXPECT_EQ(names, "packets bits drops name packets ");
}

TEST(TopView, marksWhatLosesPacketsNow) {
  const auto tables = topTables(sample(2), sample(3), TopOrder::kName);
  ASSERT_EQ(tables.routes.size(), 3U);
  EXPECT_EQ(tables.routes[0].style, Style::kTitle);
  EXPECT_EQ(tables.routes[1].style, Style::kPlain);
  EXPECT_EQ(tables.routes[2].style, Style::kAlarm);
  EXPECT_EQ(tables.interfaces[2].style, Style::kAlarm);
  // Drops of the past are no alarm.
  TopSample quiet = sample(3);
  quiet.time += std::chrono::seconds(1);
  EXPECT_EQ(topTables(sample(3), quiet, TopOrder::kName).routes[2].style, Style::kPlain);
}

TEST(TopView, givesNoRateToWhatIsNew) {
  TopSample before = sample(2);
  before.routes.clear();
  const auto lines = topTables(before, sample(3), TopOrder::kName).routes;
  EXPECT_EQ(lines[1].text,
            "10.0.0.2  239.1.1.1  default  Ethernet2     2      0      0            0         0  "
            "        0");
}

TEST(TopView, fillsAScreenOfAnySize) {
  TopSample now = sample(3);
  for (int i = 10; i < 60; ++i) {
    now.routes[{"default", "239.2.1." + std::to_string(i), "10.0.0.2"}] = {};
  }
  const auto tables = topTables(sample(2), now, TopOrder::kName);
  for (const size_t lines : {0U, 1U, 2U, 5U, 8U, 24U, 200U}) {
    const auto screen = topScreen(now, tables, TopOrder::kName, lines, 0);
    EXPECT_EQ(screen.size(), lines);
    if (lines > 0) {
      EXPECT_EQ(screen.back().text.substr(0, 6), "q quit");
    }
  }
  const auto screen = topScreen(now, tables, TopOrder::kName, 24, 2);
  EXPECT_EQ(screen[2].text, tables.interfaces[0].text);
  EXPECT_EQ(screen[6].text, tables.routes[0].text);
  EXPECT_EQ(screen[7].text, tables.routes[3].text);
}

TEST(TopView, letsNoControlCharacterThrough) {
  TopSample now = sample(3);
  now.interfaces["evil\x1b[2J"] = {};
  const auto text = topText(now, topTables(now, now, TopOrder::kName), TopOrder::kName);
  EXPECT_EQ(text.find('\x1b'), std::string::npos);
  EXPECT_NE(text.find("evil?[2J"), std::string::npos);
}

}  // namespace
}  // namespace Sfectl
