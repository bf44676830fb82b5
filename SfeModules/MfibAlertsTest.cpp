// The rate limits of alerts, and what a limit or a closed socket keeps from being sent.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Base/NyToggles/NyToggles.h"
#include "Routing/Multicast/Notify/Messages.h"
#include "SfeModules/Testing/MfibFixture.h"

namespace SfeModules {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

constexpr const char* kSource = "10.0.0.2";
constexpr Mfib_U64 kIntf{5};
constexpr Mfib_U64 kOtherIntf{6};
constexpr uint8_t kSomeTtl = 64;

class MfibAlerts : public MfibFixture {
 protected:
  MfibAlerts() { createInstance(); }

  MfibKey route(unsigned n = 1) const {
    return key(kSource, "239.3." + std::to_string(n / 256) + "." + std::to_string(n % 256));
  }
  void addRouteFor(const MfibKey& key) {
    MfibTestPeer::routes(*mfib_).insert(key, MfibPvSet::make(0));
  }

  bool canSend(const MfibKey& key) { return mfib_->canSendSgAlert(key, ManualClock::now()); }
  bool canAlert(const MfibKey& key, Mfib_U64 intf, const MfibPvSet& entry) {
    return mfib_->canAlertWrongVif(key, intf, entry);
  }
  void alerted(const MfibKey& key, Mfib_U64 intf, nanoseconds ago = {}) {
    mfib_->addWrongVifTimestamp(key, intf.value, ManualClock::now() - ago);
  }
  void suppressFor(uint32_t interval) {
    sfe::pb::SizeArg arg;
    arg.set_value(interval);
    mfib_->setNoCacheSuppressionTimer(arg);
  }
  void bufferPackets(uint32_t limit) {
    MfibTestPeer::cache(*mfib_)->maxUnresolvedPktBuffers_ = limit;
  }
  void alertNoCache(uint8_t ttl, const MfibKey& key) {
    mfib_->generateNoCacheAlert(&harness_.context(), key, kIntf, ttl, ManualClock::now());
  }
  size_t sent() { return notifications().size(); }

  auto& sgAlerts() { return MfibTestPeer::sgAlerts(*mfib_); }
  auto& wrongVifTimes() { return MfibTestPeer::wrongVifTimes(*mfib_); }
  auto& timesOf(const MfibKey& key) { return **wrongVifTimes().find(key); }

  bool review(uint32_t run = 0) {
    MfibTestPeer::runTaskCount(*mfib_) = run;
    return mfib_->wrongVifTimestampReview();
  }

  static void pass(nanoseconds time) { ManualClock::advance(time); }
};

// --- NoCache --------------------------------------------------------------------------------

TEST_F(MfibAlerts, aNoCacheAlertGoesOutAgainFromExactlyOneIntervalOn) {
  EXPECT_TRUE(canSend(route()));
  EXPECT_FALSE(canSend(route()));
  pass(milliseconds(4900));
  EXPECT_FALSE(canSend(route()));
  pass(milliseconds(100));
  EXPECT_TRUE(canSend(route())) << "exactly five seconds";
  pass(milliseconds(4900));
  EXPECT_FALSE(canSend(route())) << "the time was set again";
  EXPECT_TRUE(canSend(route(2))) << "another key has a time of its own";
}

TEST_F(MfibAlerts, aRefusalLeavesTheRecordedTimeAlone) {
  canSend(route());
  const TimePoint first = ManualClock::now();
  pass(seconds(3));
  canSend(route());
  EXPECT_EQ(*sgAlerts().find(route()), first);
  pass(seconds(2));
  EXPECT_TRUE(canSend(route()));
  EXPECT_EQ(*sgAlerts().find(route()), ManualClock::now());
}

TEST_F(MfibAlerts, theSuppressionTimerIsFollowed) {
  suppressFor(0);
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(canSend(route())) << "0 lets every alert through";
  }
  suppressFor(60);
  pass(milliseconds(59999));
  EXPECT_FALSE(canSend(route()));
  pass(milliseconds(1));
  EXPECT_TRUE(canSend(route()));
  suppressFor(0xffffffff);
  pass(std::chrono::hours(100000));
  EXPECT_FALSE(canSend(route()));
}

TEST_F(MfibAlerts, aClockThatWasSteppedBackIsWithinTheInterval) {
  canSend(route());
  pass(-std::chrono::hours(1));
  EXPECT_FALSE(canSend(route()));
  suppressFor(0);
  EXPECT_FALSE(canSend(route()));
  pass(std::chrono::hours(1));
  EXPECT_TRUE(canSend(route()));
}

TEST_F(MfibAlerts, aNoCacheAlertIsLimitedOnlyWithoutBuffersOrWithTtlOne) {
  struct Case {
    uint32_t buffers;
    uint8_t ttl;
    size_t sent;  // of three in a row
    bool recorded;
  };
  unsigned n = 0;
  for (const Case& c :
       {Case{0, 64, 1, true}, Case{0, 1, 1, true}, Case{0, 2, 1, true}, Case{3, 64, 3, false},
        Case{3, 2, 3, false}, Case{3, 0, 3, false}, Case{3, 1, 1, true}, Case{1, 1, 1, true}}) {
    const MfibKey key = route(++n);
    bufferPackets(c.buffers);
    const uint64_t before = event(4);
    for (int i = 0; i < 3; ++i) {
      alertNoCache(c.ttl, key);
    }
    EXPECT_EQ(sent(), c.sent) << n;
    EXPECT_EQ(event(4) - before, c.sent) << "a refused alert is not counted: " << n;
    EXPECT_EQ(sgAlerts().contains(key), c.recorded) << n;
  }
}

TEST_F(MfibAlerts, aNoCacheMessageNamesKeyAndInterface) {
  alertNoCache(kSomeTtl, route());
  const std::vector<Report> reports = notifications();
  ASSERT_EQ(reports.size(), 1U);
  EXPECT_EQ(reports[0].kind, Routing::Multicast::Notify::kKindNoCache);
  EXPECT_EQ(reports[0].source.stringValue(), kSource);
  EXPECT_EQ(reports[0].group.stringValue(), "239.3.0.1");
  EXPECT_EQ(reports[0].intfId, kIntf.value);
}

// The toggle is read once in a process, so this needs one of its own.
TEST_F(MfibAlerts, aTtlOfOneIsNotLimitedWithTheToggleOff) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        const auto directory =
            std::filesystem::temp_directory_path() / ("toggles" + std::to_string(getpid()));
        std::filesystem::create_directories(directory);
        std::ofstream(directory / "Mroute.json") << R"({"MfaWcFwd": false})";
        setToggleDirectory(directory.string());
        for (int i = 0; i < 3; ++i) {
          alertNoCache(1, route());
        }
        const bool offWhileOff = !toggleMfaWcFwdEnabled();
        std::ofstream(directory / "Mroute.json") << R"({"MfaWcFwd": true})";
        const bool stillOff = !toggleMfaWcFwdEnabled();
        std::filesystem::remove_all(directory);
        bufferPackets(0);
        alertNoCache(1, route());
        alertNoCache(1, route());
        _exit(sent() == 4 && offWhileOff && stillOff ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(MfibAlerts, nothingIsSentAfterTheTeardown) {
  const auto socket = MfibTestPeer::socket(*mfib_);
  const Orp::Ptr<Nynet::MrtMessage> message(
      Orp::makePtr<Routing::Multicast::Notify::NoCacheMessage>());
  v4MrtNotifyMessage(message, 0x0a000002, 0xef030001);
  socket->txMrtNotificationWithIntfId(message, 5);
  EXPECT_EQ(sent(), 1U);
  destroyInstance();
  EXPECT_FALSE(socket->enableTx());
  socket->txMrtNotificationWithIntfId(message, 5);
  EXPECT_EQ(sent(), 0U);
}

// --- WrongVif -------------------------------------------------------------------------------

// The note spares the look-ups, never the alert: it ends before the interval does.
TEST_F(MfibAlerts, aNoIsNotedInTheKeysOwnEntryOnly) {
  const MfibPvSet entry{};
  pass(nanoseconds(1));
  alerted(route(), kIntf);
  EXPECT_FALSE(canAlert(route(), kIntf, entry));
  EXPECT_FALSE(entry.quiet.holds(kIntf.value, ManualClock::now()));
  EXPECT_FALSE(mfib_->canAlertWrongVif(route(), kIntf, entry, ManualClock::now(), &entry));
  EXPECT_TRUE(entry.quiet.holds(kIntf.value, ManualClock::now()));
  EXPECT_FALSE(entry.quiet.holds(kIntf.value + 1, ManualClock::now()));
  entry.quiet.put(kIntf.value + 1, ManualClock::now() + seconds(100));
  EXPECT_FALSE(entry.quiet.holds(kIntf.value + 1, ManualClock::now())) << "not its interface";
  pass(seconds(15));
  EXPECT_FALSE(entry.quiet.holds(kIntf.value, ManualClock::now()));
  EXPECT_FALSE(canAlert(route(), kIntf, entry)) << "exactly the interval is not enough";
}

TEST_F(MfibAlerts, aWrongVifAlertGoesOutAgainOnlyAfterTheInterval) {
  const MfibPvSet entry{};
  pass(nanoseconds(1));
  EXPECT_TRUE(canAlert(route(), kIntf, entry));
  EXPECT_TRUE(canAlert(route(), kIntf, entry)) << "asking records nothing";
  EXPECT_EQ(wrongVifTimes().size(), 0U);
  alerted(route(), kIntf);
  EXPECT_FALSE(canAlert(route(), kIntf, entry));
  pass(seconds(15));
  EXPECT_FALSE(canAlert(route(), kIntf, entry)) << "exactly the interval is not enough";
  pass(nanoseconds(1));
  EXPECT_TRUE(canAlert(route(), kIntf, entry));
  alerted(route(), kIntf);
  EXPECT_FALSE(canAlert(route(), kIntf, entry)) << "the time was set again";
}

TEST_F(MfibAlerts, aRouteProgrammedSinceTheLastAlertRearmsIt) {
  MfibPvSet entry{};
  alerted(route(), kIntf);
  entry.createTime = ManualClock::now() - nanoseconds(1);
  EXPECT_FALSE(canAlert(route(), kIntf, entry));
  entry.createTime = ManualClock::now();
  EXPECT_TRUE(canAlert(route(), kIntf, entry)) << "at the same moment";
  entry.createTime = ManualClock::now() + seconds(1);
  EXPECT_TRUE(canAlert(route(), kIntf, entry));
}

TEST_F(MfibAlerts, eachInterfaceOfEachKeyHasALimitOfItsOwn) {
  const MfibPvSet entry{};
  pass(nanoseconds(1));
  alerted(route(1), kIntf);
  EXPECT_TRUE(canAlert(route(1), kOtherIntf, entry));
  EXPECT_TRUE(canAlert(route(2), kIntf, entry));
  alerted(route(1), kOtherIntf);
  EXPECT_FALSE(canAlert(route(1), kIntf, entry));
  EXPECT_FALSE(canAlert(route(1), kOtherIntf, entry));
  EXPECT_EQ(wrongVifTimes().size(), 1U);
  EXPECT_EQ(timesOf(route(1)).size(), 2U);
  EXPECT_EQ(timesOf(route(1)).initialSize(), 16U);
}

TEST_F(MfibAlerts, theTimesOfAKeyOutliveItsEntryForWhoeverHoldsThem) {
  alerted(route(), kIntf);
  const auto times = *wrongVifTimes().find(route());
  wrongVifTimes().erase(route());
  EXPECT_TRUE(times->contains(kIntf.value));
}

// --- Cleanup of the NoCache times -------------------------------------------------------------

TEST_F(MfibAlerts, cleanupErasesWhatIsOldOrResolved) {
  struct Case {
    nanoseconds age;
    bool routed;
    bool erased;
  };
  const Case cases[] = {
      {seconds(0), false, false},
      {seconds(0), true, true},
      {seconds(5) - nanoseconds(1), false, false},
      {seconds(5) - nanoseconds(1), true, true},
      {seconds(5), false, true},
      {seconds(60), false, true},
      {seconds(60), true, true},
      {seconds(-60), false, false},
  };
  unsigned n = 0;
  for (const Case& c : cases) {
    const MfibKey key = route(++n);
    sgAlerts().insert(key, ManualClock::now() - c.age);
    if (c.routed) {
      addRouteFor(key);
    }
    EXPECT_EQ(mfib_->sgAlertCleanup(), c.erased) << n;
    EXPECT_EQ(sgAlerts().contains(key), !c.erased) << n;
    sgAlerts().erase(key);
  }
  EXPECT_FALSE(mfib_->sgAlertCleanup()) << "nothing is there";
}

TEST_F(MfibAlerts, cleanupFollowsTheSuppressionTimer) {
  sgAlerts().insert(route(), ManualClock::now() - seconds(20));
  suppressFor(30);
  EXPECT_FALSE(mfib_->sgAlertCleanup());
  suppressFor(0);
  EXPECT_TRUE(mfib_->sgAlertCleanup());
}

TEST_F(MfibAlerts, cleanupExamines1024EntriesInOnePass) {
  for (unsigned n = 0; n < 1100; ++n) {
    sgAlerts().insert(route(n), ManualClock::now() - seconds(60));
  }
  EXPECT_TRUE(mfib_->sgAlertCleanup());
  EXPECT_EQ(sgAlerts().size(), 76U);
  EXPECT_TRUE(mfib_->sgAlertCleanup());
  EXPECT_EQ(sgAlerts().size(), 0U);
}

TEST_F(MfibAlerts, cleanupCountsEntriesThatItKeepsAsExamined) {
  for (unsigned n = 0; n < 1100; ++n) {
    sgAlerts().insert(route(n), ManualClock::now());
  }
  // Only those that the walk comes to last may go.
  unsigned position = 0;
  for (auto it = sgAlerts().begin(); it != sgAlerts().end(); ++it) {
    if (++position > 1024) {
      addRouteFor(it.key());
    }
  }
  EXPECT_FALSE(mfib_->sgAlertCleanup());
  EXPECT_EQ(sgAlerts().size(), 1100U);
}

// --- Review of the WrongVif times -------------------------------------------------------------

TEST_F(MfibAlerts, theReviewRunsOnEveryThirtiethRun) {
  for (const auto& [run, reviews] : {std::pair{0U, true},
                                     {1U, false},
                                     {15U, false},
                                     {29U, false},
                                     {30U, true},
                                     {31U, false},
                                     {59U, false},
                                     {60U, true},
                                     {0xffffffffU, false},
                                     {4294967280U, true}}) {
    alerted(route(), kIntf, seconds(60));
    EXPECT_EQ(review(run), reviews) << run;
    EXPECT_EQ(wrongVifTimes().contains(route()), !reviews) << run;
  }
}

TEST_F(MfibAlerts, theReviewKeepsAKeyWithOneRecentInterface) {
  alerted(route(1), kIntf, seconds(60));
  alerted(route(1), kOtherIntf, seconds(1));
  alerted(route(2), kIntf, seconds(15) + nanoseconds(1));
  alerted(route(3), kIntf, seconds(15));
  EXPECT_TRUE(review());
  ASSERT_TRUE(wrongVifTimes().contains(route(1)));
  EXPECT_FALSE(timesOf(route(1)).contains(kIntf.value)) << "only its old one goes";
  EXPECT_TRUE(timesOf(route(1)).contains(kOtherIntf.value));
  EXPECT_FALSE(wrongVifTimes().contains(route(2)));
  EXPECT_TRUE(wrongVifTimes().contains(route(3))) << "at the cut-off it is kept";
  EXPECT_FALSE(review()) << "nothing was left to erase";
}

TEST_F(MfibAlerts, theReviewErasesAKeyWithoutTimes) {
  alerted(route(), kIntf);
  timesOf(route()).erase(kIntf.value);
  EXPECT_TRUE(review());
  EXPECT_EQ(wrongVifTimes().size(), 0U);
  EXPECT_FALSE(review());
}

TEST_F(MfibAlerts, theReviewTellsAlsoOfAnErasedPartOfAKey) {
  alerted(route(), kIntf, seconds(60));
  alerted(route(), kOtherIntf);
  EXPECT_TRUE(review());
  EXPECT_EQ(wrongVifTimes().size(), 1U);
}

TEST_F(MfibAlerts, theReviewProcesses257KeysInOnePass) {
  for (unsigned n = 0; n < 300; ++n) {
    alerted(route(n), kIntf, seconds(60));
  }
  EXPECT_TRUE(review());
  EXPECT_EQ(wrongVifTimes().size(), 43U);
  EXPECT_TRUE(review());
  EXPECT_EQ(wrongVifTimes().size(), 0U);
}

TEST_F(MfibAlerts, theReviewCountsKeysThatItKeepsAsExamined) {
  std::vector<MfibKey> order;
  for (unsigned n = 0; n < 258; ++n) {
    alerted(route(n), kIntf);
  }
  for (auto it = wrongVifTimes().begin(); it != wrongVifTimes().end(); ++it) {
    order.push_back(it.key());
  }
  alerted(order[257], kIntf, seconds(60));
  EXPECT_FALSE(review()) << "the 258th is not looked at";
  alerted(order[256], kIntf, seconds(60));
  EXPECT_TRUE(review()) << "the 257th is";
  EXPECT_TRUE(wrongVifTimes().contains(order[257]));
  EXPECT_FALSE(wrongVifTimes().contains(order[256]));
}

TEST_F(MfibAlerts, withoutTablesThereIsNothingToCleanUp) {
  std::unique_ptr<Module> module(Mfib::create());
  auto& mfib = static_cast<Mfib&>(*module);
  EXPECT_FALSE(mfib.sgAlertCleanup());
  EXPECT_FALSE(mfib.wrongVifTimestampReview());
  module->DeInit();
}

}  // namespace
}  // namespace SfeModules
