// Every request of the service, by a client over the socket: what it does, and what it refuses.
#include "Bess/ControlService.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <stdexcept>
#include <thread>

#include "Bess/ControlTestFixture.h"
#include "Bess/ModuleBuilder.h"
#include "protocol/modules.pb.h"

namespace bess {
namespace {

// A module whose commands answer, refuse, and throw.
class Probe final : public Module {
 public:
  CommandResponse init(const pb::NameRequest& arg) {
    if (arg.name() == "refused") {
      return CommandFailure(EPERM, "not %s", "today");
    }
    RegisterTask(nullptr);
    return CommandSuccess();
  }
  CommandResponse echo(const pb::NameRequest& arg) { return CommandSuccess(arg); }
  CommandResponse refuse(const pb::NameRequest&) { return CommandFailure(EPERM, "refused"); }
  CommandResponse fail(const pb::NameRequest&) { throw std::runtime_error("it broke"); }
};

const ModuleRegistration<Probe> kProbeClass(
    {.name = "Probe",
     .help = "Answers, refuses, throws",
     .igates = 2,
     .ogates = 2,
     .commands = {makeCommand<&Probe::echo>("echo", "NameRequest", GenericCommand::kThreadSafe),
                  makeCommand<&Probe::refuse>("refuse", "NameRequest"),
                  makeCommand<&Probe::fail>("fail", "NameRequest")},
     .init = makeInit<&Probe::init>()});

class ControlServiceTest : public ControlTest {
 protected:
  pb::CreateModuleResponse createProbe(const std::string& name, const std::string& arg = "") {
    pb::CreateModuleRequest request;
    request.set_class_name("Probe");
    request.set_name(name);
    request.mutable_arg()->PackFrom(named(arg));
    return call(&Stub::CreateModule, request);
  }

  pb::CommandResponse command(const std::string& module,
                              const std::string& name,
                              const std::string& arg) {
    pb::ModuleCommandRequest request;
    request.set_module(module);
    request.set_command(name);
    request.mutable_arg()->PackFrom(named(arg));
    return call(&Stub::ModuleCommand, request);
  }

  int connect(const std::string& m1, uint32_t ogate, const std::string& m2, uint32_t igate) {
    pb::ConnectRequest request;
    request.set_m1(m1);
    request.set_ogate(ogate);
    request.set_m2(m2);
    request.set_igate(igate);
    return call(&Stub::ConnectModules, request).error().code();
  }

  int addWorker(uint32_t wid) {
    pb::AddWorkerRequest request;
    request.set_wid(wid);
    return call(&Stub::AddWorker, request).error().code();
  }

  int destroyWorker(uint32_t wid) {
    pb::DestroyWorkerRequest request;
    request.set_wid(wid);
    return call(&Stub::DestroyWorker, request).error().code();
  }
};

TEST_F(ControlServiceTest, tellsItsVersion) {
  const auto answer = call(&Stub::GetVersion);
  EXPECT_EQ(answer.version(), "1.2.3");
  EXPECT_NE(answer.dpdk_version(), "");
  EXPECT_EQ(answer.pid(), getpid());
}

TEST_F(ControlServiceTest, passesAShutdownOnAndAnswers) {
  EXPECT_EQ(call(&Stub::Shutdown).error().code(), 0);
  EXPECT_EQ(shutdowns_, 1);
}

TEST_F(ControlServiceTest, refusesWhatTheProgramDoesNotOffer) {
  ControlService bare(control_, {});
  // As on one of the server's threads.
  std::thread([&] {
    grpc::ServerContext context;
    pb::EmptyResponse stopped;
    EXPECT_TRUE(bare.Shutdown(&context, std::make_unique<pb::EmptyRequest>().get(), &stopped).ok());
    EXPECT_EQ(stopped.error().code(), ENOTSUP);
    pb::CounterIdResponse id;
    const pb::NameRequest request = named("x");
    EXPECT_TRUE(bare.CounterId(&context, &request, &id).ok());
    EXPECT_EQ(id.error().code(), ENOTSUP);
  }).join();
}

TEST_F(ControlServiceTest, startsAndStopsWorkers) {
  EXPECT_EQ(addWorker(3), 0);
  EXPECT_EQ(addWorker(3), EEXIST);
  EXPECT_EQ(addWorker(36), EINVAL);
  EXPECT_EQ(addWorker(0xffffffff), EINVAL);
  const auto workers = call(&Stub::ListWorkers).workers();
  ASSERT_EQ(workers.size(), 1);
  EXPECT_EQ(workers[0].wid(), 3u);
  EXPECT_EQ(workers[0].core(), -1);
  EXPECT_TRUE(workers[0].running());
  EXPECT_EQ(destroyWorker(4), ENOENT);
  EXPECT_EQ(destroyWorker(3), 0);
  EXPECT_EQ(call(&Stub::ListWorkers).workers_size(), 0);
}

TEST_F(ControlServiceTest, refusesACoreThatIsNotThere) {
  pb::AddWorkerRequest request;
  request.set_core(0xffffffff);
  EXPECT_EQ(call(&Stub::AddWorker, request).error().code(), EINVAL);
  request.set_core(1 << 20);
  EXPECT_NE(call(&Stub::AddWorker, request).error().code(), 0);
  EXPECT_EQ(call(&Stub::ListWorkers).workers_size(), 0);
}

TEST_F(ControlServiceTest, pausesUntilTheNextResume) {
  EXPECT_EQ(addWorker(0), 0);
  EXPECT_EQ(call(&Stub::PauseAll).error().code(), 0);
  EXPECT_EQ(call(&Stub::PauseAll).error().code(), 0);
  EXPECT_TRUE(call(&Stub::GetStats).paused());
  EXPECT_FALSE(call(&Stub::ListWorkers).workers(0).running());
  EXPECT_EQ(call(&Stub::ResumeAll).error().code(), 0);
  EXPECT_TRUE(call(&Stub::ListWorkers).workers(0).running());
  EXPECT_EQ(call(&Stub::ResumeAll).error().code(), 0);
  EXPECT_FALSE(call(&Stub::GetStats).paused());
}

TEST_F(ControlServiceTest, opensShowsAndClosesPorts) {
  pb::CreatePortRequest request;
  request.set_name("p0");
  request.set_devargs("net_null_control0");
  request.set_rxq(2);
  const auto created = call(&Stub::CreatePort, request);
  ASSERT_EQ(created.error().errmsg(), "");
  EXPECT_EQ(call(&Stub::CreatePort, request).error().code(), EEXIST);
  const auto ports = call(&Stub::ListPorts).ports();
  ASSERT_EQ(ports.size(), 1);
  EXPECT_EQ(ports[0].name(), "p0");
  EXPECT_EQ(ports[0].id(), created.id());
  EXPECT_EQ(ports[0].rxq(), 2u);
  EXPECT_EQ(ports[0].mac().size(), 6u);
  const auto one = call(&Stub::GetPortStats, named("p0"));
  EXPECT_EQ(one.port().devargs(), "net_null_control0");
  EXPECT_TRUE(one.port().has_counters());
  EXPECT_EQ(call(&Stub::GetPortStats, named("p1")).error().code(), ENOENT);
  EXPECT_EQ(call(&Stub::DestroyPort, named("p1")).error().code(), ENOENT);
  EXPECT_EQ(call(&Stub::DestroyPort, named("p0")).error().code(), 0);
  EXPECT_EQ(call(&Stub::ListPorts).ports_size(), 0);
}

TEST_F(ControlServiceTest, refusesPortsThatCannotBe) {
  pb::CreatePortRequest request;
  EXPECT_NE(call(&Stub::CreatePort, request).error().code(), 0);
  request.set_name("p0");
  request.set_devargs("no_such_driver0");
  EXPECT_NE(call(&Stub::CreatePort, request).error().errmsg(), "");
  request.set_devargs("net_null_control1");
  request.set_rxq(65536);
  const auto answer = call(&Stub::CreatePort, request);
  EXPECT_EQ(answer.error().code(), EINVAL);
  EXPECT_NE(answer.error().errmsg().find("receive queues 65536"), std::string::npos);
  EXPECT_EQ(call(&Stub::ListPorts).ports_size(), 0);
}

TEST_F(ControlServiceTest, describesModuleClasses) {
  const auto names = call(&Stub::ListModuleClasses).names();
  EXPECT_NE(std::find(names.begin(), names.end(), "Probe"), names.end());
  const auto info = call(&Stub::GetModuleClass, named("Probe"));
  EXPECT_EQ(info.init_type(), "bess.pb.NameRequest");
  EXPECT_EQ(info.input_gates(), 2u);
  ASSERT_EQ(info.commands_size(), 3);
  EXPECT_EQ(info.commands(0).name(), "echo");
  EXPECT_EQ(info.commands(0).arg_type(), "bess.pb.NameRequest");
  EXPECT_TRUE(info.commands(0).thread_safe());
  EXPECT_FALSE(info.commands(1).thread_safe());
  const auto unknown = call(&Stub::GetModuleClass, named("Nothing"));
  EXPECT_EQ(unknown.error().code(), ENOENT);
  EXPECT_NE(unknown.error().errmsg().find("Probe"), std::string::npos);
}

TEST_F(ControlServiceTest, createsModulesAndRemembersTheirArgument) {
  EXPECT_EQ(createProbe("one", "argument").name(), "one");
  EXPECT_EQ(createProbe("one").error().code(), EEXIST);
  EXPECT_NE(createProbe("").name(), "");
  const auto info = call(&Stub::GetModule, named("one")).module();
  EXPECT_EQ(info.class_name(), "Probe");
  EXPECT_EQ(info.tasks(), 1u);
  pb::NameRequest arg;
  ASSERT_TRUE(info.arg().UnpackTo(&arg));
  EXPECT_EQ(arg.name(), "argument");
  EXPECT_EQ(call(&Stub::ListModules).modules_size(), 2);
  EXPECT_EQ(call(&Stub::DestroyModule, named("one")).error().code(), 0);
  EXPECT_EQ(call(&Stub::DestroyModule, named("one")).error().code(), ENOENT);
  EXPECT_EQ(call(&Stub::GetModule, named("one")).error().code(), ENOENT);
}

TEST_F(ControlServiceTest, keepsNothingOfAModuleWhoseInitRefused) {
  const auto answer = createProbe("one", "refused");
  EXPECT_EQ(answer.error().code(), EPERM);
  EXPECT_EQ(answer.error().errmsg(), "not today");
  pb::CreateModuleRequest request;
  request.set_class_name("Nothing");
  EXPECT_EQ(call(&Stub::CreateModule, request).error().code(), ENOENT);
  expectAlive(0);
}

TEST_F(ControlServiceTest, runsModuleCommands) {
  createProbe("one");
  pb::NameRequest echoed;
  ASSERT_TRUE(command("one", "echo", "hello").data().UnpackTo(&echoed));
  EXPECT_EQ(echoed.name(), "hello");
  EXPECT_EQ(command("one", "refuse", "").error().code(), EPERM);
  EXPECT_EQ(command("one", "fail", "").error().errmsg(), "it broke");
  EXPECT_EQ(command("one", "nothing", "").error().code(), ENOENT);
  EXPECT_EQ(command("two", "echo", "").error().code(), ENOENT);
  expectAlive(1);
}

TEST_F(ControlServiceTest, givesAHandlerAnEmptyMessageForAnArgumentOfAnotherType) {
  createProbe("one");
  pb::ModuleCommandRequest request;
  request.set_module("one");
  request.set_command("echo");
  request.mutable_arg()->set_type_url("type.googleapis.com/bess.pb.NameRequest");
  request.mutable_arg()->set_value("\xff\xff\xff");
  EXPECT_EQ(call(&Stub::ModuleCommand, request).error().code(), 0);
  request.mutable_arg()->PackFrom(pb::SourceArg());
  pb::NameRequest echoed;
  ASSERT_TRUE(call(&Stub::ModuleCommand, request).data().UnpackTo(&echoed));
  EXPECT_EQ(echoed.name(), "");
}

TEST_F(ControlServiceTest, connectsAndDisconnects) {
  createProbe("one");
  createProbe("two");
  EXPECT_EQ(connect("one", 1, "two", 0), 0);
  EXPECT_EQ(connect("one", 1, "two", 1), EBUSY);
  EXPECT_EQ(connect("one", 2, "two", 0), EINVAL);
  EXPECT_EQ(connect("one", 0, "two", 0xffffffff), EINVAL);
  EXPECT_EQ(connect("one", 0, "three", 0), ENOENT);
  const auto connections = call(&Stub::ListConnections).connections();
  ASSERT_EQ(connections.size(), 1);
  EXPECT_EQ(connections[0].m1(), "one");
  EXPECT_EQ(connections[0].ogate(), 1u);
  EXPECT_EQ(connections[0].m2(), "two");
  pb::DisconnectRequest request;
  request.set_module("one");
  EXPECT_NE(call(&Stub::DisconnectModules, request).error().code(), 0);
  request.set_ogate(1);
  EXPECT_EQ(call(&Stub::DisconnectModules, request).error().code(), 0);
  EXPECT_EQ(call(&Stub::ListConnections).connections_size(), 0);
}

TEST_F(ControlServiceTest, hooksGates) {
  createProbe("one");
  createProbe("two");
  ASSERT_EQ(connect("one", 0, "two", 0), 0);
  pb::HookRequest request;
  request.set_hook("track");
  request.set_module("one");
  EXPECT_EQ(call(&Stub::AddHook, request).error().code(), EINVAL);  // no direction
  request.set_direction(pb::GATE_OUT);
  EXPECT_EQ(call(&Stub::AddHook, request).error().errmsg(), "");
  EXPECT_EQ(call(&Stub::AddHook, request).error().code(), EEXIST);
  const auto hooks = call(&Stub::ListHooks).hooks();
  ASSERT_EQ(hooks.size(), 1);
  EXPECT_EQ(hooks[0].where().hook(), "track");
  EXPECT_EQ(hooks[0].where().direction(), pb::GATE_OUT);
  EXPECT_EQ(hooks[0].packets(), 0u);
  EXPECT_EQ(call(&Stub::RemoveHook, request).error().code(), 0);
  EXPECT_EQ(call(&Stub::RemoveHook, request).error().code(), ENOENT);
  request.set_hook("nothing");
  EXPECT_EQ(call(&Stub::AddHook, request).error().code(), ENOENT);
  EXPECT_EQ(call(&Stub::ListHooks).hooks_size(), 0);
}

TEST_F(ControlServiceTest, attachesTasksWithTheirRate) {
  createProbe("one");
  ASSERT_EQ(addWorker(0), 0);
  pb::AttachTaskRequest request;
  request.set_module("one");
  request.set_rate(50);
  request.set_wid(1);
  EXPECT_EQ(call(&Stub::AttachTask, request).error().code(), ENOENT);
  request.set_wid(0);
  EXPECT_EQ(call(&Stub::AttachTask, request).error().errmsg(), "");
  EXPECT_EQ(destroyWorker(0), EBUSY);
  auto task = call(&Stub::ListTasks).tasks(0);
  EXPECT_EQ(task.module(), "one");
  EXPECT_EQ(task.wid(), 0);
  EXPECT_EQ(task.rate(), 50u);
  request.set_task_id(1);
  EXPECT_EQ(call(&Stub::AttachTask, request).error().code(), ENOENT);
  pb::TaskRequest detach;
  detach.set_module("one");
  EXPECT_EQ(call(&Stub::DetachTask, detach).error().code(), 0);
  EXPECT_EQ(call(&Stub::ListTasks).tasks(0).wid(), -1);
  EXPECT_EQ(destroyWorker(0), 0);
}

TEST_F(ControlServiceTest, refusesPlugInsThatAreNoLibraries) {
  pb::PluginRequest request;
  for (const char* path : {"", "libNothing.so", "/nonexistent/lib.so", "/etc/passwd"}) {
    request.set_path(path);
    EXPECT_NE(call(&Stub::LoadPlugin, request).error().errmsg(), "") << path;
    EXPECT_NE(call(&Stub::UnloadPlugin, request).error().errmsg(), "") << path;
  }
  EXPECT_EQ(call(&Stub::ListPlugins).paths_size(), 0);
}

TEST_F(ControlServiceTest, looksForPlainPlugInNamesInTheirDirectory) {
  EXPECT_EQ(service_->pluginPath("libA.so"), directory_.file("plugins/libA.so"));
  EXPECT_EQ(service_->pluginPath("/x/libA.so"), "/x/libA.so");
  EXPECT_EQ(service_->pluginPath("./libA.so"), "./libA.so");
  EXPECT_EQ(service_->pluginPath(""), "");
}

TEST_F(ControlServiceTest, readsAndChangesSettingsOfTheProgram) {
  EXPECT_EQ(call(&Stub::GetSettings).settings().publish_period_ms(), 250u);
  pb::Settings wanted;
  EXPECT_FALSE(call(&Stub::SetSettings, wanted).has_error());
  EXPECT_EQ(call(&Stub::GetSettings).settings().publish_period_ms(), 250u);
  wanted.set_publish_period_ms(300);
  EXPECT_FALSE(call(&Stub::SetSettings, wanted).has_error());
  EXPECT_EQ(call(&Stub::GetSettings).settings().publish_period_ms(), 300u);
  wanted.set_publish_period_ms(0);
  EXPECT_EQ(call(&Stub::SetSettings, wanted).error().code(), EINVAL);
}

TEST_F(ControlServiceTest, refusesSettingsWhereThereAreNone) {
  ControlExtensions none;
  ControlService service(control_, none);
  ControlServerOptions options = options_;
  options.socket = directory_.file("none.sock");
  options.readSocket = "";
  const ControlServer server(&service, options);
  const auto stub = pb::BESSControl::NewStub(
      grpc::CreateChannel("unix:" + options.socket, grpc::InsecureChannelCredentials()));
  grpc::ClientContext context;
  pb::EmptyResponse response;
  ASSERT_TRUE(stub->SetSettings(&context, {}, &response).ok());
  EXPECT_EQ(response.error().code(), ENOTSUP);
}

TEST_F(ControlServiceTest, reportsStatistics) {
  createProbe("one");
  ASSERT_EQ(addWorker(0), 0);
  const auto stats = call(&Stub::GetStats);
  EXPECT_GT(stats.uptime_ns(), 0u);
  EXPECT_EQ(stats.packets_total(), 2047u);
  EXPECT_EQ(stats.workers_size(), 1);
  EXPECT_EQ(stats.modules_size(), 1);
  EXPECT_EQ(stats.ports_size(), 0);
}

TEST_F(ControlServiceTest, passesCountersOn) {
  EXPECT_EQ(call(&Stub::CounterId, named("events")).id(), 7u);
  EXPECT_EQ(call(&Stub::CounterId, named("")).error().code(), EINVAL);
  EXPECT_EQ(call(&Stub::GetCounters).counters(0).name(), "events");
}

}  // namespace
}  // namespace bess
