// The counter tables as their module uses them.
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "Base/Bindle/Exceptions.h"
#include "Base/RcuCallbacks.h"
#include "Sfe/Multicast/CounterTableReader.h"
#include "Sfe/Multicast/MountPath.h"
#include "Sfe/Multicast/TableTesting.h"

namespace Sfe::Multicast {
namespace {

using namespace Testing;
using Bindle::CorruptionDetectedException;

constexpr uint32_t kCapacity = 16;
constexpr uint32_t kProductCapacity = 60000;

IntfCounter intfRecord(uint64_t n, uint64_t value) {
  return uniformRecord(intfId(n), value);
}

class CounterTableTest : public TableTest {
 protected:
  auto intfTable(uint32_t capacity = kCapacity, bool readOnly = false) const {
    return mountTable<IntfCounterTable>(systemName_, capacity, readOnly);
  }
  auto mrouteTable() const { return mountTable<MrouteCounterTable>(systemName_, kCapacity); }
  size_t slotAt(uint32_t slot) const {
    return kHeaderBytes + slot * IntfCounter::kShape.slotBytes();
  }
};

TEST(IntfCounter, countsEachFieldByItself) {
  IntfCounter record(intfId(1));
  record.pktsInInc(1);
  record.pktsOutInc(2);
  record.bytesInInc(3);
  record.bytesOutInc(4);
  record.pktsQueuedInc(5);
  record.pktsDroppedInc(6);
  record.pktsDroppedInc(10);
  EXPECT_EQ(record.intfId(), intfId(1));
  EXPECT_EQ(record.pktsIn(), 1u);
  EXPECT_EQ(record.pktsOut(), 2u);
  EXPECT_EQ(record.bytesIn(), 3u);
  EXPECT_EQ(record.bytesOut(), 4u);
  EXPECT_EQ(record.pktsQueued(), 5u);
  EXPECT_EQ(record.pktsDropped(), 16u);
  EXPECT_NE(record, IntfCounter(intfId(1)));
  EXPECT_NE(IntfCounter(intfId(1)), IntfCounter());
}

TEST(MrouteCounter, countsEachFieldByItself) {
  MrouteCounter record(routeKey(1));
  record.pktsInInc(1);
  record.bytesInInc(2);
  record.wrongVifInc(3);
  record.pktsQueuedInc(4);
  record.pktsDroppedInc(5);
  EXPECT_EQ(record.key(), routeKey(1));
  EXPECT_EQ(record.pktsIn(), 1u);
  EXPECT_EQ(record.bytesIn(), 2u);
  EXPECT_EQ(record.wrongVif(), 3u);
  EXPECT_EQ(record.pktsQueued(), 4u);
  EXPECT_EQ(record.pktsDropped(), 5u);
  EXPECT_NE(record, MrouteCounter(routeKey(1)));
  EXPECT_NE(MrouteCounter(routeKey(1)), MrouteCounter());
}

TEST(MrouteCounter, refusesWordsThatAreNoRoute) {
  std::array<uint64_t, MrouteCounter::kShape.recordWords()> words;
  MrouteCounter record(routeKey(1));
  record.toWords(words);
  MrouteCounter back;
  EXPECT_TRUE(MrouteCounter::fromWords(words, &back));
  EXPECT_EQ(back, record);
  for (const uint64_t wrong : {uint64_t{3}, uint64_t{3} << 16, uint64_t{1} << 32}) {
    auto damaged = words;
    damaged[4] |= wrong;
    EXPECT_FALSE(MrouteCounter::fromWords(damaged, &back)) << wrong;
  }
  words[1] = 1;  // behind the four bytes of an IPv4 address
  EXPECT_FALSE(MrouteCounter::fromWords(words, &back));
}

TEST(MountPath, namesFamilyVrfAndCollection) {
  EXPECT_EQ(IntfCounterTable::mountPath(Nynet::AddressFamily::kIpv4, L3::VrfName("red")),
            "/Sfe/Multicast/ipv4/red/intf");
  EXPECT_EQ(MrouteCounterTable::mountPath(Nynet::AddressFamily::kIpv6, L3::VrfName("red")),
            "/Sfe/Multicast/ipv6/red/mroute");
}

TEST(MountPath, keepsVrfNamesOfAnyBytesApart) {
  for (const std::string vrf : {"a.b", "a/b", "a%2Eb", "..", "/", "a b", ""}) {
    const std::string path =
        MrouteCounterTable::mountPath(Nynet::AddressFamily::kIpv6, L3::VrfName(vrf));
    const auto parts = parseCounterMountPath(path);
    ASSERT_TRUE(parts) << path;
    EXPECT_EQ(parts->vrf, vrf);
    EXPECT_EQ(parts->af, Nynet::AddressFamily::kIpv6);
    EXPECT_EQ(parts->collection, "mroute");
  }
  EXPECT_FALSE(parseCounterMountPath("/Sfe/Multicast/ipv5/red/intf"));
  EXPECT_FALSE(parseCounterMountPath("/Sfe/Multicast/ipv4/red"));
  EXPECT_FALSE(parseCounterMountPath("/Sfe/Multicast/ipv4/red/intf/more"));
  EXPECT_FALSE(parseCounterMountPath("/elsewhere/ipv4/red/intf"));
}

TEST_F(CounterTableTest, readsADefaultRecordForAnAbsentKey) {
  const auto intfs = intfTable();
  const auto mroutes = mrouteTable();
  EXPECT_EQ(intfs->intf(intfId(1)), IntfCounter());
  EXPECT_EQ(mroutes->mroute(routeKey(1)), MrouteCounter());
  EXPECT_EQ(intfs->size(), 0u);
}

TEST_F(CounterTableTest, keepsTheLastRecordOfEachKey) {
  const auto table = mrouteTable();
  for (uint32_t n = 0; n < kCapacity; ++n) {
    table->mrouteIs(MrouteCounter(routeKey(n)));
    MrouteCounter record(routeKey(n));
    record.pktsInInc(n + 1);
    table->mrouteIs(record);
  }
  EXPECT_EQ(table->size(), kCapacity);
  for (uint32_t n = 0; n < kCapacity; ++n) {
    EXPECT_EQ(table->mroute(routeKey(n)).key(), routeKey(n));
    EXPECT_EQ(table->mroute(routeKey(n)).pktsIn(), n + 1);
  }
}

TEST_F(CounterTableTest, forgetsDeletedRecords) {
  const auto table = intfTable();
  table->intfIs(intfRecord(1, 5));
  table->intfIs(intfRecord(2, 6));
  table->intfDel(intfId(1));
  table->intfDel(intfId(99));
  EXPECT_EQ(table->intf(intfId(1)), IntfCounter());
  EXPECT_EQ(table->intf(intfId(2)), intfRecord(2, 6));
  EXPECT_EQ(table->size(), 1u);
  table->intfDelAll();
  EXPECT_EQ(table->size(), 0u);
  EXPECT_TRUE(IntfCounterReader(systemName_, table->path()).snapshot().empty());
}

TEST_F(CounterTableTest, countsDeletedRecordsUntilTheyAreFreed) {
  const auto table = intfTable();
  table->intfIs(intfRecord(1, 5));
  table->intfIs(intfRecord(2, 6));
  urcu_qsbr_barrier();
  const RcuCallbacks::Counts before = RcuCallbacks::counts();
  table->intfDel(intfId(1));
  table->intfDel(intfId(99));
  EXPECT_EQ(RcuCallbacks::counts().queued, before.queued + 1);
  EXPECT_EQ(RcuCallbacks::counts().waiting(), 1u);  // this thread may still look
  SFE_RCU_QUIESCENT();
  urcu_qsbr_barrier();
  EXPECT_EQ(RcuCallbacks::counts().run, before.run + 1);
  EXPECT_EQ(RcuCallbacks::counts().waiting(), 0u);
}

TEST_F(CounterTableTest, dropsAndCountsTheRecordThatDoesNotFit) {
  const auto table = intfTable(kProductCapacity);
  for (uint32_t n = 0; n < kProductCapacity; ++n) {
    table->intfIs(intfRecord(n, n));
  }
  EXPECT_EQ(table->overflows(), 0u);
  table->intfIs(intfRecord(kProductCapacity, 1));
  table->intfIs(intfRecord(kProductCapacity, 1));
  EXPECT_EQ(table->overflows(), 2u);
  EXPECT_EQ(table->size(), kProductCapacity);
  EXPECT_EQ(table->intf(intfId(kProductCapacity)), IntfCounter());
  for (uint32_t n = 0; n < kProductCapacity; ++n) {
    ASSERT_EQ(table->intf(intfId(n)), intfRecord(n, n));
  }
  table->intfIs(intfRecord(7, 70));  // a key that it has still fits
  EXPECT_EQ(table->intf(intfId(7)).pktsIn(), 70u);
  table->intfDel(intfId(8));
  table->intfIs(intfRecord(kProductCapacity, 1));
  EXPECT_EQ(table->intf(intfId(kProductCapacity)).pktsIn(), 1u);
  EXPECT_EQ(IntfCounterReader(systemName_, table->path()).snapshot().size(), kProductCapacity);
  table->intfDelAll();
  EXPECT_EQ(table->size(), 0u);
}

TEST_F(CounterTableTest, makesANewRecordWhereThereIsNone) {
  const auto table = mrouteTable();
  MrouteCounter counted(routeKey(0));
  counted.pktsInInc(7);
  table->mrouteIs(counted);
  EXPECT_FALSE(table->mrouteNew(MrouteCounter(routeKey(0))));
  EXPECT_EQ(table->mroute(routeKey(0)), counted);
  for (uint32_t n = 1; n < kCapacity; ++n) {
    EXPECT_TRUE(table->mrouteNew(MrouteCounter(routeKey(n))));
    EXPECT_EQ(table->mroute(routeKey(n)), MrouteCounter(routeKey(n)));
  }
  EXPECT_EQ(table->overflows(), 0u);
  EXPECT_TRUE(table->mrouteNew(MrouteCounter(routeKey(kCapacity))));
  EXPECT_EQ(table->overflows(), 1u);
  EXPECT_EQ(table->mroute(routeKey(kCapacity)), MrouteCounter());
  EXPECT_FALSE(table->mrouteNew(MrouteCounter(routeKey(1))));
  EXPECT_EQ(table->overflows(), 1u);
  table->mrouteDel(routeKey(1));
  EXPECT_TRUE(table->mrouteNew(MrouteCounter(routeKey(kCapacity))));
  EXPECT_EQ(table->mroute(routeKey(kCapacity)), MrouteCounter(routeKey(kCapacity)));
  EXPECT_EQ(table->overflows(), 1u);
}

TEST_F(CounterTableTest, reportsDamageToWhoWantsToMakeANewRecord) {
  const auto table = mrouteTable();
  RawObject raw(systemName_, table->path());
  table->mrouteIs(MrouteCounter(routeKey(3)));
  raw.flip(kHeaderBytes + 30, 1);
  EXPECT_THROW(table->mrouteNew(MrouteCounter(routeKey(3))), CorruptionDetectedException);
  table->doCorruptionDetected("noted");
  EXPECT_TRUE(table->mrouteNew(MrouteCounter(routeKey(3))));
  EXPECT_EQ(table->mroute(routeKey(3)), MrouteCounter(routeKey(3)));
  EXPECT_EQ(table->size(), 1u);
}

TEST_F(CounterTableTest, reportsDamageOfEveryByteOfARecordUntilItIsNoted) {
  const auto table = intfTable(1);
  RawObject raw(systemName_, table->path());
  const IntfCounter record = intfRecord(3, 0x0123456789abcdef);
  uint64_t noted = 0;
  for (size_t at = 0; at < IntfCounter::kShape.slotBytes(); ++at) {
    table->intfIs(record);
    ASSERT_EQ(table->intf(intfId(3)), record);
    raw.flip(slotAt(0) + at, 0x41);
    std::string message;
    try {
      table->intf(intfId(3));
    } catch (const CorruptionDetectedException& e) {
      message = e.what();
    }
    ASSERT_NE(message.find(intfId(3).stringValue()), std::string::npos) << "byte " << at;
    EXPECT_THROW(table->intf(intfId(3)), CorruptionDetectedException);
    table->doCorruptionDetected(message);
    EXPECT_EQ(table->corruptions(), ++noted);
    EXPECT_EQ(table->intf(intfId(3)), IntfCounter()) << "byte " << at;
    EXPECT_TRUE(IntfCounterReader(systemName_, table->path()).snapshot().empty());
  }
}

TEST_F(CounterTableTest, healsDamageWithTheNextWrite) {
  const auto table = intfTable(1);
  RawObject raw(systemName_, table->path());
  table->intfIs(intfRecord(3, 1));
  for (size_t at = 0; at < IntfCounter::kShape.slotBytes(); ++at) {
    raw.flip(slotAt(0) + at, 0xff);
  }
  table->intfIs(intfRecord(3, 2));
  EXPECT_EQ(table->intf(intfId(3)), intfRecord(3, 2));
  EXPECT_EQ(table->size(), 1u);
  raw.flip(slotAt(0), 1);  // odd for ever: nobody waits for it
  table->intfDel(intfId(3));
  EXPECT_EQ(table->size(), 0u);
  table->intfIs(intfRecord(4, 4));
  EXPECT_EQ(table->intf(intfId(4)), intfRecord(4, 4));
}

TEST_F(CounterTableTest, doesNotTakeOutOfSightWhatWasWrittenMeanwhile) {
  const auto table = intfTable();
  RawObject raw(systemName_, table->path());
  table->intfIs(intfRecord(3, 1));
  raw.flip(slotAt(0) + 30, 1);
  EXPECT_THROW(table->intf(intfId(3)), CorruptionDetectedException);
  table->intfIs(intfRecord(3, 2));
  table->doCorruptionDetected("late");
  EXPECT_EQ(table->intf(intfId(3)), intfRecord(3, 2));
}

TEST_F(CounterTableTest, doesNotBelieveAnIntactRecordOfAnotherKey) {
  const auto table = intfTable(1);
  RawObject raw(systemName_, table->path());
  table->intfIs(intfRecord(3, 1));
  SlotMemory forger(raw.bytes(), IntfCounter::kShape, 1);
  std::array<uint64_t, IntfCounter::kShape.recordWords()> words;
  intfRecord(4, 9).toWords(words);
  forger.write(0, words);
  EXPECT_THROW(table->intf(intfId(3)), CorruptionDetectedException);
  table->doCorruptionDetected("forged");
  EXPECT_EQ(table->intf(intfId(3)), IntfCounter());
  EXPECT_EQ(table->intf(intfId(4)), IntfCounter());
}

TEST_F(CounterTableTest, repairsDamagedFreeSlotsWhenAllIsDeleted) {
  const auto table = intfTable();
  RawObject raw(systemName_, table->path());
  raw.flip(slotAt(5) + 20, 8);
  const IntfCounterReader reader(systemName_, table->path());
  std::vector<uint32_t> unreadable;
  reader.snapshot(&unreadable);
  EXPECT_EQ(unreadable, std::vector<uint32_t>{5});
  table->intfDelAll();
  EXPECT_EQ(table->corruptions(), 1u);
  reader.snapshot(&unreadable);
  EXPECT_TRUE(unreadable.empty());
}

TEST_F(CounterTableTest, readsThroughAReadOnlyMountAndRefusesToWrite) {
  const auto writer = intfTable();
  const auto reader = intfTable(kCapacity, /*readOnly=*/true);
  writer->intfIs(intfRecord(1, 1));
  EXPECT_EQ(reader->intf(intfId(1)), intfRecord(1, 1));
  EXPECT_EQ(reader->intf(intfId(2)), IntfCounter());
  EXPECT_EQ(reader->size(), 1u);
  EXPECT_THROW(reader->intfIs(IntfCounter(intfId(1))), std::logic_error);
  EXPECT_THROW(reader->intfDel(intfId(1)), std::logic_error);
  EXPECT_THROW(reader->intfDelAll(), std::logic_error);
}

// No mutex: a handler that runs while another thread is in the table is an ordinary caller.
TEST_F(CounterTableTest, isUsedByAThreadThatWasNotThereAtTheMount) {
  const auto table = intfTable();
  std::thread([&] {
    const RcuThread rcu;
    table->intfIs(intfRecord(1, 1));
  }).join();
  EXPECT_EQ(table->intf(intfId(1)), intfRecord(1, 1));
}

}  // namespace
}  // namespace Sfe::Multicast
