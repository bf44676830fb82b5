#include "bessd/Configuration.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>

namespace Bessd {
namespace {

// A program of the test's own in place of the client.
class ConfigurationTest : public testing::Test {
 protected:
  ConfigurationTest() {
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &child, nullptr);
    std::string name = testing::TempDir() + "configurationXXXXXX";
    directory_ = mkdtemp(name.data());
  }
  ~ConfigurationTest() override { std::filesystem::remove_all(directory_); }

  std::string program(const std::string& body) const {
    const std::string path = directory_ / "client";
    std::ofstream(path) << "#!/bin/sh\n" << body << "\n";
    chmod(path.c_str(), S_IRWXU);
    return path;
  }
  static std::string end(Configuration& configuration) {
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    while (true) {
      if (const auto result = configuration.finished()) {
        return *result;
      }
      int number = 0;
      sigwait(&child, &number);
    }
  }
  std::string written(const std::string& name) const {
    std::ostringstream text;
    text << std::ifstream(directory_ / name).rdbuf();
    return text.str();
  }

  std::filesystem::path directory_;
};

TEST_F(ConfigurationTest, runsTheClientOnItsSocketAndFile) {
  Configuration configuration(program("printf '%s|' \"$@\" >" + (directory_ / "out").string()),
                              "/run/x.sock", "/etc/x.yaml");
  EXPECT_FALSE(configuration.empty());
  EXPECT_EQ(configuration.finished(), std::nullopt);
  configuration.start();
  EXPECT_EQ(end(configuration), "");
  EXPECT_FALSE(configuration.running());
  EXPECT_EQ(written("out"), "--socket|unix:/run/x.sock|apply|/etc/x.yaml|");
}

TEST_F(ConfigurationTest, saysHowTheClientFailed) {
  Configuration refused(program("exit 3"), "s", "f.yaml");
  refused.start();
  EXPECT_EQ(end(refused), "f.yaml is not applied: sfectl apply ended with code 3");
  Configuration killed(program("kill -KILL $$"), "s", "f.yaml");
  killed.start();
  EXPECT_EQ(end(killed), "f.yaml is not applied: sfectl apply was ended by Killed");
}

TEST_F(ConfigurationTest, givesTheClientNoBlockedSignals) {
  Configuration configuration(
      program("grep SigBlk /proc/self/status >" + (directory_ / "out").string()), "s", "f");
  configuration.start();
  EXPECT_EQ(end(configuration), "");
  EXPECT_EQ(written("out"), "SigBlk:\t0000000000000000\n");
}

TEST_F(ConfigurationTest, endsAClientThatStillRuns) {
  const auto begin = std::filesystem::file_time_type::clock::now();
  {
    Configuration configuration(program("exec sleep 600"), "s", "f");
    configuration.start();
    EXPECT_TRUE(configuration.running());
    EXPECT_EQ(configuration.finished(), std::nullopt);
  }
  EXPECT_LT(std::filesystem::file_time_type::clock::now() - begin, std::chrono::seconds(60));
}

TEST_F(ConfigurationTest, refusesAClientThatIsNotThere) {
  Configuration configuration((directory_ / "absent").string(), "s", "f");
  EXPECT_THROW(configuration.start(), std::system_error);
  EXPECT_FALSE(configuration.running());
}

}  // namespace
}  // namespace Bessd
