#include "Bess/ModuleGraph.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Base/Orp/SystemException.h"
#include "Bess/ModuleBuilder.h"
#include "Bess/Testing/TestModules.h"
#include "Bess/Worker.h"

namespace {

using bess::testing::Relay;
using bess::testing::Ticker;

std::vector<std::string>& history() {
  static std::vector<std::string> events;
  return events;
}

// Its init argument says what goes wrong.
class Troubled : public Module {
 public:
  ~Troubled() override { history().push_back("delete"); }
  CommandResponse init(const bess::pb::NameRequest& arg) {
    RegisterTask(nullptr);
    if (arg.name() == "fail") {
      return CommandFailure(ENODEV, "no device");
    }
    return misbehave(arg);
  }
  void DeInit() override {
    history().push_back("DeInit");
    if (throwsAtEnd) {
      throw std::runtime_error("cannot end");
    }
  }
  int OnEvent(bess::Event event) override {
    EXPECT_EQ(event, bess::Event::kPreResume);
    events++;
    return 0;
  }
  CommandResponse misbehave(const bess::pb::NameRequest& arg) {
    pausedInCommand = workersPaused();
    if (arg.name() == "errno") {
      throw Orp::SystemException(EACCES, "socket");
    }
    if (arg.name() == "range") {
      throw std::out_of_range("too long");
    }
    if (arg.name() == "last") {
      throwsAtEnd = true;
    }
    return CommandSuccess(arg);
  }

  bool throwsAtEnd = false;
  bool pausedInCommand = false;
  int events = 0;
};

class Lonely : public Relay {
 public:
  Lonely() { maxAllowedWorkers_ = 1; }
};

google::protobuf::Any named(const std::string& name) {
  bess::pb::NameRequest request;
  request.set_name(name);
  google::protobuf::Any any;
  any.PackFrom(request);
  return any;
}

class ModuleGraphTest : public ::testing::Test {
 protected:
  void SetUp() override { history().clear(); }
  void TearDown() override {
    ModuleGraph::destroyAllModules();
    destroyAllWorkers();
  }

  static Module* make(const std::string& className, const std::string& name) {
    auto answer = ModuleGraph::createModule(className, name, {});
    EXPECT_FALSE(answer.has_error()) << answer.error().errmsg();
    return ModuleGraph::findModule(answer.name());
  }
  static int codeOf(const CommandResponse& response) { return response.error().code(); }

  ModuleRegistration<Troubled> troubled_{
      {.name = "Troubled",
       .help = "",
       .commands = {makeCommand<&Troubled::misbehave>("unsafe", "NameRequest"),
                    makeCommand<&Troubled::misbehave>("safe",
                                                      "NameRequest",
                                                      GenericCommand::kThreadSafe)},
       .init = makeInit<&Troubled::init>()}};
  ModuleRegistration<Relay> relay_{
      {.name = "Relay", .help = "", .igates = 2, .ogates = 3, .nameTemplate = "relay"}};
  ModuleRegistration<Lonely> lonely_{{.name = "Lonely", .help = "", .igates = 1, .ogates = 1}};
};

TEST_F(ModuleGraphTest, namesModulesFromTheTemplate) {
  EXPECT_EQ(make("Relay", "")->name(), "relay0");
  EXPECT_EQ(make("Relay", "relay2")->name(), "relay2");
  EXPECT_EQ(make("Relay", "")->name(), "relay1");
  EXPECT_EQ(make("Relay", "")->name(), "relay3");
  EXPECT_EQ(ModuleGraph::instancesOf(ModuleBuilder::find("Relay")), 4U);
}

TEST_F(ModuleGraphTest, refusesNamesAndClassesThatCannotBe) {
  make("Relay", "a");
  EXPECT_EQ(ModuleGraph::createModule("Relay", "a", {}).error().code(), EEXIST);
  EXPECT_EQ(ModuleGraph::createModule("Relay", "a b", {}).error().code(), EINVAL);
  EXPECT_EQ(ModuleGraph::createModule("Relay", std::string(65, 'x'), {}).error().code(), EINVAL);
  auto answer = ModuleGraph::createModule("Nothing", "b", {});
  EXPECT_EQ(answer.error().code(), ENOENT);
  EXPECT_EQ(answer.error().errmsg(), "no module class 'Nothing'");
}

TEST_F(ModuleGraphTest, passesOnWhatInitAnswersAndKeepsItsArgument) {
  auto answer = ModuleGraph::createModule("Troubled", "t", named("fine"));
  bess::pb::NameRequest data;
  ASSERT_TRUE(answer.data().UnpackTo(&data));
  EXPECT_EQ(data.name(), "fine");
  const Module* module = ModuleGraph::findModule("t");
  EXPECT_EQ(ModuleGraph::initArg(module).value(), named("fine").value());
  EXPECT_EQ(module->moduleBuilder()->className(), "Troubled");
}

TEST_F(ModuleGraphTest, endsInstanceWhoseInitFails) {
  auto answer = ModuleGraph::createModule("Troubled", "t", named("fail"));
  EXPECT_EQ(answer.error().code(), ENODEV);
  EXPECT_EQ(answer.error().errmsg(), "no device");
  EXPECT_EQ(history(), (std::vector<std::string>{"DeInit", "delete"}));
  EXPECT_EQ(ModuleGraph::findModule("t"), nullptr);
}

TEST_F(ModuleGraphTest, endsInstanceWhoseInitThrows) {
  EXPECT_EQ(ModuleGraph::createModule("Troubled", "t", named("errno")).error().code(), EACCES);
  auto answer = ModuleGraph::createModule("Troubled", "t", named("range"));
  EXPECT_EQ(answer.error().code(), EINVAL);
  EXPECT_EQ(answer.error().errmsg(), "too long");
  EXPECT_EQ(history(), (std::vector<std::string>{"DeInit", "delete", "DeInit", "delete"}));
}

TEST_F(ModuleGraphTest, reportsDeInitThatThrowsAndDestroysAllTheSame) {
  ModuleGraph::createModule("Troubled", "t", named("last"));
  EXPECT_EQ(ModuleGraph::destroyModule("t").error().errmsg(), "cannot end");
  EXPECT_EQ(history(), (std::vector<std::string>{"DeInit", "delete"}));
  EXPECT_EQ(codeOf(ModuleGraph::destroyModule("t")), ENOENT);
}

TEST_F(ModuleGraphTest, pausesWorkersAroundCommandsThatAreNotThreadSafe) {
  auto* module = static_cast<Troubled*>(make("Troubled", "t"));
  EXPECT_FALSE(ModuleGraph::runCommand("t", "unsafe", {}).has_error());
  EXPECT_TRUE(module->pausedInCommand);
  EXPECT_FALSE(workersPaused());
  EXPECT_FALSE(ModuleGraph::runCommand("t", "safe", {}).has_error());
  EXPECT_FALSE(module->pausedInCommand);
}

TEST_F(ModuleGraphTest, resumesWorkersAfterCommandThatThrows) {
  make("Troubled", "t");
  const CommandResponse response = ModuleGraph::runCommand("t", "unsafe", named("errno"));
  EXPECT_EQ(codeOf(response), EACCES);
  EXPECT_FALSE(workersPaused());
}

TEST_F(ModuleGraphTest, saysWhichCommandIsMissing) {
  make("Relay", "r");
  EXPECT_EQ(codeOf(ModuleGraph::runCommand("nobody", "x", {})), ENOENT);
  EXPECT_EQ(ModuleGraph::runCommand("r", "x", {}).error().errmsg(),
            "module 'r' (class Relay) has no command 'x'");
}

TEST_F(ModuleGraphTest, connectsAndDisconnects) {
  Module* a = make("Relay", "a");
  Module* b = make("Relay", "b");
  EXPECT_FALSE(ModuleGraph::connect("a", 2, "b", 1).has_error());
  ASSERT_EQ(ModuleGraph::connections().size(), 1U);
  EXPECT_EQ(ModuleGraph::connections()[0].from, a);
  EXPECT_EQ(ModuleGraph::connections()[0].ogate, 2);
  EXPECT_EQ(ModuleGraph::connections()[0].to, b);
  EXPECT_EQ(ModuleGraph::connections()[0].igate, 1);
  EXPECT_EQ(a->ogates().size(), 3U);
  EXPECT_FALSE(ModuleGraph::disconnect("a", 2).has_error());
  EXPECT_TRUE(ModuleGraph::connections().empty());
  EXPECT_TRUE(a->ogates().empty());
  EXPECT_EQ(b->igate(1), nullptr);
}

TEST_F(ModuleGraphTest, refusesConnectionsThatCannotBe) {
  make("Relay", "a");
  make("Relay", "b");
  EXPECT_EQ(codeOf(ModuleGraph::connect("a", 0, "x", 0)), ENOENT);
  EXPECT_EQ(codeOf(ModuleGraph::connect("x", 0, "a", 0)), ENOENT);
  EXPECT_EQ(codeOf(ModuleGraph::connect("a", 3, "b", 0)), EINVAL);
  EXPECT_EQ(codeOf(ModuleGraph::connect("a", 65536, "b", 0)), EINVAL);
  EXPECT_EQ(codeOf(ModuleGraph::connect("a", 0, "b", 2)), EINVAL);
  ASSERT_FALSE(ModuleGraph::connect("a", 0, "b", 0).has_error());
  const CommandResponse busy = ModuleGraph::connect("a", 0, "b", 1);
  EXPECT_EQ(codeOf(busy), EBUSY);
  EXPECT_EQ(busy.error().errmsg(), "output gate 0 of module 'a' is connected to 'b'");
  EXPECT_EQ(codeOf(ModuleGraph::disconnect("a", 1)), ENOENT);
  EXPECT_EQ(codeOf(ModuleGraph::disconnect("a", 70000)), ENOENT);
  EXPECT_EQ(codeOf(ModuleGraph::disconnect("x", 0)), ENOENT);
}

TEST_F(ModuleGraphTest, refusesCircles) {
  for (const char* name : {"a", "b", "c"}) {
    make("Relay", name);
  }
  EXPECT_EQ(codeOf(ModuleGraph::connect("a", 0, "a", 0)), ELOOP);
  ASSERT_FALSE(ModuleGraph::connect("a", 0, "b", 0).has_error());
  ASSERT_FALSE(ModuleGraph::connect("b", 0, "c", 0).has_error());
  EXPECT_EQ(codeOf(ModuleGraph::connect("c", 0, "a", 0)), ELOOP);
  EXPECT_FALSE(ModuleGraph::connect("a", 1, "c", 0).has_error());
}

TEST_F(ModuleGraphTest, disconnectsModuleThatIsDestroyed) {
  Module* a = make("Relay", "a");
  make("Relay", "b");
  Module* c = make("Relay", "c");
  ASSERT_FALSE(ModuleGraph::connect("a", 0, "b", 0).has_error());
  ASSERT_FALSE(ModuleGraph::connect("a", 1, "b", 0).has_error());
  ASSERT_FALSE(ModuleGraph::connect("b", 0, "c", 0).has_error());
  EXPECT_FALSE(ModuleGraph::destroyModule("b").has_error());
  EXPECT_TRUE(a->ogates().empty());
  EXPECT_EQ(c->igate(0), nullptr);
}

TEST_F(ModuleGraphTest, putsHooksOnConnectedGates) {
  struct Hook : GateHook {
    explicit Hook(const std::string& arg) : GateHook("probe") {
      if (arg == "bad") {
        throw Orp::SystemException(EACCES, "file");
      }
    }
  };
  GateHookRegistry::registerHook(
      "probe", [](const std::string& arg) { return std::make_unique<Hook>(arg); });
  make("Relay", "a");
  make("Relay", "b");
  const ModuleGraph::GateRef out{"a", true, 0};
  const ModuleGraph::GateRef in{"b", false, 1};
  EXPECT_EQ(codeOf(ModuleGraph::addHook("probe", out, "")), ENOENT);
  ASSERT_FALSE(ModuleGraph::connect("a", 0, "b", 1).has_error());
  EXPECT_EQ(codeOf(ModuleGraph::addHook("nothing", out, "")), ENOENT);
  EXPECT_EQ(codeOf(ModuleGraph::addHook("probe", out, "bad")), EACCES);
  EXPECT_FALSE(ModuleGraph::addHook("probe", out, "x").has_error());
  EXPECT_EQ(codeOf(ModuleGraph::addHook("probe", out, "x")), EEXIST);
  EXPECT_FALSE(ModuleGraph::addHook("probe", in, "").has_error());
  ASSERT_EQ(ModuleGraph::hooks().size(), 2U);
  EXPECT_EQ(ModuleGraph::hooks()[0].where.module, "a");
  EXPECT_EQ(ModuleGraph::hooks()[0].hook->arg(), "x");
  EXPECT_FALSE(ModuleGraph::removeHook("probe", in).has_error());
  EXPECT_EQ(codeOf(ModuleGraph::removeHook("probe", in)), ENOENT);
  ASSERT_FALSE(ModuleGraph::disconnect("a", 0).has_error());
  EXPECT_TRUE(ModuleGraph::hooks().empty());
  GateHookRegistry::deregisterHook("probe");
}

TEST_F(ModuleGraphTest, limitsTasksPerModule) {
  Module* module = make("Relay", "a");
  EXPECT_FALSE(module->isTask());
  for (unsigned i = 0; i < kMaxTasksPerModule; i++) {
    EXPECT_EQ(module->RegisterTask(nullptr), i);
  }
  EXPECT_EQ(module->RegisterTask(nullptr), 0xFFFF);
  EXPECT_TRUE(module->isTask());
}

TEST_F(ModuleGraphTest, attachesTasksToRunningWorkersOnly) {
  Module* module = make("Troubled", "t");
  EXPECT_EQ(codeOf(ModuleGraph::attachTask("t", 0, 5, 0)), ENOENT);
  launchWorker(5);
  EXPECT_EQ(codeOf(ModuleGraph::attachTask("t", 1, 5, 0)), ENOENT);
  EXPECT_EQ(codeOf(ModuleGraph::detachTask("t", 0)), ENOENT);
  EXPECT_FALSE(ModuleGraph::attachTask("t", 0, 5, 1000).has_error());
  EXPECT_EQ(module->tasks()[0]->worker(), 5);
  EXPECT_EQ(module->tasks()[0]->ratePerSecond(), 1000U);
  EXPECT_FALSE(ModuleGraph::attachTask("t", 0, 5, 0).has_error());
  EXPECT_EQ(module->tasks()[0]->ratePerSecond(), 0U);
  EXPECT_FALSE(ModuleGraph::detachTask("t", 0).has_error());
  EXPECT_EQ(module->tasks()[0]->worker(), -1);
}

TEST_F(ModuleGraphTest, refusesMoreWorkersThanAModuleAllows) {
  launchWorker(0);
  launchWorker(1);
  for (const char* name : {"a", "b"}) {
    make("Relay", name)->RegisterTask(nullptr);
  }
  Module* lonely = make("Lonely", "lonely");
  ASSERT_FALSE(ModuleGraph::attachTask("a", 0, 0, 0).has_error());
  ASSERT_FALSE(ModuleGraph::attachTask("b", 0, 1, 0).has_error());
  ASSERT_FALSE(ModuleGraph::connect("a", 0, "lonely", 0).has_error());
  EXPECT_EQ(lonely->activeWorkers(), 1);

  const CommandResponse refusal = ModuleGraph::connect("b", 0, "lonely", 0);
  EXPECT_EQ(refusal.error().errmsg(),
            "module 'lonely' does not accept 2 workers at once (it allows 1)");
  EXPECT_EQ(ModuleGraph::connections().size(), 1U);
  EXPECT_EQ(lonely->activeWorkers(), 1);

  ASSERT_FALSE(ModuleGraph::attachTask("b", 0, 0, 0).has_error());
  ASSERT_FALSE(ModuleGraph::connect("b", 0, "lonely", 0).has_error());
  EXPECT_EQ(codeOf(ModuleGraph::attachTask("b", 0, 1, 0)), EINVAL);
  EXPECT_EQ(ModuleGraph::findModule("b")->tasks()[0]->worker(), 0);
}

TEST_F(ModuleGraphTest, tellsModulesBeforeWorkersGoOn) {
  auto* module = static_cast<Troubled*>(make("Troubled", "t"));
  pauseWorkers();
  pauseWorkers();
  resumeWorkers();
  EXPECT_EQ(module->events, 0);
  resumeWorkers();
  EXPECT_EQ(module->events, 1);
}

}  // namespace
