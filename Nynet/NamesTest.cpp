#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>

#include "Base/Orp/RangeException.h"
#include "Nynet/NamespaceName.h"
#include "Nynet/VrfName.h"

namespace {

using L3::VrfName;
using Nynet::NamespaceName;

std::string refusalOf(const std::function<void()>& build) {
  try {
    build();
  } catch (const Orp::RangeException& refused) {
    return refused.what();
  }
  return "accepted";
}

TEST(NamespaceName, holdsUpTo150Bytes) {
  const std::string longest(150, 'n');
  EXPECT_EQ(NamespaceName(longest).str(), longest);
  EXPECT_EQ(refusalOf([&] { NamespaceName(longest + 'n'); }),
            "Orp::String::bytes > 150 not allowed");
}

TEST(NamespaceName, knowsTheDefault) {
  EXPECT_TRUE(NamespaceName::defaultNamespace().isDefault());
  EXPECT_EQ(NamespaceName::defaultNamespace().str(), "default");
  EXPECT_FALSE(NamespaceName("ns-red").isDefault());
  EXPECT_FALSE(NamespaceName().isDefault());
  EXPECT_TRUE(NamespaceName().empty());
}

TEST(NamespaceName, comparesAndStreamsItsText) {
  std::ostringstream out;
  out << NamespaceName("ns-red");
  EXPECT_EQ(out.str(), "ns-red");
  EXPECT_EQ(NamespaceName("ns-red"), NamespaceName("ns-red"));
  EXPECT_NE(NamespaceName("ns-red"), NamespaceName("ns-blue"));
}

TEST(VrfName, holdsUpTo100Bytes) {
  const std::string longest(100, 'v');
  EXPECT_EQ(VrfName(longest).str(), longest);
  EXPECT_EQ(refusalOf([&] { VrfName(longest + 'v'); }),
            "Orp::String::bytes > maxLength() not allowed");
}

TEST(VrfName, knowsTheDefault) {
  EXPECT_EQ(VrfName::defaultVrf(), VrfName("default"));
  EXPECT_TRUE(VrfName("default").isDefault());
  EXPECT_FALSE(VrfName("red").isDefault());
  EXPECT_NE(VrfName("red"), VrfName("default"));
}

}  // namespace
