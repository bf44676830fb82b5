// The text of a route table.
#include "SfeModules/MrouteDump.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

#include "SfeModules/Testing/MfibFixture.h"

namespace SfeModules {
namespace {

std::string dumpOf(const uint8_t (&bytes)[16], unsigned af) {
  return addrArrayToStr(bytes, af);
}

TEST(AddressText, followsTheFamily) {
  const uint8_t bytes[16] = {239, 1, 0, 9, 255, 16, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  EXPECT_EQ(dumpOf(bytes, 1), "239.1.0.9");
  EXPECT_EQ(dumpOf(bytes, 2), "ef01:0009:ff10:0102:0304:0506:0708:090a");
  for (const unsigned other : {0U, 3U, 10U}) {
    EXPECT_EQ(dumpOf(bytes, other), "2391092551612345678910") << other;
  }
  EXPECT_EQ(dumpOf({0xff, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, 2),
            "ff02:0000:0000:0000:0000:0000:0000:0001");
  EXPECT_EQ(dumpOf({}, 1), "0.0.0.0");
}

class MrouteDump : public MfibFixture {
 protected:
  std::string dump() { return vrfAfClosureGetMroutes(mfib_, kAfIpv4)(); }
};

TEST_F(MrouteDump, ofAnEmptyTableIsEmpty) {
  createInstance();
  EXPECT_EQ(dump(), "");
  std::unique_ptr<Module> none(Mfib::create());
  EXPECT_EQ(getMroutes(static_cast<Mfib*>(none.get()), kAfIpv4), "") << "no table at all";
  none->DeInit();
}

TEST_F(MrouteDump, hasTenLinesForARoute) {
  createInstance();
  addRoute({.source = "10.0.0.2",
            .group = "239.1.1.1",
            .iif = "Ethernet0",
            .oifs = {{"Ethernet1", 3}, {"Vlan100", 4}},
            .iifRegister = true,
            .oifRegister = true,
            .iifFrr = "Ethernet5",
            .notify = "Ethernet6/2",
            .fastdrop = "Loopback0",
            .toCpu = true});
  EXPECT_EQ(dump(),
            "Source: 10.0.0.2 Group: 239.1.1.1\n"
            "Iif: Ethernet0\n"
            "IifFrr: Ethernet5\n"
            "Notify: Ethernet6/2\n"
            "Fastdrop: Loopback0\n"
            "ToCpu: 1\n"
            "IifRegister: 1\n"
            "OifRegister: 1\n"
            "Oifs: Ethernet1 Vlan100\n"
            "OifGates: 3 4\n");
}

TEST_F(MrouteDump, showsWhatIsNotThereAsNothing) {
  createInstance();
  addRoute({.source = "*", .group = "239.1.1.1", .iif = ""});
  EXPECT_EQ(dump(),
            "Source: 0.0.0.0 Group: 239.1.1.1\nIif: \nIifFrr: \nNotify: \nFastdrop: \n"
            "ToCpu: 0\nIifRegister: 0\nOifRegister: 0\nOifs: \nOifGates: \n");
}

TEST_F(MrouteDump, namesEveryOutgoingInterfaceAlsoTheOneThatIsNone) {
  createInstance();
  addRoute({.source = "*",
            .group = "239.1.1.1",
            .iif = "Ethernet0",
            .oifs = {{"", 4294967295U}, {"Ethernet1", 0}}});
  EXPECT_NE(dump().find("Oifs: None Ethernet1\nOifGates: 4294967295 0\n"), std::string::npos);
}

TEST_F(MrouteDump, formatsByTheRawFamily) {
  const std::string source = "2001:db8::2";
  const std::string group = "ff3e::8000:1";
  for (const uint32_t af : {2U, 10U}) {
    createInstance({.af = af});
    addRoute({.source = source, .group = group, .iif = "Ethernet0"});
    const std::string expected =
        af == 2 ? "Source: 2001:0db8:0000:0000:0000:0000:0000:0002 "
                  "Group: ff3e:0000:0000:0000:0000:0000:8000:0001\nIif: Ethernet0\n"
                : "Source: 32113184" + std::string(11, '0') + "2 Group: 25562" +
                      std::string(10, '0') + "128001\nIif: Ethernet0\n";
    EXPECT_EQ(getMroutes(mfib_, af).substr(0, expected.size()), expected);
    destroyInstance();
  }
}

TEST_F(MrouteDump, hasEveryRouteOnceAndIsBuiltAnewEachTime) {
  createInstance();
  std::set<std::string> expected;
  for (unsigned n = 0; n < 300; ++n) {
    const std::string group = "239.4." + std::to_string(n / 256) + "." + std::to_string(n % 256);
    addRoute({.source = "10.0.0.2", .group = group, .iif = "Ethernet0"});
    expected.insert("Source: 10.0.0.2 Group: " + group);
  }
  const auto closure = vrfAfClosureGetMroutes(mfib_, kAfIpv4);
  const std::string text = closure();
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3000);
  for (size_t at = 0; (at = text.find("Source: ", at)) != std::string::npos; ++at) {
    EXPECT_EQ(expected.erase(text.substr(at, text.find('\n', at) - at)), 1U);
  }
  EXPECT_TRUE(expected.empty());
  deleteRoute("10.0.0.2", "239.4.0.7");
  EXPECT_EQ(closure().find("Group: 239.4.0.7\n"), std::string::npos);
  EXPECT_EQ(text.find("\n\n"), std::string::npos);
}

TEST_F(MrouteDump, passesOverAnEntryThatIsNone) {
  createInstance();
  MfibTestPeer::routes(*mfib_).insert(key("10.0.0.2", "239.1.1.1"), nullptr);
  EXPECT_EQ(dump(), "");
}

TEST_F(MrouteDump, isNamedByFamilyAndNamespace) {
  struct Case {
    uint32_t af;
    const char* vrf;
    const char* file;
  };
  for (const Case& c :
       {Case{1, "default", "/Mroute4_default"}, Case{2, "default", "/Mroute6_default"},
        Case{1, "red", "/Mroute4_ns-red"}, Case{0, "red", "/Mroute6_ns-red"}}) {
    createInstance({.af = c.af, .vrf = c.vrf});
    EXPECT_EQ(mfib_->stateFileName(), c.file);
    destroyInstance();
  }
}

}  // namespace
}  // namespace SfeModules
