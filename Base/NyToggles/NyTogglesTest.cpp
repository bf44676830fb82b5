#include "Base/NyToggles/NyToggles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>

namespace {

using testing::HasSubstr;

class NyToggles : public testing::Test {
 protected:
  NyToggles() {
    std::string name = testing::TempDir() + "/togglesXXXXXX";
    directory_ = mkdtemp(name.data());
    setToggleDirectory(directory_);
  }
  ~NyToggles() override {
    setToggleDirectory("/nonexistent");
    std::filesystem::remove_all(directory_);
  }

  std::string path() const { return directory_ + "/Mroute.json"; }
  void fileIs(std::string_view text) const { std::ofstream(path()) << text; }

  // Asks with either default; the answer must be that default. Returns: the warnings of both.
  std::string warningOfDefault(const char* owner = "Mroute.json") const {
    testing::internal::CaptureStderr();
    EXPECT_TRUE(getToggleState("MfaWcFwd", owner, true));
    EXPECT_FALSE(getToggleState("MfaWcFwd", owner, false));
    return testing::internal::GetCapturedStderr();
  }

  std::string directory_;
};

TEST_F(NyToggles, readsTheStateFromTheOwnersFile) {
  fileIs(R"({"MfaWcFwd": false, "Other": true})");
  EXPECT_FALSE(getToggleState("MfaWcFwd", "Mroute.json", true));
  EXPECT_TRUE(getToggleState("Other", "Mroute.json", false));
}

TEST_F(NyToggles, remembersWhatWasAskedForAndTheLastAnswer) {
  fileIs(R"({"Remembered": false})");
  getToggleState("Remembered", "Mroute.json", true);
  getToggleState("Absent", "Other.json", true);
  std::map<std::string, bool> asked;
  for (const AskedToggle& toggle : askedToggles()) {
    EXPECT_TRUE(asked.emplace(toggle.owner + " " + toggle.name, toggle.value).second);
  }
  EXPECT_FALSE(asked.at("Mroute.json Remembered"));
  EXPECT_TRUE(asked.at("Other.json Absent"));
  fileIs(R"({"Remembered": true})");
  getToggleState("Remembered", "Mroute.json", false);
  for (const AskedToggle& toggle : askedToggles()) {
    EXPECT_TRUE(toggle.name != "Remembered" || toggle.value);
  }
}

TEST_F(NyToggles, readsTheFileAtEachCall) {
  fileIs(R"({"MfaWcFwd": false})");
  EXPECT_FALSE(getToggleState("MfaWcFwd", "Mroute.json", true));
  fileIs(R"({"MfaWcFwd": true})");
  EXPECT_TRUE(getToggleState("MfaWcFwd", "Mroute.json", false));
}

TEST_F(NyToggles, isSilentAboutAMissingFileOrName) {
  EXPECT_EQ(warningOfDefault(), "");
  fileIs(R"({"Other": true})");
  EXPECT_EQ(warningOfDefault(), "");
  setToggleDirectory(directory_ + "/missing");
  EXPECT_EQ(warningOfDefault(), "");
}

TEST_F(NyToggles, warnsOfAFileThatIsNotJson) {
  for (const char* text : {"", "{\"MfaWcFwd\": tru", "{\"MfaWcFwd\" false}", "\xff\xfe"}) {
    fileIs(text);
    const std::string warning = warningOfDefault();
    EXPECT_THAT(warning, HasSubstr(path())) << text;
    EXPECT_THAT(warning, HasSubstr("parse error")) << text;
  }
}

TEST_F(NyToggles, warnsOfAnotherJsonValue) {
  fileIs("[true]");
  EXPECT_THAT(warningOfDefault(), HasSubstr("not a JSON object"));
  fileIs(R"({"MfaWcFwd": "yes"})");
  EXPECT_THAT(warningOfDefault(),
              HasSubstr(path() + ": the value of \"MfaWcFwd\" is not true or false"));
}

TEST_F(NyToggles, survivesDeepNesting) {
  fileIs(std::string(500000, '['));
  EXPECT_THAT(warningOfDefault(), HasSubstr("parse error"));
}

TEST_F(NyToggles, warnsOfWhatIsNoRegularFile) {
  ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
  EXPECT_THAT(warningOfDefault(), HasSubstr("not a regular file"));
  std::filesystem::remove(path());
  std::filesystem::create_directory(path());
  EXPECT_THAT(warningOfDefault(), HasSubstr("not a regular file"));
}

TEST_F(NyToggles, warnsOfAFileThatIsTooLarge) {
  fileIs(std::string((1 << 20) + 1, ' '));
  EXPECT_THAT(warningOfDefault(), HasSubstr("larger than"));
}

TEST_F(NyToggles, warnsOfALinkToItself) {
  std::filesystem::create_symlink(path(), path());
  EXPECT_THAT(warningOfDefault(), HasSubstr("Too many levels of symbolic links"));
}

TEST_F(NyToggles, refusesAnOwnerOutsideTheDirectory) {
  fileIs(R"({"MfaWcFwd": false})");
  const std::string outside =
      "../" + std::filesystem::path(directory_).filename().string() + "/Mroute.json";
  EXPECT_THAT(warningOfDefault(outside.c_str()), HasSubstr("is not a file name"));
  EXPECT_THAT(warningOfDefault(".."), HasSubstr("is not a file name"));
  EXPECT_THAT(warningOfDefault(""), HasSubstr("is not a file name"));
}

TEST(NyTogglesDeathTest, takesTheDirectoryFromTheEnvironment) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a new process, which reads it anew
  std::string name = testing::TempDir() + "/togglesXXXXXX";
  const std::string directory = mkdtemp(name.data());
  std::ofstream(directory + "/Mroute.json") << R"({"MfaWcFwd": true})";
  // The process that runs the statement comes here as well, but keeps what it inherited.
  setenv("SFE_TOGGLES", directory.c_str(), 0);
  EXPECT_EXIT(_exit(getToggleState("MfaWcFwd", "Mroute.json", false) ? 0 : 1),
              testing::ExitedWithCode(0), "");
  unsetenv("SFE_TOGGLES");
  std::filesystem::remove_all(directory);
}

}  // namespace
