#include "Sfe/OrpSharedMem/EntityManager.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/file.h>

#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "Base/Bindle/Exceptions.h"
#include "Base/Orp/SystemException.h"
#include "Sfe/Multicast/CounterTableReader.h"
#include "Sfe/Multicast/TableTesting.h"

namespace OrpSharedMem {
namespace {

using Sfe::Multicast::IntfCounter;
using Sfe::Multicast::IntfCounterReader;
using Sfe::Multicast::IntfCounterTable;
using Sfe::Multicast::MrouteCounterTable;
using namespace Sfe::Multicast::Testing;

constexpr uint32_t kCapacity = 8;

class EntityManagerTest : public TableTest {
 protected:
  const std::string path_ = defaultPath<IntfCounterTable>();
  const std::string file_ = SharedObject::filePath(objectName(systemName_, path_));

  OrpPell::MountInfo info(uint32_t entries = kCapacity) const {
    OrpPell::MountInfo info(0);
    info.collectionInfoIs("intf", entries);
    return info;
  }

  // What a daemon that was killed leaves behind.
  void leaveObject(const IntfCounter& record) {
    const std::string saved = file_ + ".saved";
    auto table = mountTable<IntfCounterTable>(systemName_, kCapacity);
    table->intfIs(record);
    std::filesystem::copy_file(file_, saved);
    table = nullptr;
    std::filesystem::rename(saved, file_);
  }
};

TEST(SystemName, comesFromTheEnvironment) {
  setenv("SYSNAME", "blue", 1);
  EXPECT_EQ(systemNameFromEnv(), "blue");
  setenv("SYSNAME", "", 1);
  EXPECT_EQ(systemNameFromEnv(), "ny");
  unsetenv("SYSNAME");
  EXPECT_EQ(systemNameFromEnv(), "ny");
}

TEST(ObjectName, writesThePathWithDots) {
  EXPECT_EQ(objectName("ny", "/Sfe/Multicast/ipv4/red/intf"),
            "/sfe.ny.Sfe.Multicast.ipv4.red.intf");
  EXPECT_EQ(objectName("../x", "/a"), "/sfe.%2E%2E%2Fx.a");
}

TEST_F(EntityManagerTest, isOnePerSystemNameAndMode) {
  EXPECT_EQ(getEntityManager(systemName_, false), getEntityManager(systemName_, false));
  EXPECT_NE(getEntityManager(systemName_, false).get(), getEntityManager(systemName_, true).get());
  EXPECT_NE(getEntityManager(systemName_, false).get(), getEntityManager("other", false).get());
}

TEST_F(EntityManagerTest, hasNoEntityWhereNothingIsMounted) {
  EXPECT_EQ(getEntityManager(systemName_, false)->getEntity(path_), nullptr);
}

TEST_F(EntityManagerTest, sharesAnEntityBetweenTwoMounts) {
  auto first = mountTable<IntfCounterTable>(systemName_, kCapacity);
  auto second = mountTable<IntfCounterTable>(systemName_, kCapacity);
  first->intfIs(uniformRecord(intfId(1), 1));
  EXPECT_EQ(second->intf(intfId(1)), uniformRecord(intfId(1), 1));
  first = nullptr;
  EXPECT_EQ(second->intf(intfId(1)), uniformRecord(intfId(1), 1));
  EXPECT_EQ(objects().size(), 1u);
  second = nullptr;
  EXPECT_TRUE(objects().empty());
  EXPECT_EQ(getEntityManager(systemName_, false)->getEntity(path_), nullptr);
}

TEST_F(EntityManagerTest, keepsAMountUntilItIsFetchedOrGivenBack) {
  const auto manager = getEntityManager(systemName_, false);
  manager->doMount(path_, IntfCounter::kTypeName, info());
  EXPECT_EQ(objects().size(), 1u);
  manager->unmount(path_);
  EXPECT_TRUE(objects().empty());
  manager->unmount(path_);
  manager->doMount(path_, IntfCounter::kTypeName, info());
  auto entity = manager->getEntity(path_);
  manager->unmount(path_);
  EXPECT_EQ(objects().size(), 1u);
  entity = nullptr;
  EXPECT_TRUE(objects().empty());
}

TEST_F(EntityManagerTest, refusesWhatItCannotMount) {
  const auto manager = getEntityManager(systemName_, false);
  EXPECT_THROW(manager->doMount(path_, "Sfe::NoSuchTable", info()), std::invalid_argument);
  EXPECT_THROW(manager->doMount("path", IntfCounter::kTypeName, info()), std::invalid_argument);
  EXPECT_THROW(manager->doMount("/", IntfCounter::kTypeName, info()), std::invalid_argument);
  EXPECT_THROW(manager->doMount(path_, IntfCounter::kTypeName, info(0)), std::invalid_argument);
  EXPECT_THROW(manager->doMount(path_, IntfCounter::kTypeName, info(~0u)), std::invalid_argument);
  OrpPell::MountInfo otherMemory(1);
  otherMemory.collectionInfoIs("intf", kCapacity);
  EXPECT_THROW(manager->doMount(path_, IntfCounter::kTypeName, otherMemory), std::invalid_argument);
  EXPECT_THROW(manager->doMount("/" + std::string(300, 'x'), IntfCounter::kTypeName, info()),
               Orp::SystemException);
  const auto table = mountTable<IntfCounterTable>(systemName_, kCapacity);
  EXPECT_THROW(manager->doMount(path_, IntfCounter::kTypeName, info(kCapacity + 1)),
               std::invalid_argument);
}

TEST_F(EntityManagerTest, takesOverTheRecordsOfAnEarlierRun) {
  leaveObject(uniformRecord(intfId(1), 5));
  const auto table = mountTable<IntfCounterTable>(systemName_, kCapacity);
  EXPECT_EQ(table->size(), 1u);
  EXPECT_EQ(table->intf(intfId(1)), uniformRecord(intfId(1), 5));
  EXPECT_EQ(IntfCounterReader(systemName_, path_).generation(), 2u);
  table->intfIs(uniformRecord(intfId(1), 6));
  EXPECT_EQ(IntfCounterReader(systemName_, path_).snapshot().size(), 1u);
  table->intfDelAll();
  EXPECT_EQ(table->intf(intfId(1)), IntfCounter());
}

TEST_F(EntityManagerTest, clearsWhatAnEarlierRunLeftUnreadable) {
  leaveObject(uniformRecord(intfId(1), 5));
  RawObject(systemName_, path_).flip(Sfe::Multicast::kHeaderBytes, 1);
  const auto table = mountTable<IntfCounterTable>(systemName_, kCapacity);
  EXPECT_EQ(table->size(), 0u);
  EXPECT_EQ(table->corruptions(), 1u);
  for (uint32_t n = 0; n < kCapacity; ++n) {
    table->intfIs(uniformRecord(intfId(n), n));
  }
  EXPECT_EQ(table->overflows(), 0u);
}

TEST_F(EntityManagerTest, keepsOneOfTwoRecordsOfOneKey) {
  leaveObject(uniformRecord(intfId(1), 5));
  {
    RawObject raw(systemName_, path_);
    Sfe::Multicast::SlotMemory forger(raw.bytes(), IntfCounter::kShape, kCapacity);
    std::array<uint64_t, IntfCounter::kShape.recordWords()> words;
    uniformRecord(intfId(1), 6).toWords(words);
    forger.write(kCapacity - 1, words);
  }
  const auto table = mountTable<IntfCounterTable>(systemName_, kCapacity);
  EXPECT_EQ(table->size(), 1u);
  EXPECT_EQ(IntfCounterReader(systemName_, path_).snapshot().size(), 1u);
}

TEST_F(EntityManagerTest, makesAnObjectOfAnotherCapacityAnew) {
  leaveObject(uniformRecord(intfId(1), 5));
  const auto table = mountTable<IntfCounterTable>(systemName_, 2 * kCapacity);
  EXPECT_EQ(table->size(), 0u);
  const IntfCounterReader reader(systemName_, path_);
  EXPECT_EQ(reader.capacity(), 2 * kCapacity);
  EXPECT_EQ(reader.generation(), 1u);
}

TEST_F(EntityManagerTest, makesAnObjectWithADamagedHeaderAnew) {
  for (size_t at = 0; at < Sfe::Multicast::kHeaderBytes; at += 8) {
    leaveObject(uniformRecord(intfId(1), 5));
    RawObject(systemName_, path_).flip(at, 0x10);
    const auto table = mountTable<IntfCounterTable>(systemName_, kCapacity);
    EXPECT_EQ(table->size(), 0u) << "byte " << at;
    EXPECT_EQ(IntfCounterReader(systemName_, path_).generation(), 1u);
  }
}

TEST_F(EntityManagerTest, makesAnythingElseUnderItsNameAnew) {
  for (const std::string content : {"", "x", "not a table at all"}) {
    std::ofstream(file_) << content;
    const auto table = mountTable<IntfCounterTable>(systemName_, kCapacity);
    table->intfIs(uniformRecord(intfId(1), 1));
    EXPECT_EQ(table->size(), 1u);
  }
}

TEST_F(EntityManagerTest, doesNotShareAnObjectWithAnotherWriter) {
  leaveObject(uniformRecord(intfId(1), 5));
  const int other = open(file_.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(flock(other, LOCK_EX), 0);
  try {
    mountTable<IntfCounterTable>(systemName_, kCapacity);
    ADD_FAILURE() << "mounted";
  } catch (const Orp::SystemException& e) {
    EXPECT_EQ(e.errnoValue(), EBUSY);
    EXPECT_NE(std::string(e.what()).find(file_), std::string::npos);
  }
  close(other);
  EXPECT_EQ(mountTable<IntfCounterTable>(systemName_, kCapacity)->size(), 1u);
}

TEST_F(EntityManagerTest, saysWhyThereIsNothingToRead) {
  try {
    mountTable<IntfCounterTable>(systemName_, kCapacity, /*readOnly=*/true);
    ADD_FAILURE() << "mounted";
  } catch (const Orp::SystemException& e) {
    EXPECT_EQ(e.errnoValue(), ENOENT);
    EXPECT_NE(std::string(e.what()).find(file_), std::string::npos);
    EXPECT_NE(std::string(e.what()).find("SYSNAME"), std::string::npos);
  }
}

TEST_F(EntityManagerTest, refusesToReadADamagedOrOtherTable) {
  const auto table = mountTable<IntfCounterTable>(systemName_, kCapacity);
  EXPECT_THROW(Sfe::Multicast::MrouteCounterReader(systemName_, path_), std::runtime_error);
  RawObject raw(systemName_, path_);
  raw.flip(40, 1);
  EXPECT_THROW(IntfCounterReader(systemName_, path_), Bindle::CorruptionDetectedException);
  raw.flip(40, 1);
  EXPECT_EQ(IntfCounterReader(systemName_, path_).capacity(), kCapacity);
}

TEST_F(EntityManagerTest, listsTheTablesOfItsSystemName) {
  const auto intfs = mountTable<IntfCounterTable>(systemName_, kCapacity);
  const auto mroutes = mountTable<MrouteCounterTable>(systemName_, kCapacity);
  RawObject(systemName_, intfs->path()).flip(0, 1);
  const auto tables = Sfe::Multicast::listTables(systemName_);
  ASSERT_EQ(tables.size(), 2u);
  EXPECT_FALSE(tables[0].fault.empty());
  EXPECT_EQ(tables[1].header.path, mroutes->path());
  EXPECT_EQ(tables[1].header.writerPid, static_cast<uint32_t>(getpid()));
}

// The last handle goes on one thread while another one mounts again.
TEST_F(EntityManagerTest, survivesMountsAndUnmountsOfSeveralThreads) {
  auto remount = [this] {
    for (int round = 0; round < 50; ++round) {
      EXPECT_NE(mountTable<IntfCounterTable>(systemName_, kCapacity), nullptr);
    }
  };
  std::thread other(remount);
  remount();
  other.join();
  EXPECT_TRUE(objects().empty());
}

}  // namespace
}  // namespace OrpSharedMem
