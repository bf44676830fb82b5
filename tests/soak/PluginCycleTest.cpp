// The multicast module's library is loaded and unloaded again and again, with an instance in
// between whose clean-up is still pending: before the state file system's thread runs code of the
// library, when it goes away, and after, when it stays in memory.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

#include "Bess/ModuleBuilder.h"
#include "Bess/ModuleGraph.h"
#include "Bess/PacketPool.h"
#include "Bess/Plugin.h"
#include "Nynet/IntfId.h"
#include "Sfe/Counters/Counters.h"
#include "protocol/sfe.pb.h"
#include "tests/soak/Isolation.h"
#include "tests/soak/Resources.h"

namespace soak {
namespace {

constexpr unsigned kRounds = 10;
constexpr unsigned kWarm = 2;
constexpr unsigned kRoutes = 50;

// ThreadSanitizer keeps libraries.
#if defined(SFE_WITH_TSAN)
constexpr bool kStaysAnyway = true;
#else
constexpr bool kStaysAnyway = false;
#endif

const std::string kLibrary = MFIB_PLUGIN;

bool inMemory() {
  void* handle = dlopen(kLibrary.c_str(), RTLD_LAZY | RTLD_NOLOAD);
  if (handle != nullptr) {
    dlclose(handle);
  }
  return handle != nullptr;
}

google::protobuf::Any packed(const google::protobuf::Message& message) {
  google::protobuf::Any any;
  any.PackFrom(message);
  return any;
}

void run(const char* command, const google::protobuf::Message& arg) {
  const CommandResponse response = ModuleGraph::runCommand("mfib", command, packed(arg));
  ASSERT_FALSE(response.has_error() && response.error().code() != 0) << response.error().errmsg();
}

// An instance that is gone when this returns, but for what waits for a grace period.
void useModule(bool withTasks) {
  sfe::pb::MfibArg arg;
  arg.set_vrfname("default");
  arg.set_af(1);
  ASSERT_FALSE(ModuleGraph::createModule("Mfib", "mfib", packed(arg)).has_error());
  if (withTasks) {
    run("regMfibTasks", sfe::pb::MfibTaskIdArg());
    run("regCleanupTask", sfe::pb::MfibTaskIdArg());
  }
  for (unsigned n = 0; n < kRoutes; ++n) {
    sfe::pb::MfibRouteArg route;
    route.set_source(std::string("\x0a\x00\x00\x02", 4));
    route.set_group(std::string("\xef\x01\x01", 3) + static_cast<char>(n % (kRoutes / 2)));
    route.set_iif(Nynet::IntfId::fromName("Ethernet1").value());
    run(n % 3 == 2 ? "deleteMroute" : "addMroute", route);
  }
  SfeModules::publishCountersNow();
  ASSERT_FALSE(ModuleGraph::destroyModule("mfib").has_error());
}

void cycle(bool withTasks) {
  loadPlugin(kLibrary);
  ASSERT_NE(ModuleBuilder::find("Mfib"), nullptr);
  useModule(withTasks);
  unloadPlugin(kLibrary);
  ASSERT_EQ(ModuleBuilder::find("Mfib"), nullptr);
}

TEST(PluginCycle, worksWhetherTheLibraryStaysInMemoryOrNot) {
  if (bess::PacketPool::defaultPool() == nullptr) {
    bess::PacketPool::createDefaultPools();
  }
  Resources level;
  for (unsigned i = 0; i < kRounds && !HasFatalFailure(); ++i) {
    cycle(/*withTasks=*/false);
    if (!kStaysAnyway) {
      EXPECT_FALSE(inMemory()) << "round " << i;
    }
    if (i == kWarm) {
      level = Resources::now();
    }
  }
  const Resources end = Resources::now();
  // Each library that goes takes along what its AddressSanitizer build held back.
  constexpr size_t kHeldBack = kHeldBackBytes * kRounds;
  EXPECT_LE(end.dpdkBytes, level.dpdkBytes + kHeldBack);
  EXPECT_LE(end.threads, level.threads);
  EXPECT_LE(end.fileDescriptors, level.fileDescriptors);
  EXPECT_LE(end.netlinkSockets, level.netlinkSockets);

  for (unsigned i = 0; i < kRounds && !HasFatalFailure(); ++i) {
    cycle(/*withTasks=*/true);
    EXPECT_TRUE(inMemory()) << "round " << i;
  }
  EXPECT_LE(Resources::now().dpdkBytes, level.dpdkBytes + kHeldBack);
}

}  // namespace
}  // namespace soak
