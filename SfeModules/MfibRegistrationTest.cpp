// What the framework knows of the class: registration, the command table, the setter commands.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "Base/NyToggles/NyToggles.h"
#include "Bess/ModuleBuilder.h"
#include "SfeModules/Testing/LogLines.h"
#include "SfeModules/Testing/MfibFixture.h"

namespace SfeModules {
namespace {

struct CommandRow {
  const char* name;
  const char* argType;
};
const CommandRow kCommands[] = {
    {"addMroute", "MfibRouteArg"},
    {"deleteMroute", "MfibRouteArg"},
    {"addMulticastIntfs", "MulticastIntfArg"},
    {"deleteMulticastIntfs", "MulticastIntfArg"},
    {"setBridgeMacAddr", "EthernetConfigArg"},
    {"setCacheExpiryTimer", "SizeArg"},
    {"setMaxUnresolvedCacheEntries", "SizeArg"},
    {"setMaxUnresolvedPktBuffers", "SizeArg"},
    {"setNoCacheSuppressionTimer", "SizeArg"},
    {"regMfibTasks", "MfibTaskIdArg"},
    {"setCounterIds", "MfibCounterIdArg"},
    {"regCleanupTask", "MfibTaskIdArg"},
};

class MfibRegistration : public MfibFixture {
 protected:
  MfibRegistration() { createInstance(); }

  NoCachePacketManager& cache() { return *MfibTestPeer::cache(*mfib_); }

  // Runs a command as the framework does, by name and with its message packed.
  CommandResponse run(const std::string& command, const google::protobuf::Message& arg) {
    google::protobuf::Any any;
    any.PackFrom(arg);
    return ModuleGraph::runCommand(mfib_->name(), command, any);
  }
  void setSize(const std::string& command, uint32_t value) {
    sfe::pb::SizeArg arg;
    arg.set_value(value);
    EXPECT_FALSE(run(command, arg).has_error()) << command;
  }
  CommandResponse setMac(const std::string& mac) {
    sfe::pb::EthernetConfigArg arg;
    arg.set_mac(mac);
    return run("setBridgeMacAddr", arg);
  }
  std::string mac() {
    const uint64_t word = MfibTestPeer::bridgeMac(*mfib_);
    return {reinterpret_cast<const char*>(&word), sizeof(word)};
  }
};

TEST_F(MfibRegistration, theClassIsKnownWithItsGatesAndTexts) {
  const ModuleBuilder* builder = ModuleBuilder::find("Mfib");
  ASSERT_NE(builder, nullptr);
  EXPECT_EQ(builder->className(), "Mfib");
  EXPECT_EQ(builder->nameTemplate(), "Mfib");
  EXPECT_EQ(builder->help(), "Mfib module");
  EXPECT_EQ(builder->igates(), 8192);
  EXPECT_EQ(builder->ogates(), 8192);
  EXPECT_EQ(builder->commands().size(), std::size(kCommands));
}

TEST_F(MfibRegistration, theTwelveCommandsComeInOrderAndAreThreadSafe) {
  ASSERT_EQ(Mfib::cmds.size(), std::size(kCommands));
  for (size_t i = 0; i < std::size(kCommands); ++i) {
    EXPECT_EQ(Mfib::cmds[i].name, kCommands[i].name);
    EXPECT_EQ(Mfib::cmds[i].argType, kCommands[i].argType);
    EXPECT_EQ(Mfib::cmds[i].threadSafe, 1) << kCommands[i].name;
  }
}

TEST_F(MfibRegistration, theFactoryGivesAnAlignedTaskModuleForEveryWorker) {
  const std::unique_ptr<Module> module(Mfib::create());
  EXPECT_EQ(reinterpret_cast<uintptr_t>(module.get()) % 64, 0U);
  EXPECT_TRUE(module->isTask());
  EXPECT_EQ(module->maxAllowedWorkers(), MAX_WORKERS);
  const auto& mfib = static_cast<const Mfib&>(*module);
  EXPECT_EQ(MfibTestPeer::suppressionTimer(mfib), 5U) << "before any command";
  EXPECT_EQ(MfibTestPeer::mrouteCount(mfib), 0U);
  EXPECT_EQ(MfibTestPeer::bridgeMac(mfib), 0U);
  EXPECT_EQ(MfibTestPeer::addrLen(mfib), 0U);
  EXPECT_EQ(MfibTestPeer::namespaceName(mfib), "");
}

TEST_F(MfibRegistration, aMacOfSixBytesIsTakenByteForByte) {
  EXPECT_FALSE(setMac(std::string("\x02\x00\xff\x80\x01\x7f", 6)).has_error());
  EXPECT_EQ(mac(), std::string("\x02\x00\xff\x80\x01\x7f\0\0", 8));
  for (const size_t length : {0U, 5U, 7U, 100U}) {
    const CommandResponse response = setMac(std::string(length, 'x'));
    ASSERT_TRUE(response.has_error()) << length;
    EXPECT_EQ(response.error().code(), EINVAL);
    EXPECT_EQ(response.error().errmsg(), "Invalid MAC address size");
    EXPECT_EQ(mac(), std::string("\x02\x00\xff\x80\x01\x7f\0\0", 8)) << "the old one stays";
  }
}

TEST_F(MfibRegistration, everySizeIsStoredAsItIs) {
  for (const uint32_t value : {77U, 0U, 0xffffffffU}) {
    setSize("setMaxUnresolvedCacheEntries", value);
    EXPECT_EQ(cache().maxUnresolvedCacheEntries_, value);
    setSize("setMaxUnresolvedPktBuffers", value);
    EXPECT_EQ(cache().maxUnresolvedPktBuffers_, value);
    setSize("setCacheExpiryTimer", value);
    EXPECT_EQ(cache().expiryTimer_, value);
    setSize("setNoCacheSuppressionTimer", value);
    EXPECT_EQ(MfibTestPeer::suppressionTimer(*mfib_), value);
  }
}

TEST_F(MfibRegistration, eachSizeCommandSetsItsOwnValueOnly) {
  setSize("setMaxUnresolvedCacheEntries", 1);
  setSize("setMaxUnresolvedPktBuffers", 2);
  setSize("setCacheExpiryTimer", 4);
  setSize("setNoCacheSuppressionTimer", 6);
  EXPECT_EQ(cache().maxUnresolvedCacheEntries_, 1U);
  EXPECT_EQ(cache().maxUnresolvedPktBuffers_, 2U);
  EXPECT_EQ(cache().expiryTimer_, 4U);
  EXPECT_EQ(MfibTestPeer::suppressionTimer(*mfib_), 6U);
}

TEST_F(MfibRegistration, theTimersAreTraced) {
  const TraceLevel level(6);
  const LogLines log;
  setSize("setCacheExpiryTimer", 7);
  setSize("setNoCacheSuppressionTimer", 8);
  EXPECT_EQ(log.with("CommandResponse SfeModules::Mfib::setCacheExpiryTimer(const "
                     "sfe::pb::SizeArg&): Set noCacheMgr_->expiryTimer_ to 7"),
            1U);
  EXPECT_EQ(log.with("CommandResponse SfeModules::Mfib::setNoCacheSuppressionTimer(const "
                     "sfe::pb::SizeArg&): Set noCacheSuppressionTimer_ to 8"),
            1U);
  setSize("setMaxUnresolvedCacheEntries", 9);
  setSize("setMaxUnresolvedPktBuffers", 9);
  EXPECT_EQ(log.with("setMaxUnresolved"), 0U) << "the other two say nothing";
}

TEST_F(MfibRegistration, counterIdsAreTakenInTheirOrder) {
  sfe::pb::MfibCounterIdArg ids;
  ids.set_non_mcast_iif(901);
  ids.set_wrong_vif(902);
  ids.set_whole_pkt(903);
  ids.set_no_cache(904);
  ids.set_no_cache_resolved(905);
  ids.set_no_cache_expired(906);
  ASSERT_FALSE(run("setCounterIds", ids).has_error());
  uint32_t id = 901;
  for (const char* name : {"nonMcastIIFMessagesCounter_", "wrongVifMessagesCounter_",
                           "wholePktMessagesCounter_", "noCacheMessagesCounter_",
                           "noCacheMessagesResolvedCounter_", "noCacheMessagesExpiredCounter_"}) {
    bessCounterRow(harness_.wid())[id] = id;
    EXPECT_EQ(mfib_->getCounter(&harness_.context(), name), static_cast<int>(id)) << name;
    bessCounterRow(harness_.wid())[id++] = 0;
  }
}

TEST_F(MfibRegistration, aMessageOfAnotherTypeReachesACommandEmpty) {
  sfe::pb::MulticastIntfArg other;
  other.add_intf_ids(5);
  setSize("setCacheExpiryTimer", 7);
  EXPECT_FALSE(run("setCacheExpiryTimer", other).has_error());
  EXPECT_EQ(cache().expiryTimer_, 0U);
  EXPECT_EQ(run("setBridgeMacAddr", other).error().errmsg(), "Invalid MAC address size");
  EXPECT_EQ(run("addMroute", other).error().code(), EINVAL);
  sfe::pb::SizeArg size;
  size.set_value(3);
  EXPECT_FALSE(run("addMulticastIntfs", size).has_error());
  EXPECT_EQ(MfibTestPeer::intfSet(*mfib_).size(), 0U);
}

TEST_F(MfibRegistration, everyCommandOfTheTableReachesItsFunction) {
  sfe::pb::MfibRouteArg route = routeArg({.source = "10.0.0.2", .group = "239.1.1.1", .iif = ""});
  EXPECT_FALSE(run("addMroute", route).has_error());
  EXPECT_EQ(MfibTestPeer::routes(*mfib_).size(), 1U);
  EXPECT_FALSE(run("deleteMroute", route).has_error());
  EXPECT_EQ(MfibTestPeer::routes(*mfib_).size(), 0U);
  sfe::pb::MulticastIntfArg intfs;
  intfs.add_intf_ids(5);
  EXPECT_FALSE(run("addMulticastIntfs", intfs).has_error());
  EXPECT_EQ(MfibTestPeer::intfSet(*mfib_).size(), 1U);
  EXPECT_FALSE(run("deleteMulticastIntfs", intfs).has_error());
  EXPECT_EQ(MfibTestPeer::intfSet(*mfib_).size(), 0U);
  for (const char* command : {"regMfibTasks", "regCleanupTask"}) {
    const size_t before = mfib_->tasks().size();
    EXPECT_FALSE(run(command, sfe::pb::MfibTaskIdArg()).has_error());
    EXPECT_EQ(mfib_->tasks().size(), before + 1);
  }
}

TEST_F(MfibRegistration, theToggleIsAskedForOnceInAProcess) {
  const bool first = toggleMfaWcFwdEnabled();
  const auto directory =
      std::filesystem::temp_directory_path() / ("toggle-once" + std::to_string(getpid()));
  std::filesystem::create_directories(directory);
  std::ofstream(directory / "Mroute.json")
      << R"({"MfaWcFwd": )" << (first ? "false" : "true") << "}";
  setToggleDirectory(directory.string());
  EXPECT_EQ(getToggleState("MfaWcFwd", "Mroute.json", first), !first) << "the file says so now";
  createInstance();
  EXPECT_EQ(toggleMfaWcFwdEnabled(), first);
  std::filesystem::remove_all(directory);
  setToggleDirectory("/etc/sfe/toggles");
}

TEST_F(MfibRegistration, theRegisterInterfaceIsKnownByItsName) {
  EXPECT_EQ(registerIntfId_, Nynet::IntfId::fromName("Register0"));
  EXPECT_EQ(registerIntfId_.stringValue(), "Register0");
}

}  // namespace
}  // namespace SfeModules
