#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <system_error>

#include "Bess/StateTable.h"

namespace bess {
namespace {

int errorOf(const std::function<void()>& what) {
  try {
    what();
    return 0;
  } catch (const std::system_error& error) {
    return error.code().value();
  }
}

TEST(StateTable, separatesFieldsAndEndsRows) {
  StateTable table({"name", "value", "on"});
  table.row("a", 12, true);
  table.row("", uint64_t{18446744073709551615U}, false);
  table.field(-3).raw() += "own";
  table.endRow();
  EXPECT_EQ(table.take(), "name\tvalue\ton\na\t12\t1\n\t18446744073709551615\t0\n-3\town\n");
}

TEST(StateTable, replacesWhatWouldBreakTheTable) {
  StateTable table({"x"});
  table.row(std::string_view("a\tb\nc\x7f\0d\xc3\xa4", 10));
  EXPECT_EQ(table.take(), "x\na?b?c??d\xc3\xa4\n");
}

TEST(StateArgs, readsWordsAndOptions) {
  const StateArgs args("  10.0.0.1 ttl=3\t239.1.1.1 name= ", 2, {"ttl", "name"}, "SRC GROUP");
  EXPECT_EQ(args.word(0), "10.0.0.1");
  EXPECT_EQ(args.word(1), "239.1.1.1");
  EXPECT_EQ(args.number("ttl", 64, 255), 3u);
  EXPECT_EQ(args.number("len", 64, 255), 64u);
  ASSERT_NE(args.option("name"), nullptr);
  EXPECT_EQ(*args.option("name"), "");
  EXPECT_EQ(args.option("len"), nullptr);
}

TEST(StateArgs, refusesWhatItDoesNotTake) {
  EXPECT_EQ(errorOf([] { StateArgs("a b", 1, {}, ""); }), EINVAL);
  EXPECT_EQ(errorOf([] { StateArgs("", 1, {}, ""); }), EINVAL);
  EXPECT_EQ(errorOf([] { StateArgs("x=1", 0, {"y"}, ""); }), EINVAL);
  EXPECT_EQ(errorOf([] { StateArgs("x=1 x=2", 0, {"x"}, ""); }), EINVAL);
  EXPECT_EQ(errorOf([] { StateArgs("x=1", 0, {"x"}, ""); }), 0);
}

TEST(StateArgs, refusesNumbersThatAreNone) {
  for (const char* text : {"x=", "x=-1", "x=256", "x=1a", "x=99999999999999999999999"}) {
    const StateArgs args(text, 0, {"x"}, "");
    EXPECT_EQ(errorOf([&args] { static_cast<void>(args.number("x", 0, 255)); }), EINVAL) << text;
  }
}

}  // namespace
}  // namespace bess
