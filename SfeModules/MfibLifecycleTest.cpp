// Initialisation and teardown of an instance, whole and half way.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <rte_errno.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <urcu-qsbr.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "Base/RcuAnnotate.h"
#include "Sfe/OrpSharedMem/EntityManager.h"
#include "Sfe/OrpSharedMem/SharedObject.h"
#include "SfeModules/Testing/LogLines.h"
#include "SfeModules/Testing/MfibFixture.h"
#include "SfeModules/Testing/PacketBuilder.h"
#include "SfeModules/Testing/StateFiles.h"

namespace {

// The table creation of this thread that fails, counted from 1; 0: none.
thread_local int failingTable = 0;

constexpr size_t kTableBytes = sizeof(NyRcuHt<uint64_t, bool>);

}  // namespace

// The heap as a table creation sees it, so that it can be found empty.
void* operator new(size_t bytes, const std::nothrow_t&) noexcept {
  if (bytes == kTableBytes && failingTable > 0 && --failingTable == 0) {
    return nullptr;
  }
  try {
    return operator new(bytes);
  } catch (...) {
    return nullptr;
  }
}

namespace SfeModules {
namespace {

using Sfe::Multicast::IntfCounterTable;
using Sfe::Multicast::MrouteCounterTable;

constexpr const char* kSource = "10.0.0.2";
constexpr const char* kGroup = "239.1.1.1";
const std::string kInitTrace = "CommandResponse SfeModules::Mfib::Init(const sfe::pb::MfibArg&): ";

class MfibLifecycle : public MfibFixture {
 protected:
  ~MfibLifecycle() override { failingTable = 0; }

  // As a client of the daemon creates one. Returns: the error, empty texts when there is none.
  static bess::pb::Error create(const std::string& name, const std::string& vrf, uint32_t af = 1) {
    sfe::pb::MfibArg arg;
    arg.set_vrfname(vrf);
    arg.set_af(af);
    google::protobuf::Any any;
    any.PackFrom(arg);
    const auto response = ModuleGraph::createModule("Mfib", name, any);
    if (!response.has_error()) {
      ModuleGraph::destroyModule(name);
    }
    return response.error();
  }

  // Creating an instance fails, and everything else is as if it had never been tried.
  void expectRefused(const std::string& vrf, int code, const std::string& text, int table = 0) {
    createInstance();
    enable({"Ethernet0"});
    rte_errno = ENOSPC;
    failingTable = table;
    const bess::pb::Error error = create("refused", vrf);
    EXPECT_EQ(failingTable, 0);
    EXPECT_EQ(error.code(), code);
    EXPECT_EQ(error.errmsg(), text);
    EXPECT_EQ(ModuleGraph::findModule("refused"), nullptr);
    EXPECT_EQ(create("refused", "green").errmsg(), "") << "the name is free again";
    publishCountersNow();
    addRoute({.source = kSource, .group = kGroup, .iif = "Ethernet0", .oifs = {{"Ethernet1"}}});
    EXPECT_EQ(receive(frame(), "Ethernet0").count(1), 1U) << "another instance goes on";
    destroyInstance();
  }

  static Bytes frame() {
    return frames::etherFrame(frames::groupMac(kGroup), "02:00:00:00:00:01", frames::kEtherTypeIpv4,
                              frames::ipPacket(frames::Ip{.source = kSource, .group = kGroup}));
  }

  static std::string sharedFile(const std::string& systemName, const std::string& path) {
    return OrpSharedMem::SharedObject::filePath(OrpSharedMem::objectName(systemName, path));
  }
  static std::string routePath(const std::string& vrf, Nynet::AddressFamily af) {
    return MrouteCounterTable::mountPath(af, L3::VrfName(vrf));
  }
};

// --- Initialisation -------------------------------------------------------------------------

TEST_F(MfibLifecycle, familyOneIsIpv4AndAnyOtherIpv6) {
  for (const auto& [af, length] : {std::pair{1U, 4U}, {0U, 16U}, {2U, 16U}, {10U, 16U}}) {
    createInstance({.af = af});
    const auto family = af == 1 ? Nynet::AddressFamily::kIpv4 : Nynet::AddressFamily::kIpv6;
    EXPECT_EQ(MfibTestPeer::addrLen(*mfib_), length) << af;
    EXPECT_EQ(MfibTestPeer::socket(*mfib_)->af(), family) << af;
    const std::string system = "test" + std::to_string(getpid());
    EXPECT_TRUE(std::filesystem::exists(sharedFile(system, routePath("default", family)))) << af;
    destroyInstance();
  }
}

TEST_F(MfibLifecycle, everyTableStartsWith128BucketsAndFreesLater) {
  createInstance();
  auto expectFresh = [](auto& table) {
    EXPECT_EQ(table.initialSize(), 128U);
    EXPECT_TRUE(table.deferredFree());
    EXPECT_EQ(table.size(), 0U);
  };
  expectFresh(MfibTestPeer::routes(*mfib_));
  expectFresh(MfibTestPeer::intfSet(*mfib_));
  expectFresh(MfibTestPeer::wrongVifTimes(*mfib_));
  expectFresh(MfibTestPeer::sgAlerts(*mfib_));
  expectFresh(MfibTestPeer::intfCounters(*mfib_));
  expectFresh(MfibTestPeer::mrouteCounters(*mfib_));
  EXPECT_NE(MfibTestPeer::cache(*mfib_), nullptr);
  EXPECT_TRUE(MfibTestPeer::socket(*mfib_)->enableTx());
  EXPECT_TRUE(MfibTestPeer::socket(*mfib_)->hasNotificationActive());
}

TEST_F(MfibLifecycle, theNamespaceFollowsFromTheVrf) {
  for (const auto& [vrf, name] : {std::pair{"default", "default"},
                                  {"red", "ns-red"},
                                  {"defaults", "ns-defaults"},
                                  {"", "ns-"}}) {
    createInstance({.vrf = vrf});
    EXPECT_EQ(MfibTestPeer::namespaceName(*mfib_), name);
    destroyInstance();
  }
}

TEST_F(MfibLifecycle, initialisationTracesItsArguments) {
  const TraceLevel level(6);
  const LogLines log;
  sfe::pb::MfibArg arg;
  arg.set_vrfname("default");
  arg.set_af(1);
  arg.set_max_mroute(100);
  arg.set_vrfid(9);
  harness_.create<Mfib>("Mfib", arg);
  EXPECT_EQ(log.with(kInitTrace + "max_mroute: 100, af: 1, vrfname: default, vrfid 9"), 1U);
}

TEST_F(MfibLifecycle, theLargestNumberOfRoutesLimitsNothing) {
  sfe::pb::MfibArg arg;
  arg.set_vrfname("default");
  arg.set_af(1);
  arg.set_max_mroute(1);
  mfib_ = &harness_.create<Mfib>("Mfib", arg);
  instanceName_ = mfib_->name();
  EXPECT_EQ(MfibTestPeer::routes(*mfib_).initialSize(), 128U);
  for (const char* group : {"239.1.1.1", "239.1.1.2", "239.1.1.3"}) {
    EXPECT_FALSE(addRoute({.source = kSource, .group = group, .iif = ""}).has_error());
  }
  EXPECT_EQ(MfibTestPeer::routes(*mfib_).size(), 3U);
}

TEST_F(MfibLifecycle, withoutASystemNameItIsNy) {
  const std::string name = getenv("SYSNAME");
  const std::string path = routePath("sysnametest", Nynet::AddressFamily::kIpv4);
  auto madeUnder = [&](const std::string& system) {
    createInstance({.vrf = "sysnametest"});
    const bool made = std::filesystem::exists(sharedFile(system, path));
    destroyInstance();
    return made;
  };
  EXPECT_TRUE(madeUnder(name));
  unsetenv("SYSNAME");
  EXPECT_TRUE(madeUnder("ny"));
  setenv("SYSNAME", "", 1);
  EXPECT_TRUE(madeUnder("ny"));
  setenv("SYSNAME", name.c_str(), 1);
}

TEST_F(MfibLifecycle, aSecondInstanceEmptiesTheSharedTablesAgain) {
  Mfib& first = createInstance();
  enable({"Ethernet0"});
  addRoute({.source = kSource, .group = kGroup, .iif = "Ethernet0"});
  EXPECT_EQ(MfibTestPeer::sharedRoutes(first)->size(), 1U);
  EXPECT_EQ(MfibTestPeer::sharedIntfs(first)->size(), 1U);
  createInstance();
  EXPECT_EQ(MfibTestPeer::sharedRoutes(first)->size(), 0U);
  EXPECT_EQ(MfibTestPeer::sharedIntfs(first)->size(), 0U);
  addRoute({.source = kSource, .group = kGroup, .iif = "Ethernet0"});
  EXPECT_EQ(MfibTestPeer::sharedRoutes(first)->size(), 1U) << "both use the same table";
}

TEST_F(MfibLifecycle, theFamiliesOfAVrfHaveTablesOfTheirOwn) {
  Mfib& v4 = createInstance({.af = 1});
  addRoute({.source = kSource, .group = kGroup, .iif = "Ethernet0"});
  createInstance({.af = 2});
  EXPECT_EQ(MfibTestPeer::sharedRoutes(v4)->size(), 1U);
  EXPECT_EQ(MfibTestPeer::sharedRoutes(*mfib_)->size(), 0U);
}

// --- Initialisation that fails --------------------------------------------------------------

TEST_F(MfibLifecycle, aTableThatCannotBeMadeIsAnErrorThatNamesIt) {
  const std::string reason = rte_strerror(-12);
  const std::pair<int, const char*> tables[] = {
      {2, "multicastIntf"}, {3, "wrongVifTimestamp"}, {4, "sgAlert"}};
  for (const auto& [place, table] : tables) {
    expectRefused("red", ENOSPC,
                  std::string(table) + ": failed to create hash table. Error: " + reason, place);
  }
}

TEST_F(MfibLifecycle, aVrfNameOfMoreThan100BytesIsRefused) {
  createInstance({.vrf = std::string(100, 'v')});
  EXPECT_EQ(MfibTestPeer::namespaceName(*mfib_), "ns-" + std::string(100, 'v'));
  destroyInstance();
  expectRefused(std::string(101, 'v'), EINVAL, "Orp::String::bytes > maxLength() not allowed");
}

TEST_F(MfibLifecycle, aRouteTableThatCannotBeMadeIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        failingTable = 1;
        create("fatal", "red");
      },
      "Assertion `mfib_' failed");
}

TEST_F(MfibLifecycle, aSocketThatCannotBeOpenedIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        const TraceLevel level(6);
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = 0;
        setrlimit(RLIMIT_NOFILE, &limit);
        create("fatal", "default");
      },
      "Mfib::Init\\(const sfe::pb::MfibArg&\\): "
      "Enabling Tx socket returned unexpected error: 24. Exiting due to the same.(.|\n)*"
      "Assertion `0 && \"MrtNotifyNetlinkSocketPam::enableTxIs\\(\\) failed\"' failed");
}

TEST_F(MfibLifecycle, aMissingNamespaceIsTracedAndIgnored) {
  const TraceLevel level(6);
  const LogLines log;
  createInstance({.vrf = "no-such-vrf"});
  EXPECT_EQ(log.with(kInitTrace + "Enabling Tx socket returned error: 2. Ignoring the same."), 1U);
  EXPECT_FALSE(MfibTestPeer::socket(*mfib_)->enableTx());
  enable({"Ethernet0"});
  receive(frame(), "Ethernet0");
  EXPECT_EQ(event(4), 1U) << "it works, only nobody hears it";
}

// A directory of namespaces of the test's own.
class MfibNamespaces : public MfibLifecycle {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "needs the right to mount";
    }
    ASSERT_EQ(mount("tmpfs", "/run", "tmpfs", 0, nullptr), 0);
    mounted_ = true;
    ASSERT_EQ(mkdir("/run/netns", 0755), 0);
  }
  ~MfibNamespaces() override {
    destroyInstance();
    if (mounted_) {
      umount2("/run", MNT_DETACH);
    }
  }
  bool mounted_ = false;
};

TEST_F(MfibNamespaces, aFileThatIsNoNamespaceIsTracedAndIgnored) {
  close(open("/run/netns/ns-plain", O_CREAT | O_WRONLY, 0644));
  const TraceLevel level(6);
  const LogLines log;
  createInstance({.vrf = "plain"});
  EXPECT_EQ(log.with(kInitTrace + "Enabling Tx socket returned error: 22. Ignoring the same."), 1U);
  EXPECT_FALSE(MfibTestPeer::socket(*mfib_)->enableTx());
}

TEST_F(MfibNamespaces, aVrfNotifiesInItsOwnNamespace) {
  close(open("/run/netns/ns-red", O_CREAT | O_WRONLY, 0644));
  std::atomic<bool> made{false};
  std::thread([&made] {
    made = unshare(CLONE_NEWNET) == 0 &&
           mount("/proc/thread-self/ns/net", "/run/netns/ns-red", nullptr, MS_BIND, nullptr) == 0;
  }).join();
  ASSERT_TRUE(made);
  Routing::Multicast::Notify::CacheReportListener red{Nynet::NamespaceName("ns-red")};
  createInstance({.vrf = "red"});
  enable({"Ethernet0"});
  receive(frame(), "Ethernet0");
  EXPECT_TRUE(red.receive(0).has_value());
  EXPECT_TRUE(notifications().empty()) << "and in no other";
  destroyInstance();
  umount2("/run/netns/ns-red", MNT_DETACH);
}

// --- Teardown -------------------------------------------------------------------------------

TEST_F(MfibLifecycle, teardownLeavesTheSharedTablesEmpty) {
  createInstance();
  const auto routes = MfibTestPeer::sharedRoutes(*mfib_);
  const auto intfs = MfibTestPeer::sharedIntfs(*mfib_);
  enable({"Ethernet0", "Ethernet1"});
  addRoute({.source = kSource, .group = kGroup, .iif = "Ethernet0", .oifs = {{"Ethernet1"}}});
  receive(frame(), "Ethernet0");
  EXPECT_EQ(routes->size(), 1U);
  EXPECT_EQ(intfs->size(), 2U);
  destroyInstance();
  EXPECT_EQ(routes->size(), 0U);
  EXPECT_EQ(intfs->size(), 0U);
  publishCountersNow();
  EXPECT_EQ(routes->size(), 0U) << "nothing is published any more";
  EXPECT_EQ(intfs->size(), 0U);
}

// A publication that is under way when the teardown begins writes once more after the tables were
// emptied; it is held up by a worker that still counts.
TEST_F(MfibLifecycle, aPublicationThatRunsMeanwhileLeavesNothingBehind) {
  createInstance();
  const auto intfs = MfibTestPeer::sharedIntfs(*mfib_);
  const IntfCounterTable* shared = intfs.get();
  const uint64_t intf = id("Ethernet0");
  mfib_->forceLookupIntfCtrUpdates(intf)->pktsIn = 5;
  auto& table = MfibTestPeer::intfCounters(*mfib_);
  std::atomic<bool> holding{false};
  std::atomic<bool> seen{false};
  std::thread worker([&] {
    urcu_qsbr_register_thread();
    IntfCounterEntry* entry = table.find(intf)->get();
    holding = true;
    while (shared->size() == 0) {
      std::this_thread::yield();  // until it is published
    }
    seen = true;
    while (shared->size() != 0) {
      std::this_thread::yield();  // until the teardown has emptied the table
    }
    entry->pktsIn += 1;
    SFE_RCU_QUIESCENT();
    urcu_qsbr_unregister_thread();
  });
  std::thread publisher([&] {
    urcu_qsbr_register_thread();
    urcu_qsbr_thread_offline();
    while (!holding) {
      std::this_thread::yield();
    }
    urcu_qsbr_thread_online();
    publishCountersNow();
    urcu_qsbr_unregister_thread();
  });
  while (!seen) {
    SFE_RCU_QUIESCENT();
    urcu_qsbr_quiescent_state();
    std::this_thread::yield();
  }
  destroyInstance();
  EXPECT_EQ(intfs->size(), 0U);
  urcu_qsbr_thread_offline();
  worker.join();
  publisher.join();
  urcu_qsbr_thread_online();
  EXPECT_EQ(intfs->size(), 0U);
}

TEST_F(MfibLifecycle, teardownTakesItsStepsInOrder) {
  createInstance();
  mfib_->regMfibTasks({});
  const TraceLevel level(6);
  const LogLines log;
  destroyInstance();
  const char* const steps[] = {
      "virtual void SfeModules::Mfib::DeInit(): ", "~NoCachePacketManager()",
      "Remove mount path for dumping state from bessd",
      "Removing /Mroute4_default from the fuse registry. ", "void fuseDeInit()"};
  for (size_t i = 0; i < std::size(steps); ++i) {
    EXPECT_EQ(log.at(steps[i]), log.at(steps[0]) + i) << steps[i];
  }
}

TEST_F(MfibLifecycle, teardownRemovesOnlyTheInstancesOwnStateFile) {
  createInstance({.af = 1, .vrf = "red"});
  mfib_->regMfibTasks({});
  createInstance({.af = 2, .vrf = "red"});
  mfib_->regMfibTasks({});
  EXPECT_TRUE(stateFileExists("/Mroute6_ns-red"));
  destroyInstance();
  EXPECT_FALSE(stateFileExists("/Mroute6_ns-red"));
  EXPECT_TRUE(stateFileExists("/Mroute4_ns-red"));
  // One that never registered a file takes none away.
  createInstance({.af = 1, .vrf = "red"});
  destroyInstance();
  EXPECT_TRUE(stateFileExists("/Mroute4_ns-red"));
}

TEST_F(MfibLifecycle, teardownFreesRoutesWithoutAMessage) {
  createInstance();
  enable({"Ethernet0"});
  addRoute({.source = kSource, .group = kGroup, .iif = "Ethernet0", .oifs = {{"Ethernet1"}}});
  addRoute({.source = "*", .group = kGroup, .iif = "Ethernet0"});
  receive(
      frames::etherFrame(frames::groupMac("239.1.1.9"), "02:00:00:00:00:01", frames::kEtherTypeIpv4,
                         frames::ipPacket(frames::Ip{.source = kSource, .group = "239.1.1.9"})),
      "Ethernet0");
  notifications();
  const std::shared_ptr<MfibPvSet> held = *MfibTestPeer::routes(*mfib_).find(key(kSource, kGroup));
  const std::weak_ptr<MfibPvSet> other = *MfibTestPeer::routes(*mfib_).find(key("*", kGroup));
  mfib_->addWrongVifTimestamp(key(kSource, kGroup), 5, ManualClock::now());
  const auto times = *MfibTestPeer::wrongVifTimes(*mfib_).find(key(kSource, kGroup));
  destroyInstance();
  EXPECT_TRUE(notifications().empty());
  EXPECT_TRUE(other.expired());
  EXPECT_EQ(held.use_count(), 1) << "a reader's entry lives on";
  EXPECT_EQ(held->oifs()[0].value(), id("Ethernet1"));
  EXPECT_TRUE(times->contains(5));
}

TEST_F(MfibLifecycle, teardownOfWhatWasNeverInitialisedDoesNothing) {
  std::unique_ptr<Module> module(Mfib::create());
  module->DeInit();
  module->DeInit();
}

TEST_F(MfibLifecycle, instancesComeAndGoWithoutATrace) {
  createInstance();
  const size_t packets = packetsInUse();
  destroyInstance();
  for (int i = 0; i < 5; ++i) {
    createInstance();
    enable({"Ethernet0"});
    receive(frame(), "Ethernet0");
    destroyInstance();
  }
  EXPECT_EQ(packetsInUse(), packets);
  const std::string system = "test" + std::to_string(getpid());
  EXPECT_FALSE(std::filesystem::exists(
      sharedFile(system, routePath("default", Nynet::AddressFamily::kIpv4))));
}

}  // namespace
}  // namespace SfeModules
