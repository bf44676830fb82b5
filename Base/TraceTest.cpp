#include "Base/Trace.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "Base/Orp/String.h"

namespace {

enum class Kind : uint8_t { kWholePkt = 3 };

// The newest ring record whose text begins so.
std::string ringText(std::string_view start) {
  std::string newest = "(none)";
  for (const Flit::Record& record : Flit::read()) {
    if (record.text.starts_with(start)) {
      newest = record.text;
    }
  }
  return newest;
}

struct Traced {
  static void addItem(uint64_t iif, const std::string& source, int count) {
    SFE_TRACE("Test", 6, "iif: ", iif, ", source: ", source, ", count: ", count);
  }
};

class Trace : public testing::Test {
 protected:
  Trace() { Gemlog::setLevel("Test", 9); }
  Gemlog::Capture capture_;
};

TEST_F(Trace, writesTheSameTextToBothSinks) {
  Traced::addItem(18446744073709551615u, "10.0.0.1", -2);
  std::string line = capture_.lines().at(0);
  EXPECT_TRUE(line.starts_with("static void {anonymous}::Traced::addItem(uint64_t") ||
              line.starts_with("static void (anonymous namespace)::Traced::addItem(uint64_t"))
      << line;
  EXPECT_TRUE(line.ends_with("): iif: 18446744073709551615, source: 10.0.0.1, count: -2")) << line;
  EXPECT_EQ(ringText(line.substr(0, line.find(": iif"))), line);
}

TEST_F(Trace, endsInALabelWithoutAValue) {
  SFE_TRACE_AS("void add()", "Test", 3, "Adding ", std::string("/x"), " to the fuse registry. ");
  EXPECT_EQ(capture_.lines().at(0), "void add(): Adding /x to the fuse registry. ");
  EXPECT_EQ(ringText("void add()"), "void add(): Adding /x to the fuse registry. ");
}

TEST_F(Trace, writesASignatureAlone) {
  SFE_TRACE_AS("void fuseInit()", "Test", 3, "");
  EXPECT_EQ(capture_.lines().at(0), "void fuseInit(): ");
  EXPECT_EQ(ringText("void fuseInit()"), "void fuseInit(): ");
}

TEST_F(Trace, takesValuesOfEveryType) {
  const char* none = nullptr;
  SFE_TRACE_AS("void types()", "Test", 3, "", uint8_t{200}, " ", int8_t{-1}, " ", true, " ",
               Kind::kWholePkt, " ", Orp::String<8>("bounded"), " ", "literal", " ", none, " ",
               std::string_view("view"));
  const std::string want = "void types(): 200 -1 1 3 bounded literal (null) view";
  EXPECT_EQ(capture_.lines().at(0), want);
  EXPECT_EQ(ringText("void types()"), want);
}

TEST_F(Trace, keepsLongStringsWholeInTheTextOnly) {
  const std::string text(100, 'y');
  SFE_TRACE_AS("void longText()", "Test", 3, "s: ", text);
  EXPECT_EQ(capture_.lines().at(0), "void longText(): s: " + text);
  EXPECT_EQ(ringText("void longText()"), "void longText(): s: " + text.substr(0, 64));
}

TEST_F(Trace, followsTheFacilitysLevelInTheTextOnly) {
  const auto run = [](int n) { SFE_TRACE_AS("void levels()", "Test", 6, "n: ", n); };
  Gemlog::setLevel("Test", 5);
  run(1);
  EXPECT_EQ(ringText("void levels()"), "void levels(): n: 1");
  EXPECT_TRUE(capture_.lines().empty());
  Gemlog::setLevel("Test", 6);
  run(2);
  EXPECT_EQ(capture_.lines(), std::vector<std::string>{"void levels(): n: 2"});
}

TEST_F(Trace, evaluatesItsValuesOnce) {
  int calls = 0;
  Gemlog::setLevel("Test", 0);
  SFE_TRACE_AS("void once()", "Test", 3, "n: ", ++calls);
  EXPECT_EQ(calls, 1);
}

TEST_F(Trace, isRegisteredOnceByManyThreads) {
  Gemlog::setLevel("Test", 0);
  std::vector<std::jthread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (unsigned i = 0; i < 100; ++i) {
        SFE_TRACE_AS("void crowd()", "Test", 6, "i: ", i);
      }
    });
  }
  threads.clear();
  const auto records = Flit::read();
  EXPECT_EQ(std::ranges::count_if(records,
                                  [](const auto& r) { return r.text.starts_with("void crowd()"); }),
            400);
}

TEST_F(Trace, outlivesTheLibraryThatWroteIt) {
  Gemlog::setLevel("Plugin", 9);
  for (unsigned round = 1; round <= 3; ++round) {
    void* library = dlopen(TRACE_TEST_PLUGIN, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    auto* run = reinterpret_cast<void (*)(unsigned)>(dlsym(library, "tracePluginRun"));
    ASSERT_NE(run, nullptr);
    run(round);
    ASSERT_EQ(dlclose(library), 0);
    ASSERT_EQ(dlopen(TRACE_TEST_PLUGIN, RTLD_NOW | RTLD_NOLOAD), nullptr) << "still loaded";
    const std::string want =
        "void tracePluginRun(unsigned int): From a library: " + std::to_string(round) +
        ", which goes";
    EXPECT_EQ(ringText("void tracePluginRun(unsigned int)"), want);
    EXPECT_EQ(capture_.lines().back(), want);
  }
}

}  // namespace
