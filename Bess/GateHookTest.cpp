#include "Bess/GateHook.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Bess/Testing/ModuleHarness.h"
#include "Bess/Testing/TestModules.h"

namespace {

using bess::PacketBatch;
using bess::testing::ModuleHarness;
using bess::testing::Relay;

class Silent : public GateHook {
 public:
  Silent() : GateHook("silent") {}
  std::string state() const override { return "says something, sees nothing"; }
};

class Seen : public GateHook {
 public:
  Seen(std::string name, int priority, std::vector<std::string>* log)
      : GateHook(std::move(name), priority), log_(log) {}
  void ProcessBatch(const PacketBatch* batch) override {
    log_->push_back(name() + std::to_string(batch->cnt()));
  }

 private:
  std::vector<std::string>* const log_;
};
class SeenByInheritance final : public Seen {
  using Seen::Seen;
};

struct Other {
  virtual ~Other() = default;
  virtual int more() { return 1; }
};
class SecondBase final : public Other, public GateHook {
 public:
  SecondBase() : GateHook("second") {}
  void ProcessBatch(const PacketBatch* /*batch*/) override {}
};
class SecondBaseSilent final : public Other, public GateHook {
 public:
  SecondBaseSilent() : GateHook("second") {}
};

TEST(GateHookTest, knowsWhetherItsClassHandlesBatches) {
  std::vector<std::string> log;
  EXPECT_FALSE(Silent().handlesBatches());
  EXPECT_TRUE(Seen("s", 0, &log).handlesBatches());
  EXPECT_TRUE(SeenByInheritance("s", 0, &log).handlesBatches());
  EXPECT_TRUE(SecondBase().handlesBatches());
  EXPECT_FALSE(SecondBaseSilent().handlesBatches());
  EXPECT_TRUE(log.empty());
}

TEST(GateHookTest, seesBatchesOnBothEndsInOrderOfPriority) {
  ModuleHarness harness;
  auto& relay = harness.own(std::make_unique<Relay>());
  harness.capture(relay, {0});
  std::vector<std::string> log;
  Gate* out = relay.ogate(0);
  Gate* in = relay.ogate(0)->next();
  out->addHook(std::make_unique<Seen>("late", 9, &log));
  out->addHook(std::make_unique<Silent>());
  out->addHook(std::make_unique<Seen>("early", -1, &log));
  in->addHook(std::make_unique<Seen>("in", 0, &log));
  harness.offer(relay, harness.packet("x"));
  EXPECT_EQ(log, (std::vector<std::string>{"early1", "late1", "in1"}));
  log.clear();
  EXPECT_NE(out->removeHook("late"), nullptr);
  EXPECT_EQ(out->removeHook("late"), nullptr);
  harness.offer(relay, harness.packet("x"));
  EXPECT_EQ(log, (std::vector<std::string>{"early1", "in1"}));
  EXPECT_NE(out->findHook("silent"), nullptr);
}

TEST(GateHookRegistryTest, makesHooksByName) {
  GateHookRegistry::registerHook("silent", [](const std::string& arg) {
    EXPECT_EQ(arg, "argument");
    return std::make_unique<Silent>();
  });
  auto hook = GateHookRegistry::create("silent", "argument");
  ASSERT_NE(hook, nullptr);
  EXPECT_EQ(hook->name(), "silent");
  EXPECT_EQ(GateHookRegistry::create("unheard", ""), nullptr);
  EXPECT_DEATH(GateHookRegistry::registerHook("silent", nullptr), "registered twice");
  EXPECT_TRUE(GateHookRegistry::deregisterHook("silent"));
  EXPECT_FALSE(GateHookRegistry::deregisterHook("silent"));
}

}  // namespace
