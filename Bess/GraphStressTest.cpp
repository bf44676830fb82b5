// Workers pass packets while control changes everything around them: no packet is lost, counted
// twice or leaked.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>

#include "Bess/ModuleBuilder.h"
#include "Bess/ModuleGraph.h"
#include "Bess/PacketPool.h"
#include "Bess/Testing/ModuleHarness.h"
#include "Bess/Testing/TestModules.h"
#include "Bess/Worker.h"

namespace {

using bess::PacketBatch;
using bess::PacketPool;
using bess::testing::Relay;

std::atomic<uint64_t> made{0};
std::atomic<uint64_t> arrived{0};
std::atomic<uint64_t> hooked{0};

class Maker : public Relay {
 public:
  CommandResponse init(const bess::pb::EmptyRequest&) {
    RegisterTask(nullptr);
    RegisterTask(nullptr);
    return CommandSuccess();
  }
  TaskResult RunTask(Context* ctx, PacketBatch* batch, void* /*arg*/) override {
    PacketPool* pool = current_worker.packetPool();
    uint32_t n = 0;
    for (; n < 8; n++) {
      bess::Packet* pkt = pool->alloc();
      if (pkt == nullptr) {
        break;
      }
      EmitPacket(ctx, pkt, static_cast<gate_idx_t>(n % 3));
    }
    made += n;
    made.notify_all();
    static_cast<void>(batch);
    return {.block = n == 0, .packets = n, .bits = 0};
  }
};

class End : public Relay {
 public:
  void ProcessBatch(Context* /*ctx*/, PacketBatch* batch) override {
    arrived += static_cast<uint64_t>(batch->cnt());
    bess::Packet::Free(batch);
  }
};

class CountHook : public GateHook {
 public:
  CountHook() : GateHook("stress") {}
  void ProcessBatch(const PacketBatch* batch) override {
    hooked += static_cast<uint64_t>(batch->cnt());
  }
};

void expectOk(const CommandResponse& response) {
  ASSERT_FALSE(response.has_error()) << response.error().errmsg();
}

void awaitPackets(uint64_t more) {
  const uint64_t goal = made + more;
  for (uint64_t seen = made; seen < goal; seen = made) {
    made.wait(seen);
  }
}

void changeEverything(int round) {
  const std::string name = "mid" + std::to_string(round);
  ASSERT_FALSE(ModuleGraph::createModule("StressRelay", name, {}).has_error());
  expectOk(ModuleGraph::connect(name, 0, "end", 0));
  expectOk(ModuleGraph::connect("maker", 0, name, 0));
  expectOk(ModuleGraph::addHook("stress", {"maker", true, 0}, ""));
  expectOk(ModuleGraph::addHook("stress", {"end", false, 0}, ""));
  awaitPackets(50);
  expectOk(ModuleGraph::attachTask("maker", 0, round % 2, round % 3 == 0 ? 5000 : 0));
  expectOk(ModuleGraph::removeHook("stress", {"end", false, 0}));
  awaitPackets(50);
  if (round % 2 == 0) {
    expectOk(ModuleGraph::disconnect("maker", 0));
  }
  expectOk(ModuleGraph::destroyModule(name));
}

TEST(GraphStressTest, losesNoPacketWhileTheGraphChanges) {
  if (PacketPool::defaultPool() == nullptr) {
    PacketPool::createDefaultPools(bess::testing::ModuleHarness::kPoolCount);
  }
  ModuleRegistration<Maker> maker(
      {.name = "Maker", .help = "", .ogates = 3, .init = makeInit<&Maker::init>()});
  ModuleRegistration<End> end({.name = "End", .help = "", .igates = 2});
  ModuleRegistration<Relay> relay({.name = "StressRelay", .help = "", .igates = 1, .ogates = 1});
  GateHookRegistry::registerHook("stress",
                                 [](const auto&) { return std::make_unique<CountHook>(); });

  launchWorker(0);
  launchWorker(1);
  ASSERT_FALSE(ModuleGraph::createModule("Maker", "maker", {}).has_error());
  ASSERT_FALSE(ModuleGraph::createModule("End", "end", {}).has_error());
  expectOk(ModuleGraph::connect("maker", 1, "end", 1));
  expectOk(ModuleGraph::attachTask("maker", 0, 0, 0));
  expectOk(ModuleGraph::attachTask("maker", 1, 1, 0));
  for (int round = 0; round < 60 && !::testing::Test::HasFatalFailure(); round++) {
    changeEverything(round);
  }

  pauseWorkers();
  uint64_t silentDrops = 0;
  for (const auto& status : workerStatus()) {
    silentDrops += status.stats.silentDrops;
  }
  const Module* source = ModuleGraph::findModule("maker");
  EXPECT_EQ(silentDrops, source->deadEnds());
  EXPECT_EQ(made, arrived + silentDrops);
  EXPECT_GT(arrived, 0U);
  EXPECT_GT(hooked, 0U);
  EXPECT_GT(silentDrops, 0U);
  resumeWorkers();
  ModuleGraph::destroyAllModules();
  destroyAllWorkers();
  EXPECT_EQ(PacketPool::defaultPool()->inUse(), 0U);
  GateHookRegistry::deregisterHook("stress");
}

}  // namespace
