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
  EXPECT_FALSE(options.pci);
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
                               "2",           "--foreground", "--pci"});
  ASSERT_TRUE(parsed.result.options) << parsed.err;
  const Options& options = *parsed.result.options;
  EXPECT_EQ(options.control.socket, "/x/s");
  EXPECT_EQ(options.control.listen, "127.0.0.1:1");
  EXPECT_EQ(options.workers, (std::vector<uint32_t>{0, 3}));
  EXPECT_EQ(options.memoryMb, 256u);
  EXPECT_TRUE(options.hugePages);
  EXPECT_TRUE(options.pci);
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

TEST(Options, serveMetricsOnlyWhenAsked) {
  EXPECT_EQ(parse({}).result.options->metrics, "");
  const Parsed usual = parse({"--metrics"});
  ASSERT_TRUE(usual.result.options) << usual.err;
  EXPECT_EQ(usual.result.options->metrics, "127.0.0.1:9394");
  EXPECT_EQ(usual.result.options->metricsRoutes, 0u);
  const Parsed beforeAnother = parse({"--metrics", "--spin", "--metrics-routes", "5"});
  ASSERT_TRUE(beforeAnother.result.options) << beforeAnother.err;
  EXPECT_EQ(beforeAnother.result.options->metrics, "127.0.0.1:9394");
  EXPECT_EQ(beforeAnother.result.options->metricsRoutes, 5u);
  EXPECT_EQ(parse({"--metrics", "[::1]:80"}).result.options->metrics, "[::1]:80");
  EXPECT_EQ(parse({"--metrics", "0.0.0.0:80"}).result.options->metrics, "0.0.0.0:80");
}

TEST(Options, sayWhoMayUseTheControlService) {
  const Parsed parsed = parse({"--group", "ops", "--read-socket", "unix:/x/r", "--read-group", "ro",
                               "--listen", "0.0.0.0:1", "--tls-cert", "c", "--tls-key", "k",
                               "--tls-ca", "a", "--tls-read-only", "n", "--tls-read-only", "m"});
  ASSERT_TRUE(parsed.result.options) << parsed.err;
  const bess::ControlServerOptions& control = parsed.result.options->control;
  EXPECT_EQ(control.group, "ops");
  EXPECT_EQ(control.readSocket, "/x/r");
  EXPECT_EQ(control.readGroup, "ro");
  EXPECT_EQ(control.tls.cert, "c");
  EXPECT_EQ(control.tls.key, "k");
  EXPECT_EQ(control.tls.ca, "a");
  EXPECT_EQ(parsed.result.options->tlsReadOnly, (std::vector<std::string>{"n", "m"}));
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
      {{"--listen", "0.0.0.0:1", "--tls-cert", "c"}, "--tls-key"},
      {{"--tls-cert", "c"}, "--listen"},
      {{"--read-group", "g"}, "--read-socket"},
      {{"--socket", "/x", "--read-socket", "/x"}, "--read-socket"},
      {{"--metrics", "here"}, "HOST:PORT"},
      {{"--metrics-routes", "1"}, "--metrics"},
      {{"--metrics", "--metrics-routes", "0"}, "--metrics-routes"},
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
