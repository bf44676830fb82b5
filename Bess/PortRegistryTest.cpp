#include "Bess/PortRegistry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

#include "Bess/Testing/ModuleHarness.h"

namespace bess {
namespace {

using ::testing::HasSubstr;

class PortRegistryTest : public ::testing::Test {
 protected:
  Port* create(const std::string& name, const std::string& devargs) {
    PortConfig config;
    config.name = name;
    config.devargs = devargs;
    return registry_.create(config);
  }

  static std::string refusal(int errnoValue, const std::function<void()>& fn) {
    try {
      fn();
    } catch (const PortError& error) {
      EXPECT_EQ(error.errnoValue(), errnoValue);
      return error.what();
    }
    ADD_FAILURE() << "not refused";
    return "";
  }

  testing::ModuleHarness harness_;
  PortRegistry registry_;
};

TEST_F(PortRegistryTest, findsPortsByNameAndId) {
  Port* b = create("b", "net_null1");
  Port* a = create("a", "net_null0");
  EXPECT_EQ(registry_.find("a"), a);
  EXPECT_EQ(registry_.findById(b->id()), b);
  EXPECT_EQ(registry_.find("c"), nullptr);
  EXPECT_EQ(registry_.ports(), (std::vector<Port*>{a, b}));
}

TEST_F(PortRegistryTest, refusesANameOrADeviceTwice) {
  create("a", "net_null0");
  EXPECT_THAT(refusal(EEXIST, [&] { create("a", "net_null1"); }), HasSubstr("port a exists"));
  EXPECT_THAT(refusal(EEXIST, [&] { create("b", "net_null0,size=99"); }),
              HasSubstr("is port a already"));
}

TEST_F(PortRegistryTest, refusesAnImpossibleName) {
  for (const char* name : {"", "a b", "a/b", "a\n"}) {
    EXPECT_THAT(refusal(EINVAL, [&] { create(name, "net_null0"); }), HasSubstr("is not possible"));
  }
  EXPECT_THAT(refusal(EINVAL, [&] { create(std::string(65, 'a'), "net_null0"); }),
              HasSubstr("is not possible"));
}

TEST_F(PortRegistryTest, namesThePortsThereAre) {
  EXPECT_THAT(refusal(ENOENT, [&] { registry_.get("x"); }), HasSubstr("none is open"));
  create("a", "net_null0");
  create("b", "net_null1");
  EXPECT_THAT(refusal(ENOENT, [&] { registry_.destroy("x"); }), HasSubstr("there are: a, b"));
}

TEST_F(PortRegistryTest, keepsAPortThatModulesUse) {
  Port* port = create("a", "net_null0");
  port->addUser("in0", true);
  port->addUser("out0", false);
  EXPECT_THAT(refusal(EBUSY, [&] { registry_.destroy("a"); }), HasSubstr("used by in0, out0"));
  port->removeUser("in0");
  port->removeUser("out0");
  registry_.destroy("a");
  EXPECT_EQ(registry_.find("a"), nullptr);
  EXPECT_NE(create("a", "net_null0"), nullptr);
}

TEST_F(PortRegistryTest, letsOneModuleReadAPort) {
  Port* port = create("a", "net_null0");
  port->addUser("in0", true);
  EXPECT_THAT(refusal(EBUSY, [&] { port->addUser("in1", true); }), HasSubstr("read by module in0"));
  port->removeUser("in0");
  port->addUser("in1", true);
}

}  // namespace
}  // namespace bess
