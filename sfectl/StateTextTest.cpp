#include "sfectl/StateText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "sfectl/Errors.h"

namespace Sfectl {
namespace {

using ::testing::HasSubstr;

StateText stateOf(std::string_view text) {
  return {"state 'test' of m", std::vector<char>(text.begin(), text.end())};
}

template <class F>
std::string errorOf(F action) {
  try {
    action();
  } catch (const RuntimeError& error) {
    return error.what();
  }
  return "";
}

TEST(StateText, givesFieldsByTheNamesOfTheirColumns) {
  const StateText text = stateOf("a\tb\tlater\n1\tx\t?\n\ty\t\n");
  ASSERT_EQ(text.size(), 2U);
  const size_t a = text.column("a");
  const size_t b = text.column("b");
  EXPECT_EQ(text.row(0)[a], "1");
  EXPECT_EQ(text.row(0)[b], "x");
  EXPECT_EQ(text.row(1)[a], "");
  EXPECT_EQ(text.row(1)[b], "y");
}

TEST(StateText, hasNoRowsWithTheNamesAlone) {
  EXPECT_EQ(stateOf("a\tb\n").size(), 0U);
  EXPECT_EQ(stateOf("a\tb").size(), 0U);
}

TEST(StateText, takesALastLineWithoutItsEnd) {
  const StateText text = stateOf("a\n1\n2");
  ASSERT_EQ(text.size(), 2U);
  EXPECT_EQ(text.row(1)[0], "2");
}

TEST(StateText, keepsItsFieldsWhenItIsMoved) {
  StateText first = stateOf("a\n1\n");
  const StateText second = std::move(first);
  EXPECT_EQ(second.row(0)[second.column("a")], "1");
}

TEST(StateText, readsNumbers) {
  const StateText text = stateOf("n\n18446744073709551615\n\n-1\n");
  ASSERT_EQ(text.size(), 3U);
  EXPECT_EQ(text.number(text.row(0), 0), UINT64_MAX);
  EXPECT_EQ(text.number(text.row(1), 0), 0U);
  EXPECT_THAT(errorOf([&] { text.number(text.row(2), 0); }), HasSubstr("'-1' in column 'n'"));
}

TEST(StateText, saysWhatDoesNotFit) {
  EXPECT_THAT(errorOf([] { stateOf(""); }), HasSubstr("state 'test' of m is empty"));
  EXPECT_THAT(errorOf([] { stateOf("a\tb\n1\t2\n1\n"); }),
              HasSubstr("1 fields in line 3 and 2 columns"));
  EXPECT_THAT(errorOf([] { stateOf("a\n1\t2\n"); }), HasSubstr("2 fields in line 2"));
  EXPECT_THAT(errorOf([] { return stateOf("a\n").column("b"); }), HasSubstr("no column 'b'"));
}

TEST(StateText, readsManyRoutesAtOnce) {
  std::string text = "source\tgroup\tiif\toifs\n";
  for (int i = 0; i < 100'000; ++i) {
    text += "10.0.0." + std::to_string(i % 256) + "\t239.1.1.1\tEthernet1\tEthernet2:1\n";
  }
  std::vector<char> bytes(text.begin(), text.end());
  const auto before = std::chrono::steady_clock::now();
  const StateText state("routes", std::move(bytes));
  const auto spent = std::chrono::steady_clock::now() - before;
  EXPECT_EQ(state.size(), 100'000U);
  // A hundred times what it takes: only a change of its order of growth fails here.
  EXPECT_LT(spent, std::chrono::seconds(2));
}

}  // namespace
}  // namespace Sfectl
