// An IPv4 instance with both tasks, and packets that wait for their routes.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <utility>

#include "SfeModules/Testing/MfibFixture.h"
#include "SfeModules/Testing/PacketBuilder.h"

namespace SfeModules {

// Counts the readings of the clock, which stands still, while it lives.
class ClockReadings {
 public:
  ClockReadings() : previous_(Clock::sourceIs(&ClockReadings::read)) { count_ = 0; }
  ~ClockReadings() { Clock::sourceIs(previous_); }
  ClockReadings(const ClockReadings&) = delete;
  ClockReadings& operator=(const ClockReadings&) = delete;

  static unsigned count() { return count_; }

 private:
  static TimePoint read() {
    ++count_;
    return ManualClock::now();
  }
  inline static std::atomic<unsigned> count_{0};
  const Clock::Source previous_;
};

class TasksFixture : public MfibFixture {
 protected:
  static constexpr const char* kSource = "10.0.0.2";

  // The n-th of as many groups as a test needs.
  static std::string group(unsigned n) {
    return "239.2." + std::to_string(n / 256) + "." + std::to_string(n % 256);
  }

  TasksFixture() {
    createInstance();
    enable({"Ethernet0", "Ethernet9"});
    resolution_ = answerOf(mfib_->regMfibTasks({})).task_id();
    cleanup_ = answerOf(mfib_->regCleanupTask({})).task_id();
  }

  static sfe::pb::MfibTaskIdArg answerOf(const CommandResponse& response) {
    sfe::pb::MfibTaskIdArg answer;
    EXPECT_FALSE(response.has_error()) << response.error().errmsg();
    EXPECT_TRUE(response.data().UnpackTo(&answer));
    return answer;
  }

  static Bytes frame(const std::string& group, size_t payload = 32) {
    return frames::etherFrame(
        frames::groupMac(group), "02:00:00:00:00:01", frames::kEtherTypeIpv4,
        frames::ipPacket(frames::Ip{.source = kSource,
                                    .group = group,
                                    .payload = frames::udp(frames::kSomePort, payload)}));
  }

  void hold(const std::string& group, unsigned count = 1, const std::string& intf = "Ethernet0") {
    for (unsigned i = 0; i < count; ++i) {
      EXPECT_TRUE(receive(frame(group), intf).empty());
    }
  }

  void route(const std::string& group, const std::string& iif = "Ethernet0", uint32_t gate = 1) {
    addRoute({.source = kSource, .group = group, .iif = iif, .oifs = {{"Ethernet1", gate}}});
  }

  std::pair<TaskResult, bess::testing::Output> resolve() {
    return harness_.runTask(*mfib_, resolution_);
  }
  TaskResult cleanUp() { return harness_.runTask(*mfib_, cleanup_).first; }

  NoCachePacketManager& cache() { return *MfibTestPeer::cache(*mfib_); }
  uint64_t fate(Fate fate) {
    return bessCounter(harness_.wid(),
                       counterId(std::string("mfib4.default.") + counterName(fate)));
  }

  static void expectIdle(const TaskResult& result) {
    EXPECT_TRUE(result.block);
    EXPECT_EQ(result.packets, 0U);
    EXPECT_EQ(result.bits, 0U);
  }
  static void expectBusyWithout(const TaskResult& result) {
    EXPECT_FALSE(result.block);
    EXPECT_EQ(result.packets, 0U);
    EXPECT_EQ(result.bits, 0U);
  }

  task_id_t resolution_ = kInvalidTaskId;
  task_id_t cleanup_ = kInvalidTaskId;
};

}  // namespace SfeModules
