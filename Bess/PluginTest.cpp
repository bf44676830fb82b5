#include "Bess/Plugin.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "Base/RcuAnnotate.h"
#include "Bess/ModuleBuilder.h"
#include "Bess/ModuleGraph.h"

#if defined(SFE_WITH_TSAN)
// urcu_qsbr_barrier() and the callback thread hand each other memory in a way that is not seen.
// Only what the library itself allocates and frees is left out; the callbacks are checked.
extern "C" const char* __tsan_default_suppressions() {  // NOLINT: the name is TSan's
  return "called_from_lib:liburcu-qsbr.so\n";
}
#endif

extern "C" std::atomic<int> bessSampleCallbacks;
std::atomic<int> bessSampleCallbacks{0};

namespace {

template <class F>
int errnoOf(F&& operation) {
  try {
    operation();
  } catch (const std::system_error& e) {
    return e.code().value();
  }
  return 0;
}

bool isInMemory(const std::string& path) {
  void* handle = dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
  if (handle != nullptr) {
    dlclose(handle);
  }
  return handle != nullptr;
}

class PluginTest : public ::testing::Test {
 protected:
  void TearDown() override {
    ModuleGraph::destroyAllModules();
    Plugin::unloadAll();
  }
  const std::string path_ = SAMPLE_PLUGIN;
  const std::string resident_ = RESIDENT_PLUGIN;
};

TEST_F(PluginTest, bringsItsClassesAndTakesThemAway) {
  for (int round = 0; round < 3; round++) {
    loadPlugin(path_);
    ASSERT_NE(ModuleBuilder::find("Sample"), nullptr);
    EXPECT_EQ(ModuleBuilder::find("Sample")->plugin(), Plugin::loaded().at(0));
    unloadPlugin(path_);
    EXPECT_EQ(ModuleBuilder::find("Sample"), nullptr);
    EXPECT_FALSE(isInMemory(path_));
  }
}

TEST_F(PluginTest, saysItsVersionWhereItHasOne) {
  loadPlugin(path_);
  loadPlugin(resident_);
  const std::vector<PluginInfo> all = Plugin::list();
  ASSERT_EQ(all.size(), 2U);
  EXPECT_EQ(all[0].path, Plugin::loaded()[0]);
  EXPECT_EQ(all[0].version, "1.5?beta");
  EXPECT_EQ(all[1].version, "");
}

TEST_F(PluginTest, comesBackWhenTheLibraryStayedInMemory) {
  for (int round = 0; round < 3; round++) {
    loadPlugin(resident_);
    ASSERT_NE(ModuleBuilder::find("ResidentSample"), nullptr);
    EXPECT_FALSE(ModuleGraph::createModule("ResidentSample", "r", {}).has_error());
    ModuleGraph::destroyModule("r");
    unloadPlugin(resident_);
    EXPECT_EQ(ModuleBuilder::find("ResidentSample"), nullptr);
    EXPECT_TRUE(isInMemory(resident_));
  }
}

TEST_F(PluginTest, staysWhileItsClassHasInstances) {
  loadPlugin(path_);
  ASSERT_FALSE(ModuleGraph::createModule("Sample", "s", {}).has_error());
  EXPECT_EQ(errnoOf([&] { unloadPlugin(path_); }), EBUSY);
  EXPECT_NE(ModuleBuilder::find("Sample"), nullptr);
  ModuleGraph::destroyModule("s");
  EXPECT_EQ(errnoOf([&] { unloadPlugin(path_); }), 0);
}

TEST_F(PluginTest, waitsForItsCallbacksBeforeItGoes) {
  loadPlugin(path_);
  const int before = bessSampleCallbacks;
  ASSERT_FALSE(ModuleGraph::createModule("Sample", "s", {}).has_error());
  ModuleGraph::destroyModule("s");
  unloadPlugin(path_);
  EXPECT_EQ(bessSampleCallbacks, before + 1);
}

TEST_F(PluginTest, refusesWhatIsNoPluginAndWhatIsLoaded) {
  EXPECT_EQ(errnoOf([] { loadPlugin("/nowhere/libnothing.so"); }), EINVAL);
  const auto file = std::filesystem::temp_directory_path() / "bess-plugin-test.so";
  std::ofstream(file) << "this is text";
  EXPECT_EQ(errnoOf([&] { loadPlugin(file.string()); }), EINVAL);
  std::filesystem::remove(file);
  loadPlugin(path_);
  EXPECT_EQ(errnoOf([&] { loadPlugin(path_); }), EEXIST);
  EXPECT_EQ(errnoOf([&] { unloadPlugin("/nowhere/libnothing.so"); }), ENOENT);
  EXPECT_EQ(Plugin::loaded().size(), 1U);
}

}  // namespace
