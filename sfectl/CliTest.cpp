// The program as a whole, as far as it goes without a daemon.
#include "sfectl/Cli.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace Sfectl {
namespace {

struct Result {
  int code;
  std::string out;
  std::string err;
};

Result sfectl(const std::vector<std::string>& arguments) {
  std::ostringstream out;
  std::ostringstream err;
  const int code = run(arguments, out, err);
  return {code, out.str(), err.str()};
}

constexpr const char* kNoDaemon = "unix:/nonexistent/bessd.sock";

TEST(Cli, printsHelpAndVersionAndEndsWell) {
  for (const char* option : {"--help", "-h", "--version"}) {
    const Result result = sfectl({option});
    EXPECT_EQ(result.code, 0) << option;
    EXPECT_NE(result.out.find("sfectl"), std::string::npos) << option;
    EXPECT_EQ(result.err, "") << option;
  }
  EXPECT_EQ(sfectl({"mroute", "add", "--help"}).code, 0);
}

TEST(Cli, refusesAWrongCommandLineWithTwo) {
  const std::vector<std::vector<std::string>> wrong = {
      {},
      {"no-such-command"},
      {"worker"},
      {"worker", "add"},
      {"worker", "add", "36"},
      {"worker", "add", "-1"},
      {"port", "add", "p0"},
      {"port", "add", "p0", "net_null0", "--promisc", "maybe"},
      {"port", "add", "p0", "net_null0", "--mtu", "70000"},
      {"hook", "add", "spy", "m", "in", "0"},
      {"hook", "add", "track", "m", "sideways", "0"},
      {"hook", "add", "track", "m", "in", "8192"},
      {"task", "attach", "m"},
      {"task", "attach", "m", "0", "--worker", "0", "--rate", "0"},
      {"connect", "a"},
      {"counters", "--af", "5"},
      {"monitor", "--count", "0"},
      {"mroute", "add", "10.0.0.2", "239.1.1.1"},
      {"mroute", "add", "10.0.0.2", "239.1.1.1", "--iif", "Ethernet1", "--vrf", "a", "--module",
       "b"},
      {"version", "--nonsense"},
  };
  for (const auto& arguments : wrong) {
    std::string line;
    for (const auto& word : arguments) {
      line += word + " ";
    }
    const Result result = sfectl(arguments);
    EXPECT_EQ(result.code, 2) << line;
    EXPECT_EQ(result.out, "") << line;
    EXPECT_NE(result.err, "") << line;
  }
}

TEST(Cli, refusesWrongWordsBeforeItTalksToTheDaemon) {
  const std::vector<std::vector<std::string>> wrong = {
      {"connect", "a:8192", "b"},
      {"connect", "a", ":1"},
      {"command", "mfib4", "addMroute", "{not json"},
      {"module", "add", "Mfib", "--arg", "{not json"},
      {"intf", "add", "eth0", "--port", "p0"},
      {"intf", "add", "Ethernet1", "--port", "p0", "--mac", "1:2:3"},
      {"intf", "del", "eth0"},
      {"mroute", "add", "10.0.0.2", "10.1.1.1", "--iif", "Ethernet1"},
      {"mroute", "add", "10.0.0.2", "239.1.1.1", "--iif", "eth0"},
      {"mroute", "add", "10.0.0.2", "239.1.1.1", "--iif", "Ethernet1", "--oif", "Ethernet2",
       "--oif", "Ethernet2:1"},
      {"mroute", "del", "10.0.0.2", "ff15::1"},
      {"monitor", "--namespace", std::string(200, 'x')},
  };
  for (auto arguments : wrong) {
    std::string line;
    for (const auto& word : arguments) {
      line += word + " ";
    }
    arguments.insert(arguments.end(), {"--socket", kNoDaemon});
    const Result result = sfectl(arguments);
    EXPECT_EQ(result.code, 2) << line << result.err;
    EXPECT_EQ(result.err.find(kNoDaemon), std::string::npos) << line << result.err;
  }
}

TEST(Cli, saysWhichDaemonDoesNotAnswer) {
  const std::vector<std::vector<std::string>> good = {
      {"version"},
      {"stats"},
      {"connections"},
      {"module", "add", "Mfib", "mfib4", "--arg", "{}"},
      {"command", "mfib4", "addMroute", "{}"},
      {"mroute", "add", "*", "239.1.1.1", "--iif", "Ethernet1", "--oif", "Ethernet2:1",
       "Ethernet3"},
      {"mroute", "add", "--iif", "Ethernet1", "--oif", "Ethernet2:1", "*", "239.1.1.1"},
  };
  for (auto arguments : good) {
    arguments.insert(arguments.begin(), {"--socket", kNoDaemon});
    const Result result = sfectl(arguments);
    EXPECT_EQ(result.code, 1) << arguments[2] << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err.find(kNoDaemon), std::string::npos) << result.err;
  }
}

TEST(Cli, takesGlobalOptionsBehindTheCommand) {
  const Result result = sfectl({"port", "show", "--json", "--socket", kNoDaemon});
  EXPECT_EQ(result.code, 1);
  EXPECT_NE(result.err.find(kNoDaemon), std::string::npos);
}

}  // namespace
}  // namespace Sfectl
