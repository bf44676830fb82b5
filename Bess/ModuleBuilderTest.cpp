#include "Bess/ModuleBuilder.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <future>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>

#include "Base/Orp/SystemException.h"
#include "Bess/Module.h"

namespace {

class Echo : public Module {
 public:
  CommandResponse init(const bess::pb::NameRequest& arg) {
    name = arg.name();
    return CommandSuccess();
  }
  CommandResponse echo(const bess::pb::NameRequest& arg) { return CommandSuccess(arg); }

  std::string name;
};

ModuleClass echoClass() {
  return {
      .name = "Echo",
      .help = "says it again",
      .igates = 1,
      .ogates = kMaxGates,
      .commands = {makeCommand<&Echo::echo>("echo", "NameRequest", GenericCommand::kThreadSafe)},
      .init = makeInit<&Echo::init>()};
}

google::protobuf::Any named(const std::string& name) {
  bess::pb::NameRequest request;
  request.set_name(name);
  google::protobuf::Any any;
  any.PackFrom(request);
  return any;
}

TEST(ModuleBuilderTest, knowsClassWhileItsRegistrationLives) {
  EXPECT_EQ(ModuleBuilder::find("Echo"), nullptr);
  {
    ModuleRegistration<Echo> registration(echoClass());
    const ModuleBuilder* builder = ModuleBuilder::find("Echo");
    ASSERT_NE(builder, nullptr);
    EXPECT_EQ(builder->nameTemplate(), "Echo");
    EXPECT_EQ(builder->help(), "says it again");
    EXPECT_EQ(builder->igates(), 1);
    EXPECT_EQ(builder->ogates(), 8192);
    EXPECT_EQ(builder->plugin(), "");
    EXPECT_EQ(builder->init().argFullName(), "bess.pb.NameRequest");
    ASSERT_NE(builder->command("echo"), nullptr);
    EXPECT_EQ(builder->command("echo")->argType, "NameRequest");
    EXPECT_EQ(builder->command("echo")->argFullName, "bess.pb.NameRequest");
    EXPECT_EQ(builder->command("echo")->threadSafe, GenericCommand::kThreadSafe);
    EXPECT_EQ(builder->command("shout"), nullptr);
  }
  EXPECT_EQ(ModuleBuilder::find("Echo"), nullptr);
  EXPECT_FALSE(ModuleBuilder::DeregisterModuleClass("Echo"));
}

TEST(ModuleBuilderTest, callsTypedHandlers) {
  ModuleRegistration<Echo> registration(echoClass());
  const ModuleBuilder* builder = ModuleBuilder::find("Echo");
  std::unique_ptr<Module> module(builder->create());
  builder->init()(module.get(), named("x"));
  EXPECT_EQ(static_cast<Echo*>(module.get())->name, "x");
  bess::pb::NameRequest answer;
  builder->command("echo")->run(module.get(), named("hello")).data().UnpackTo(&answer);
  EXPECT_EQ(answer.name(), "hello");
}

TEST(ModuleBuilderTest, givesHandlerAnEmptyMessageForAnArgumentOfAnotherType) {
  ModuleRegistration<Echo> registration(echoClass());
  const ModuleBuilder* builder = ModuleBuilder::find("Echo");
  std::unique_ptr<Module> module(builder->create());
  static_cast<Echo*>(module.get())->name = "before";
  google::protobuf::Any other;
  bess::pb::PluginRequest request;
  request.set_path("a field of the same number");
  other.PackFrom(request);
  EXPECT_FALSE(builder->init()(module.get(), other).has_error());
  EXPECT_EQ(static_cast<Echo*>(module.get())->name, "");
}

TEST(ModuleBuilderDeathTest, diesOfSecondClassOfOneName) {
  ModuleRegistration<Echo> registration(echoClass());
  EXPECT_DEATH(ModuleRegistration<Echo> second(echoClass()), "Echo is registered twice");
}

TEST(GenericCommandTest, formatsFailures) {
  const CommandResponse response = CommandFailure(ENOENT, "no %s in %d", "route", 7);
  EXPECT_EQ(response.error().code(), ENOENT);
  EXPECT_EQ(response.error().errmsg(), "no route in 7");
  EXPECT_FALSE(CommandSuccess().has_error());
}

TEST(GenericCommandTest, takesErrnoAndTextFromExceptions) {
  const auto errorOf = [](const auto& exception) {
    return errorFromException(std::make_exception_ptr(exception));
  };
  EXPECT_EQ(errorOf(Orp::SystemException(EACCES, "socket")).code(), EACCES);
  EXPECT_NE(errorOf(Orp::SystemException(EACCES, "socket")).errmsg().find("socket"),
            std::string::npos);
  EXPECT_EQ(errorOf(std::system_error(EPERM, std::system_category())).code(), EPERM);
  EXPECT_EQ(errorOf(std::system_error(make_error_code(std::future_errc::no_state))).code(), EINVAL);
  EXPECT_EQ(errorOf(std::bad_alloc()).code(), ENOMEM);
  EXPECT_EQ(errorOf(std::out_of_range("too long")).code(), EINVAL);
  EXPECT_EQ(errorOf(std::out_of_range("too long")).errmsg(), "too long");
  EXPECT_EQ(errorOf(7).code(), EINVAL);
}

}  // namespace
