#include "sfectl/config/SmcrouteImport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "sfectl/Errors.h"
#include "sfectl/config/ConfigParser.h"

namespace Sfectl {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;

TEST(SmcrouteImport, makesAFileOfPhyintsAndRoutes) {
  const ImportResult result = importSmcrouteText(R"(# static routes
phyint eth0 enable ttl-threshold 1
phyint eth1 disable
mroute from eth0 source 10.1.0.2 group 239.1.1.1 to eth1 eth2   # two
mroute from eth0 group ff15::1 to eth0.100
)",
                                                 "smcroute.conf");
  EXPECT_THAT(result.problems, IsEmpty());
  EXPECT_THAT(result.warnings, IsEmpty());
  EXPECT_THAT(result.interfaces,
              ElementsAre(Pair("eth0", "Ethernet1"), Pair("eth1", "Ethernet2"),
                          Pair("eth2", "Ethernet3"), Pair("eth0.100", "Ethernet1.100")));
  EXPECT_EQ(
      importText(result),
      R"(# Static routes of an SMCRoute configuration. Each kernel interface is a port on a packet socket here:
#   eth0 -> Ethernet1
#   eth1 -> Ethernet2
#   eth2 -> Ethernet3
#   eth0.100 -> Ethernet1.100
# For more speed replace the ports' devices: net_af_xdp0,iface=eth0, a PCI address, ...

ports:
  eth0: net_af_packet1,iface=eth0
  eth1: net_af_packet2,iface=eth1
  eth2: net_af_packet3,iface=eth2

interfaces:
  Ethernet1: eth0
  Ethernet2: {port: eth1, multicast: false}
  Ethernet3: eth2
  Ethernet1.100: eth0

routes:
  - {source: 10.1.0.2, group: 239.1.1.1, iif: Ethernet1, oifs: [Ethernet2, Ethernet3]}
  - {group: "ff15::1", iif: Ethernet1, oifs: [Ethernet1.100]}
)");
}

TEST(SmcrouteImport, writesWhatTheParserReads) {
  const ImportResult result = importSmcrouteText(
      "mroute from eth0 source 2001:db8::1/128 group ff15::1/128 to br-lan\n"
      "mroute from none source 0.0.0.0/0 group 239.1.1.1/32 to eth0 tap~1 tap_1 null\n",
      "f");
  EXPECT_THAT(result.problems, IsEmpty());
  const Config config = parseConfig(importText(result), "out").config;
  EXPECT_THAT(config.ports, SizeIs(6));
  ASSERT_THAT(config.routes, SizeIs(2));
  EXPECT_EQ(routeText(config.routes[0].route.key), "(2001:db8::1,ff15::1)");
  EXPECT_EQ(routeText(config.routes[1].route.key), "(*,239.1.1.1)");
  EXPECT_THAT(config.routes[1].route.oifs, SizeIs(4));
}

struct Line {
  const char* line;
  const char* message;
};

class SmcrouteRefusal : public ::testing::TestWithParam<Line> {};

TEST_P(SmcrouteRefusal, saysWhichLineAndWhy) {
  const ImportResult result =
      importSmcrouteText(std::string("# first\n") + GetParam().line + "\n", "f");
  EXPECT_THAT(result.problems, ElementsAre(GetParam().message));
  EXPECT_THAT(result.config.routes, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Each,
    SmcrouteRefusal,
    ::testing::Values(
        Line{"mrout from eth0 group 239.1.1.1 to eth1",
             "f:2: unknown word 'mrout'; did you mean 'mroute'?"},
        Line{"phyint eth0", "f:2: expected phyint IFNAME enable|disable [ttl-threshold N]"},
        Line{"phyint eth0 enable ttl-threshold 256",
             "f:2: ttl-threshold '256' is not a number from 0 to 255"},
        Line{"phyint eth0 enable speed",
             "f:2: unexpected 'speed'; expected phyint IFNAME enable|disable [ttl-threshold N]"},
        Line{"phyint eth+ enable",
             "f:2: interface 'eth+' is a pattern, which has no counterpart; write each interface"},
        Line{"mroute from eth0 group 239.1.1.1",
             "f:2: expected mroute from IFNAME [source ADDRESS] group ADDRESS to IFNAME "
             "[IFNAME ...]"},
        Line{"mroute from eth0 group 239.1.1.1 to eth0",
             "f:2: 'eth0' is incoming and outgoing; a packet does not leave where it came from"},
        Line{"mroute from eth0 group 239.1.0.0/16 to eth1",
             "f:2: group '239.1.0.0/16' is a range, which a route cannot have: expected one group; "
             "write a line for each"},
        Line{"mroute from eth0 source 10.0.0.0/8 group 239.1.1.1 to eth1",
             "f:2: source '10.0.0.0/8' is a range, which a route cannot have: expected one source, "
             "or none for any source"},
        Line{"mroute from eth0 group 10.1.1.1 to eth1",
             "f:2: group '10.1.1.1' is not multicast; expected an address of 224.0.0.0/4 or "
             "ff00::/8"},
        Line{"mroute from eth0 source ff15::2 group ff15::1 to eth1",
             "f:2: source 'ff15::2' is multicast; expected a sender's address"},
        Line{"mroute from eth0 source 10.0.0.1 group ff15::1 to eth1",
             "f:2: source '10.0.0.1' and group 'ff15::1' are of different families"},
        Line{"include", "f:2: expected include FILES, one pattern"}));

TEST(SmcrouteImport, findsEveryLineThatCannotBeExpressed) {
  const ImportResult result = importSmcrouteText(
      "x\nmroute from eth0 group 239.1.1.1 to eth1\ny\n"
      "mroute from eth2 group 239.1.1.1 to eth1\n",
      "f");
  EXPECT_THAT(result.problems,
              ElementsAre(HasSubstr("f:1: "), HasSubstr("f:3: "),
                          "f:4: route (*,239.1.1.1) appears twice, first in f:2; expected one line "
                          "with all outgoing interfaces"));
  EXPECT_THAT(result.config.routes, SizeIs(1));
}

TEST(SmcrouteImport, warnsOfWhatIsNotForUs) {
  const ImportResult result = importSmcrouteText(
      "mgroup from eth0 group 239.1.1.1\nphyint eth0 enable ttl-threshold 64\n", "f");
  EXPECT_THAT(result.problems, IsEmpty());
  EXPECT_THAT(result.warnings, ElementsAre(HasSubstr("f:1: warning: mgroup is not for us"),
                                           HasSubstr("f:2: warning: ttl-threshold 64")));
}

class SmcrouteFiles : public ::testing::Test {
 protected:
  SmcrouteFiles() {
    std::string name = ::testing::TempDir() + "/importXXXXXX";
    directory_ = mkdtemp(name.data());
  }
  ~SmcrouteFiles() override { std::filesystem::remove_all(directory_); }

  std::string write(const std::string& name, const std::string& text) {
    std::ofstream(directory_ / name) << text;
    return (directory_ / name).string();
  }

  std::filesystem::path directory_;
};

TEST_F(SmcrouteFiles, areIncludedByPatternAndOnce) {
  write("b.conf", "mroute from eth0 group 239.1.1.2 to eth1\ninclude *.conf\n");
  write("a.conf", "mroute from eth0 group 239.1.1.1 to eth1\nbad\n");
  const std::string main = write("main", "include *.conf\ninclude nothing*\n");
  const ImportResult result = importSmcroute({main});
  EXPECT_THAT(result.config.routes, SizeIs(2));
  EXPECT_THAT(result.problems, ElementsAre(HasSubstr("/a.conf:2: unknown word 'bad'")));
  EXPECT_THAT(result.warnings, ElementsAre(HasSubstr("/main:2: warning: no file fits")));
}

TEST_F(SmcrouteFiles, mustBeReadable) {
  EXPECT_THROW(importSmcroute({(directory_ / "absent").string()}), RuntimeError);
  EXPECT_THROW(importSmcroute({directory_.string()}), RuntimeError);
}

}  // namespace
}  // namespace Sfectl
