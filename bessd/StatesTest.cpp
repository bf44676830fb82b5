#include "bessd/States.h"

#include <gtest/gtest.h>

#include <sstream>
#include <system_error>
#include <thread>

#include "Base/NyToggles/NyToggles.h"
#include "Base/Trace.h"

namespace Bessd {
namespace {

std::string text(const std::string& name, const std::string& arg) {
  const auto states = ownStates();
  const bess::State* found = bess::findState(states, name);
  return found == nullptr ? "no state" : found->text(arg);
}

struct TraceRow {
  uint64_t time;
  std::string thread;
  int level;
  std::string function;
  std::string message;
};

std::vector<TraceRow> trace(const std::string& arg) {
  std::istringstream in(text("trace", arg));
  std::string line;
  std::getline(in, line);
  EXPECT_EQ(line, "time_ns\tthread\tlevel\tfunction\ttext");
  std::vector<TraceRow> rows;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string time;
    std::string level;
    TraceRow row;
    std::getline(fields, time, '\t');
    std::getline(fields, row.thread, '\t');
    std::getline(fields, level, '\t');
    std::getline(fields, row.function, '\t');
    std::getline(fields, row.message, '\t');
    row.time = std::stoull(time);
    row.level = std::stoi(level);
    rows.push_back(row);
  }
  return rows;
}

void fromOneFunction(int value) {
  SFE_TRACE("Test", 3, "value ", value);
}
void fromAnotherFunction(const std::string& value) {
  SFE_TRACE("Test", 7, "text ", value);
}

TEST(TraceState, mergesTheThreadsInTimeOrder) {
  fromAnotherFunction("this thread has its number before the others have theirs");
  for (int i = 0; i < 10; ++i) {
    std::thread([i] { fromOneFunction(i); }).join();
    fromOneFunction(100 + i);
  }
  const auto rows = trace("function=fromOneFunction");
  ASSERT_EQ(rows.size(), 20U);
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(rows[2 * i].message, "value " + std::to_string(i));
    EXPECT_EQ(rows[2 * i + 1].message, "value " + std::to_string(100 + i));
    EXPECT_NE(rows[2 * i].thread, rows[2 * i + 1].thread);
  }
  EXPECT_LE(rows.front().time, rows.back().time);
  EXPECT_TRUE(rows[0].function.ends_with("::fromOneFunction")) << rows[0].function;
}

TEST(TraceState, filtersByLevelFunctionAndCount) {
  fromOneFunction(1);
  fromAnotherFunction("a\tb\nc");
  fromOneFunction(2);
  const auto newest = trace("count=2");
  ASSERT_EQ(newest.size(), 2U);
  EXPECT_EQ(newest[0].message, "text a?b?c");
  EXPECT_EQ(newest[0].level, 7);
  EXPECT_EQ(newest[1].message, "value 2");
  EXPECT_TRUE(trace("count=0").empty());
  EXPECT_TRUE(trace("function=nothingOfThatName").empty());
  for (const TraceRow& row : trace("level=3")) {
    EXPECT_LE(row.level, 3);
  }
  EXPECT_TRUE(trace("level=3 function=fromAnother").empty());
  EXPECT_FALSE(trace("level=7 function=fromAnother count=100").empty());
}

TEST(TraceState, refusesSenselessArguments) {
  for (const char* arg : {"x", "level=10", "level=-1", "count=x", "levels=1", "level=1 level=2"}) {
    EXPECT_THROW(text("trace", arg), std::system_error) << arg;
  }
}

TEST(FunctionName, isTheQualifiedNameOnly) {
  EXPECT_EQ(functionName("CommandResponse A::B::f(const c::D&)"), "A::B::f");
  EXPECT_EQ(functionName("void f()"), "f");
  EXPECT_EQ(functionName("A::A(int, char)"), "A::A");
  EXPECT_EQ(functionName("std::map<int, std::function<void (int)>> A<b, c>::f(int)"), "A<b, c>::f");
  EXPECT_EQ(functionName("void A::{anonymous}::f(int)"), "A::{anonymous}::f");
  EXPECT_EQ(functionName("void A::(anonymous namespace)::f(int)"), "A::(anonymous namespace)::f");
  EXPECT_EQ(functionName("plain"), "plain");
  EXPECT_EQ(functionName(""), "");
}

TEST(TogglesState, listsWhatWasAskedFor) {
  setToggleDirectory("/nonexistent");
  getToggleState("Shown", "Owner.json", true);
  const std::string shown = text("toggles", "");
  EXPECT_TRUE(shown.starts_with("owner\tname\tvalue\n")) << shown;
  EXPECT_NE(shown.find("Owner.json\tShown\t1\n"), std::string::npos) << shown;
  EXPECT_THROW(text("toggles", "x"), std::system_error);
}

}  // namespace
}  // namespace Bessd
