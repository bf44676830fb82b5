#include "Base/Gemlog/Gemlog.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

namespace Gemlog {
namespace {

constexpr Where kHere = {__FILE__, __LINE__};

TEST(Gemlog, startsAFacilityAtLevelThree) {
  EXPECT_EQ(level("Fresh"), 3);
  EXPECT_TRUE(enabled("Fresh", 3));
  EXPECT_FALSE(enabled("Fresh", 4));
}

TEST(Gemlog, setsTheLevelOfOneFacilityAlone) {
  setLevel("One", 7);
  EXPECT_TRUE(enabled("One", 7));
  EXPECT_FALSE(enabled("One", 8));
  EXPECT_FALSE(enabled("Other", 7));
  EXPECT_EQ(&facility("One"), &facility(std::string("One")));
  EXPECT_EQ(facility("One").name(), "One");
}

TEST(Gemlog, readsLevelsFromAText) {
  setLevels("TextA/7,Text/B/5,TextC/-1");
  EXPECT_EQ(level("TextA"), 7);
  EXPECT_EQ(level("Text/B"), 5);
  EXPECT_EQ(level("TextC"), -1);
}

TEST(Gemlog, skipsPartsOfATextThatMakeNoSense) {
  testing::internal::CaptureStderr();
  setLevels("Bad,Bad/,/7,Bad/x,Bad/7x,Bad/99999999999,,Good/6");
  const std::string warned = testing::internal::GetCapturedStderr();
  EXPECT_EQ(level("Bad"), kDefaultLevel);
  EXPECT_EQ(level("Good"), 6);
  EXPECT_NE(warned.find("\"Bad/7x\" is not of the form Facility/level"), std::string::npos)
      << warned;
}

TEST(GemlogDeathTest, readsTheEnvironmentAtStart) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a new process, which reads it anew
  setenv("GEMLOG", "FromEnv/7,AlsoEnv/5", 1);
  EXPECT_EXIT(_exit(level("FromEnv") == 7 && level("AlsoEnv") == 5 ? 0 : 1),
              testing::ExitedWithCode(0), "");
  unsetenv("GEMLOG");
}

TEST(Gemlog, writesToTheProcessLog) {
  testing::internal::CaptureStderr();
  write("void f(): a line", {"dir/File.cpp", 42});
  const std::string logged = testing::internal::GetCapturedStderr();
  EXPECT_NE(logged.find("File.cpp:42] void f(): a line"), std::string::npos) << logged;
}

TEST(Capture, collectsTheLinesOfAllThreadsWhileItLives) {
  write("too early", kHere);
  const Capture outer;
  {
    const Capture inner;
    std::thread([] { write("from a thread", kHere); }).join();
    EXPECT_EQ(inner.lines(), std::vector<std::string>{"from a thread"});
  }
  write("after", kHere);
  EXPECT_TRUE(outer.contains("a thread"));
  EXPECT_TRUE(outer.contains("after"));
  EXPECT_FALSE(outer.contains("early"));
}

TEST(Capture, mayComeAndGoWhileOthersWrite) {
  std::jthread writer([] {
    for (int i = 0; i < 200; ++i) {
      write("line", kHere);
      setLevel("Moving", i % 9);
    }
  });
  for (int i = 0; i < 200; ++i) {
    const Capture capture;
    EXPECT_FALSE(capture.contains("no such line"));
    enabled("Moving", 5);
  }
}

}  // namespace
}  // namespace Gemlog
