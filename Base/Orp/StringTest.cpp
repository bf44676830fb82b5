#include "Base/Orp/String.h"

#include <gtest/gtest.h>

#include <sstream>
#include <unordered_set>

namespace Orp {
namespace {

template <class F>
std::string thrownText(F&& f) {
  try {
    f();
  } catch (const RangeException& e) {
    return e.what();
  }
  return "(nothing thrown)";
}

TEST(String, holdsUpToItsMaximum) {
  const String<4> empty;
  EXPECT_EQ(empty.bytes(), 0u);
  EXPECT_STREQ(empty.c_str(), "");
  const String<4> full("abcd");
  EXPECT_EQ(full.bytes(), 4u);
  EXPECT_EQ(full.maxLength(), 4u);
  EXPECT_STREQ(full.c_str(), "abcd");
  EXPECT_EQ(full.str(), "abcd");
}

TEST(String, refusesOneByteMore) {
  EXPECT_EQ(thrownText([] { String<4>("abcde"); }), "Orp::String::bytes > maxLength() not allowed");
}

TEST(String, refusesWithItsOwnersText) {
  EXPECT_EQ(thrownText(
                [] { String<150>(std::string(151, 'x'), "Orp::String::bytes > 150 not allowed"); }),
            "Orp::String::bytes > 150 not allowed");
  EXPECT_EQ(String<150>(std::string(150, 'x'), "unused").bytes(), 150u);
}

TEST(String, keepsItsValueWhenAnAssignmentIsRefused) {
  String<4> s("abc");
  EXPECT_THROW(s = "too long", RangeException);
  EXPECT_EQ(s, "abc");
}

TEST(String, isAnOutOfRangeToThoseWhoDoNotKnowIt) {
  EXPECT_THROW(String<1>("ab"), std::out_of_range);
}

TEST(String, assignsAPartOfItself) {
  String<8> s("abcdef");
  s = s.view().substr(2);
  EXPECT_EQ(s, "cdef");
  EXPECT_STREQ(s.c_str(), "cdef");
}

TEST(String, keepsZeroBytes) {
  const std::string_view text("a\0b", 3);
  const String<4> s(text);
  EXPECT_EQ(s.bytes(), 3u);
  EXPECT_EQ(s.view(), text);
}

TEST(String, comparesByContentAcrossSizes) {
  EXPECT_EQ(String<4>("ab"), String<9>("ab"));
  EXPECT_NE(String<4>("ab"), String<4>("abc"));
  EXPECT_LT(String<4>("ab"), String<4>("b"));
  const std::unordered_set<String<4>> set = {String<4>("x"), String<4>("x"), String<4>("y")};
  EXPECT_EQ(set.size(), 2u);
}

TEST(String, printsItsText) {
  std::ostringstream out;
  out << String<8>("ns-red");
  EXPECT_EQ(out.str(), "ns-red");
}

TEST(String, clears) {
  String<4> s("ab");
  s.clear();
  EXPECT_TRUE(s.empty());
  EXPECT_STREQ(s.c_str(), "");
}

}  // namespace
}  // namespace Orp
