#include "bessd/Options.h"

#include <gtest/gtest.h>

#include <sstream>

namespace Bessd {
namespace {

struct Parsed {
  ParseResult result;
  std::string out;
  std::string err;
};

Parsed parse(const std::vector<std::string>& arguments) {
  std::ostringstream out;
  std::ostringstream err;
  ParseResult result = parseOptions(arguments, out, err);
  return {std::move(result), out.str(), err.str()};
}

TEST(Options, haveDefaultsThatNeedNothing) {
  const Parsed parsed = parse({});
  ASSERT_TRUE(parsed.result.options);
  const Options& options = *parsed.result.options;
  EXPECT_EQ(options.control.socket, "/run/sfe/bessd.sock");
  EXPECT_EQ(options.control.listen, "");
  EXPECT_EQ(options.config, "");
  EXPECT_EQ(options.pluginDirectory, SFE_PLUGIN_DIRECTORY);
  EXPECT_TRUE(options.workers.empty());
  EXPECT_FALSE(options.hugePages);
  EXPECT_EQ(options.publishPeriod, std::chrono::seconds(1));
}

TEST(Options, takeEverything) {
  const Parsed parsed = parse({"--socket",    "unix:/x/s",    "--listen",
                               "127.0.0.1:1", "-w",           "0,3",
                               "--memory",    "256",          "--huge",
                               "--packets",   "4095",         "--data-room",
                               "9216",        "--plugin-dir", "/p",
                               "--plugin",    "a.so",         "--plugin",
                               "b.so",        "--eal",        "--vdev net_null0 -v",
                               "--toggles",   "/t",           "--publish-period",
                               "100",         "--spin",       "--log-level",
                               "2",           "--foreground"});
  ASSERT_TRUE(parsed.result.options) << parsed.err;
  const Options& options = *parsed.result.options;
  EXPECT_EQ(options.control.socket, "/x/s");
  EXPECT_EQ(options.control.listen, "127.0.0.1:1");
  EXPECT_EQ(options.workers, (std::vector<uint32_t>{0, 3}));
  EXPECT_EQ(options.memoryMb, 256u);
  EXPECT_TRUE(options.hugePages);
  EXPECT_EQ(options.packets, 4095u);
  EXPECT_EQ(options.dataRoom, 9216u);
  EXPECT_EQ(options.pluginDirectory, "/p");
  EXPECT_EQ(options.plugins, (std::vector<std::string>{"a.so", "b.so"}));
  EXPECT_EQ(options.eal, (std::vector<std::string>{"--vdev", "net_null0", "-v"}));
  EXPECT_EQ(options.toggles, "/t");
  EXPECT_EQ(options.publishPeriod, std::chrono::milliseconds(100));
  EXPECT_TRUE(options.spin);
  EXPECT_EQ(options.logLevel, 2);
}

TEST(Options, takeAConfigurationFileThatIsThere) {
  const Parsed parsed = parse({"--config", "/dev/null"});
  ASSERT_TRUE(parsed.result.options) << parsed.err;
  EXPECT_EQ(parsed.result.options->config, "/dev/null");
}

TEST(Options, endWellAfterHelpAndVersion) {
  for (const char* option : {"--help", "-h", "--version"}) {
    const Parsed parsed = parse({option});
    EXPECT_FALSE(parsed.result.options);
    EXPECT_EQ(parsed.result.exitCode, 0);
    EXPECT_NE(parsed.out.find("bessd"), std::string::npos);
    EXPECT_EQ(parsed.err, "");
  }
}

TEST(Options, refuseWrongCommandLinesAndSayWhy) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> wrong = {
      {{"--nonsense"}, "--nonsense"},
      {{"word"}, "word"},
      {{"--memory", "1"}, "--memory"},
      {{"--config", "/nowhere/sfe.yaml"}, "/nowhere/sfe.yaml: No such file"},
      {{"--packets", "none"}, "--packets"},
      {{"--data-room", "70000"}, "--data-room"},
      {{"--publish-period", "0"}, "--publish-period"},
      {{"-w", "0,0"}, "twice"},
      {{"-w", "-1"}, "--workers"},
      {{"--listen", "0.0.0.0:1"}, "loopback"},
      {{"--listen", "here"}, "HOST:PORT"},
  };
  for (const auto& [arguments, word] : wrong) {
    const Parsed parsed = parse(arguments);
    EXPECT_FALSE(parsed.result.options) << word;
    EXPECT_EQ(parsed.result.exitCode, 2) << word;
    EXPECT_NE(parsed.err.find(word), std::string::npos) << parsed.err;
    EXPECT_EQ(parsed.out, "") << word;
  }
}

}  // namespace
}  // namespace Bessd
