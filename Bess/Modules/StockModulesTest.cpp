#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "Bess/Modules/PortInc.h"
#include "Bess/Modules/PortOut.h"
#include "Bess/Modules/Sink.h"
#include "Bess/Modules/Source.h"
#include "Bess/PortRegistry.h"
#include "Bess/Testing/ModuleHarness.h"

namespace {

using bess::PacketPtr;
using bess::testing::contents;
using ::testing::HasSubstr;

bess::pb::ModuleCounters countersOf(const std::string& module) {
  CommandResponse response = ModuleGraph::runCommand(module, "showCounters", {});
  bess::pb::ModuleCounters counters;
  EXPECT_TRUE(response.data().UnpackTo(&counters));
  return counters;
}

class StockModules : public ::testing::Test {
 protected:
  ~StockModules() override {
    ModuleGraph::destroyAllModules();
    bess::PortRegistry::global().closeAll();
  }

  bess::Port* openPort(const std::string& devargs, uint16_t rxQueues = 1, uint16_t txQueues = 1) {
    bess::PortConfig config;
    config.name = "p0";
    config.devargs = devargs;
    config.rxQueues = rxQueues;
    config.txQueues = txQueues;
    return bess::PortRegistry::global().create(config);
  }

  PortInc& portInc() {
    bess::pb::PortIncArg arg;
    arg.set_port("p0");
    return harness_.create<PortInc>("PortInc", arg);
  }

  PortOut& portOut() {
    bess::pb::PortOutArg arg;
    arg.set_port("p0");
    return harness_.create<PortOut>("PortOut", arg);
  }

  Source& source(const std::string& packet, uint64_t rate = 0, uint64_t count = 0) {
    bess::pb::SourceArg arg;
    arg.set_packet(packet);
    arg.set_rate(rate);
    arg.set_count(count);
    return harness_.create<Source>("Source", arg);
  }

  bess::testing::ModuleHarness harness_;
};

TEST_F(StockModules, carryAPacketOutAndInAgain) {
  openPort("net_ring0");
  PortOut& out = portOut();
  PortInc& in = portInc();
  harness_.capture(in, {0});
  harness_.offer(out, harness_.packet(std::string(60, 'a')));
  auto [result, received] = harness_.runTask(in, 0);
  EXPECT_FALSE(result.block);
  EXPECT_EQ(result.packets, 1U);
  EXPECT_EQ(result.bits, (60U + 24U) * 8);
  ASSERT_EQ(received.count(0), 1U);
  EXPECT_EQ(contents(received[0][0].get()), std::string(60, 'a'));
  EXPECT_EQ(countersOf(out.name()).packets(), 1U);
  EXPECT_EQ(countersOf(in.name()).bytes(), 60U);
}

TEST_F(StockModules, PortIncBlocksWithoutPackets) {
  openPort("net_ring0");
  PortInc& in = portInc();
  harness_.capture(in, {0});
  auto [result, received] = harness_.runTask(in, 0);
  EXPECT_TRUE(result.block);
  EXPECT_TRUE(received.empty());
}

TEST_F(StockModules, PortIncHasATaskForEachQueue) {
  openPort("net_null0,size=64", 3);
  PortInc& in = portInc();
  harness_.capture(in, {0});
  ASSERT_EQ(in.tasks().size(), 3U);
  for (task_id_t task = 0; task < 3; ++task) {
    EXPECT_EQ(harness_.runTask(in, task).second.count(0), bess::PacketBatch::kMaxBurst);
  }
}

TEST_F(StockModules, refuseAPortThatIsNotThere) {
  bess::pb::PortIncArg arg;
  arg.set_port("nowhere");
  google::protobuf::Any any;
  any.PackFrom(arg);
  auto response = ModuleGraph::createModule("PortInc", "", any);
  EXPECT_EQ(response.error().code(), ENOENT);
  EXPECT_THAT(response.error().errmsg(), HasSubstr("no port \"nowhere\""));
}

TEST_F(StockModules, holdTheirPort) {
  openPort("net_ring0");
  std::string out = portOut().name();
  std::string in = portInc().name();
  EXPECT_THROW(bess::PortRegistry::global().destroy("p0"), bess::PortError);
  bess::pb::PortIncArg arg;
  arg.set_port("p0");
  google::protobuf::Any any;
  any.PackFrom(arg);
  EXPECT_EQ(ModuleGraph::createModule("PortInc", "second", any).error().code(), EBUSY);
  ModuleGraph::destroyModule(in);
  EXPECT_THROW(bess::PortRegistry::global().destroy("p0"), bess::PortError);
  ModuleGraph::destroyModule(out);
  bess::PortRegistry::global().destroy("p0");
}

TEST_F(StockModules, PortOutCountsWhatTheDeviceDoesNotTake) {
  openPort("net_ring0");
  PortOut& out = portOut();
  uint64_t offered = 0;
  while (countersOf(out.name()).drops() == 0 && offered < 1U << 20) {
    harness_.offer(out, harness_.packet("x"));
    ++offered;
  }
  EXPECT_EQ(countersOf(out.name()).drops(), 1U);
  EXPECT_EQ(countersOf(out.name()).packets(), offered - 1);
}

TEST_F(StockModules, PortOutRefusesMoreWorkersThanQueues) {
  openPort("net_null0", 1, 2);
  PortOut& first = portOut();
  PortOut& second = portOut();
  first.AddActiveWorker(0, nullptr);
  first.AddActiveWorker(1, nullptr);
  second.AddActiveWorker(1, nullptr);
  EXPECT_EQ(second.CheckModuleConstraints(), CheckConstraintResult::kOk);
  second.AddActiveWorker(2, nullptr);
  EXPECT_EQ(first.CheckModuleConstraints(), CheckConstraintResult::kFatal);
  EXPECT_EQ(second.CheckModuleConstraints(), CheckConstraintResult::kFatal);
}

TEST_F(StockModules, SourceRunsAtFullSpeed) {
  Source& module = source("abc");
  harness_.capture(module, {0});
  auto [result, sent] = harness_.runTask(module, 0);
  ASSERT_EQ(sent.count(0), bess::PacketBatch::kMaxBurst);
  EXPECT_EQ(contents(sent[0][31].get()), "abc");
  EXPECT_EQ(result.packets, 32U);
}

TEST_F(StockModules, SourceKeepsItsRate) {
  Source& module = source("abc", 1000);
  harness_.capture(module, {0});
  constexpr uint64_t kMillisecond = 1'000'000;
  uint64_t sent = 0;
  // One second in steps of a tenth of a millisecond, the first packet at once.
  for (uint64_t step = 1; step <= 10'000; ++step) {
    harness_.context().currentNs = step * kMillisecond / 10;
    sent += harness_.runTask(module, 0).second.count(0);
  }
  EXPECT_GE(sent, 999U);
  EXPECT_LE(sent, 1001U);
}

TEST_F(StockModules, SourceDoesNotCatchUpALongPause) {
  Source& module = source("abc", 100'000);
  harness_.capture(module, {0});
  harness_.context().currentNs = 1;
  harness_.runTask(module, 0);
  harness_.context().currentNs = 10'000'000'000;
  uint64_t sent = 0;
  for (int run = 0; run < 100; ++run) {
    sent += harness_.runTask(module, 0).second.count(0);
  }
  EXPECT_EQ(sent, 101U);  // of one millisecond, and the one that is due
}

TEST_F(StockModules, SourceEndsAfterItsCount) {
  Source& module = source("abc", 0, 40);
  harness_.capture(module, {0});
  EXPECT_EQ(harness_.runTask(module, 0).second.count(0), 32U);
  EXPECT_EQ(harness_.runTask(module, 0).second.count(0), 8U);
  EXPECT_TRUE(harness_.runTask(module, 0).first.block);
  bess::pb::SourceArg again;
  again.set_packet("again");
  again.set_count(1);
  ASSERT_FALSE(module.setSource(again).has_error());
  auto out = harness_.runTask(module, 0).second;
  ASSERT_EQ(out.count(0), 1U);
  EXPECT_EQ(contents(out[0][0].get()), "again");
}

TEST_F(StockModules, SourceRefusesAPacketThatDoesNotFit) {
  Source& module = source("abc");
  bess::pb::SourceArg arg;
  EXPECT_EQ(module.setSource(arg).error().code(), EINVAL);
  arg.set_packet(std::string(bess::PacketPool::defaultPool()->dataRoom() + 1, 'x'));
  EXPECT_THAT(module.setSource(arg).error().errmsg(), HasSubstr("fit into"));
  arg.set_packet(std::string(bess::PacketPool::defaultPool()->dataRoom(), 'x'));
  EXPECT_FALSE(module.setSource(arg).has_error());
}

TEST_F(StockModules, SourceWaitsForPackets) {
  Source& module = source("abc");
  harness_.capture(module, {0});
  {
    std::vector<PacketPtr> all;
    while (bess::Packet* pkt = bess::PacketPool::defaultPool()->alloc()) {
      all.emplace_back(pkt);
    }
    EXPECT_TRUE(harness_.runTask(module, 0).first.block);
    EXPECT_EQ(countersOf(module.name()).drops(), 32U);
  }
  EXPECT_FALSE(harness_.runTask(module, 0).first.block);
}

TEST_F(StockModules, SinkCountsAndFrees) {
  Sink& module = harness_.create<Sink>("Sink", bess::pb::SinkArg());
  unsigned before = bess::PacketPool::defaultPool()->inUse();
  std::vector<PacketPtr> pkts;
  for (int i = 0; i < 40; ++i) {
    pkts.push_back(harness_.packet("12345"));
  }
  harness_.offer(module, std::move(pkts));
  EXPECT_EQ(countersOf(module.name()).packets(), 40U);
  EXPECT_EQ(countersOf(module.name()).bytes(), 200U);
  EXPECT_EQ(bess::PacketPool::defaultPool()->inUse(), before);
}

}  // namespace
