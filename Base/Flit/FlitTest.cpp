#include "Base/Flit/Flit.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <barrier>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <thread>

#include "Base/Flit/Clock.h"
#include "Base/Flit/Encode.h"
#include "Base/Orp/ThreadSlot.h"

namespace Flit {
namespace {

uint32_t pointOf(std::string_view signature, int level = 3) {
  const std::array<std::string_view, 1> labels = {"n: "};
  const std::array<ArgKind, 1> kinds = {ArgKind::kU64};
  return registerPoint({signature, level, labels, kinds});
}

void appendNumberRecord(uint32_t point, uint64_t value) {
  append(point, &value, 1);
}

std::vector<Record> recordsOf(std::string_view signature, int maxLevel = 9) {
  std::vector<Record> all = read(maxLevel);
  std::erase_if(all, [&](const Record& r) { return !r.text.starts_with(signature); });
  return all;
}

TEST(Flit, rendersEveryKindOfValue) {
  const std::array<std::string_view, 5> labels = {"a ", " b ", " c ", " d ", " end"};
  const std::array<ArgKind, 4> kinds = {ArgKind::kU64, ArgKind::kI64, ArgKind::kU32, ArgKind::kStr};
  const uint32_t point = registerPoint({"void everyKind()", 3, labels, kinds});
  std::array<uint64_t, 3 + kMaxStringWords> words{};
  unsigned used = encodeArg(words.data(), ~uint64_t{0});
  used += encodeArg(words.data() + used, -5);
  used += encodeArg(words.data() + used, uint32_t{7});
  used += encodeArg(words.data() + used, std::string_view("text"));
  append(point, words.data(), used);
  const auto records = recordsOf("void everyKind()");
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].text, "void everyKind(): a 18446744073709551615 b -5 c 7 d text end");
  EXPECT_EQ(records[0].signature, "void everyKind()");
  EXPECT_EQ(records[0].message(), "a 18446744073709551615 b -5 c 7 d text end");
  EXPECT_EQ(records[0].level, 3);
  EXPECT_EQ(records[0].threadSlot, Orp::threadSlot());
}

TEST(Flit, cutsStringsToSixtyFourBytes) {
  const std::array<std::string_view, 1> labels = {""};
  const std::array<ArgKind, 1> kinds = {ArgKind::kStr};
  const uint32_t point = registerPoint({"void cuts()", 3, labels, kinds});
  for (const size_t bytes : {0, 1, 7, 8, 9, 63, 64, 65, 1000}) {
    std::array<uint64_t, kMaxStringWords> words{};
    append(point, words.data(), encodeString(words.data(), std::string(bytes, 'x')));
    EXPECT_EQ(recordsOf("void cuts()").back().text,
              "void cuts(): " + std::string(std::min(bytes, kMaxStringBytes), 'x'));
  }
}

TEST(Flit, givesTheSameDescriptionTheSameNumber) {
  EXPECT_EQ(pointOf("void same()"), pointOf(std::string("void same()")));
  EXPECT_NE(pointOf("void same()"), pointOf("void other()"));
  EXPECT_NE(pointOf("void same()", 3), pointOf("void same()", 4));
}

TEST(Flit, keepsItsOwnCopyOfADescription) {
  auto name = std::make_unique<std::string>("void unloadedLongAgo(int, int, int)");
  const uint32_t point = pointOf(*name);
  name.reset();
  appendNumberRecord(point, 1);
  EXPECT_EQ(recordsOf("void unloadedLongAgo(int, int, int): n: 1").size(), 1u);
}

TEST(Flit, leavesOutHigherLevelsWhenAsked) {
  appendNumberRecord(pointOf("void detail()", 7), 1);
  EXPECT_EQ(recordsOf("void detail()", 6).size(), 0u);
  EXPECT_EQ(recordsOf("void detail()", 7).size(), 1u);
}

TEST(Flit, mergesThreadsInTimeOrder) {
  const uint32_t point = pointOf("void merges()");
  constexpr unsigned kThreads = 3;
  constexpr unsigned kRounds = 50;
  std::barrier turn(kThreads);
  std::vector<std::jthread> threads;
  for (unsigned t = 0; t < kThreads; ++t) {
    threads.emplace_back([&turn, point, t] {
      for (unsigned round = 0; round < kRounds; ++round) {
        for (unsigned who = 0; who < kThreads; ++who) {
          if (who == t) {
            appendNumberRecord(point, round * kThreads + who);
          }
          turn.arrive_and_wait();
        }
      }
    });
  }
  threads.clear();
  const auto records = recordsOf("void merges()");
  ASSERT_EQ(records.size(), kThreads * kRounds);
  for (size_t i = 0; i < records.size(); ++i) {
    EXPECT_EQ(records[i].text, "void merges(): n: " + std::to_string(i));
  }
  EXPECT_TRUE(std::ranges::is_sorted(records, {}, &Record::timeNs));
}

TEST(Flit, stampsRecordsWithTheTimeOfDay) {
  constexpr uint64_t kMillisecond = 1'000'000;
  const uint64_t before = clockNs(CLOCK_REALTIME);
  appendNumberRecord(pointOf("void stamps()"), 1);
  const uint64_t after = clockNs(CLOCK_REALTIME);
  const auto records = recordsOf("void stamps()");
  ASSERT_EQ(records.size(), 1u);
  EXPECT_GE(records[0].timeNs + kMillisecond, before);
  EXPECT_LE(records[0].timeNs, after + kMillisecond);
}

TEST(Flit, keepsOnlyTheNewestRingsOfEndedThreads) {
  const uint32_t point = pointOf("void ends()");
  constexpr uint64_t kThreads = kMaxEndedRings + 5;
  for (uint64_t i = 0; i < kThreads; ++i) {
    std::thread([point, i] { appendNumberRecord(point, i); }).join();
  }
  const auto records = recordsOf("void ends()");
  ASSERT_EQ(records.size(), kMaxEndedRings);
  EXPECT_EQ(records.front().text, "void ends(): n: " + std::to_string(kThreads - kMaxEndedRings));
}

TEST(Flit, isReadWhileThreadsComeWriteAndGo) {
  const uint32_t point = pointOf("void storms()");
  std::vector<std::jthread> writers;
  std::atomic<unsigned> running = 3;
  for (int t = 0; t < 3; ++t) {
    writers.emplace_back([point, &running] {
      for (int life = 0; life < 20; ++life) {
        std::thread([point] {
          for (uint64_t i = 0; i < 3000; ++i) {
            appendNumberRecord(point, i);
          }
        }).join();
      }
      running.fetch_sub(1);
    });
  }
  while (running.load() != 0) {
    const auto records = read();
    ASSERT_TRUE(std::ranges::is_sorted(records, {}, &Record::timeNs));
  }
  EXPECT_FALSE(recordsOf("void storms()").empty());
}

TEST(Flit, ignoresANumberThatWasNeverGiven) {
  const size_t before = read().size();
  appendNumberRecord(0, 1);
  appendNumberRecord(~uint32_t{0}, 1);
  EXPECT_EQ(read().size(), before);
}

TEST(Flit, endsTheMessageOfARecordThatIsTooShort) {
  append(pointOf("void tooShort()"), nullptr, 0);
  EXPECT_EQ(recordsOf("void tooShort()").at(0).text, "void tooShort(): n: ");
  const std::array<std::string_view, 1> labels = {"s: "};
  const std::array<ArgKind, 1> kinds = {ArgKind::kStr};
  const uint64_t hugeLength = ~uint64_t{0};
  append(registerPoint({"void lies()", 3, labels, kinds}), &hugeLength, 1);
  EXPECT_EQ(recordsOf("void lies()").at(0).text, "void lies(): s: ");
}

TEST(Flit, printsOneLineForEachRecord) {
  const std::array<std::string_view, 1> labels = {"raw: "};
  const std::array<ArgKind, 1> kinds = {ArgKind::kStr};
  std::array<uint64_t, kMaxStringWords> words{};
  append(registerPoint({"void prints()", 6, labels, kinds}), words.data(),
         encodeString(words.data(), std::string_view("\n\x1b\xff~", 4)));
  char* text = nullptr;
  size_t bytes = 0;
  std::FILE* out = open_memstream(&text, &bytes);
  print(out);
  std::fclose(out);
  const std::string all(text, bytes);
  std::free(text);  // NOLINT(cppcoreguidelines-no-malloc): open_memstream's
  const std::string want =
      "Z " + std::to_string(Orp::threadSlot()) + " 6 void prints(): raw: \\x0a\\x1b\\xff~\n";
  EXPECT_NE(all.find(want), std::string::npos) << all;
  EXPECT_EQ(static_cast<size_t>(std::ranges::count(all, '\n')), read().size());
}

TEST(FlitDeathTest, refusesADescriptionWithTooFewLabels) {
  const std::array<ArgKind, 1> kinds = {ArgKind::kU64};
  EXPECT_DEATH(registerPoint({"void wrong()", 3, {}, kinds}), "void wrong");
}

}  // namespace
}  // namespace Flit
