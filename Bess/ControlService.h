// The control service: translates each request into the framework's own calls, runs them on the
// control thread and translates the answer.
//
// Threads    : every operation on any of the server's threads; all work happens on the control
//              thread, or in its place (ControlThread), in the order of arrival. The extensions are
//              called there too.
// Errors     : what a request did wrong is in the answer's error object; a call that comes while
// the control thread
//              ends has status UNAVAILABLE, one that the client may not make PERMISSION_DENIED. A
//              refused request leaves everything as it was.
// Ownership  : refers to the control thread, which outlives the server that this service is
// registered with.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Bess/ControlAccess.h"
#include "Bess/ControlThread.h"
#include "Bess/State.h"
#include "protocol/bess.grpc.pb.h"

namespace bess {

// What the program around the framework adds. An operation that is left out is refused.
struct ControlExtensions {
  std::string version;
  std::string pluginDirectory;             // of plug-ins named without a slash
  bool spin = false;                       // workers never sleep
  std::vector<std::string> readOnlyNames;  // in certificates of clients that may only read
  std::function<void()> shutdown;
  std::function<uint32_t(const std::string& name)> counterId;  // throws std::system_error
  std::function<void(pb::CountersResponse* response)> counters;
  std::function<void(pb::Settings* settings)> settings;
  std::function<void(const pb::Settings& wanted)> setSettings;  // throws std::system_error
  std::vector<State> states;                                    // of the program itself
};

class ControlService final
    : public pb::BESSControl::WithAsyncMethod_ModuleCommand<pb::BESSControl::Service> {
 public:
  ControlService(ControlThread& control, ControlExtensions extensions);

  template <class Request, class Response>
  using Handler = void (ControlService::*)(const Request&, Response*);

  // The same service for clients that may only read. It may not outlive this one.
  std::unique_ptr<ControlService> readOnly() const;

  // The path of a plug-in as a request names it.
  std::string pluginPath(const std::string& name) const;

#define BESS_CONTROL_RPC(name, Request, Response)                                           \
  grpc::Status name(grpc::ServerContext* context, const pb::Request* request,               \
                    pb::Response* response) override {                                      \
    const grpc::Status allowed = access_.check(*context, #name);                            \
    return allowed.ok() ? run(&ControlService::handle##name, *request, response) : allowed; \
  }
  BESS_CONTROL_RPC(GetVersion, EmptyRequest, VersionResponse)
  BESS_CONTROL_RPC(Shutdown, EmptyRequest, EmptyResponse)
  BESS_CONTROL_RPC(PauseAll, EmptyRequest, EmptyResponse)
  BESS_CONTROL_RPC(ResumeAll, EmptyRequest, EmptyResponse)
  BESS_CONTROL_RPC(AddWorker, AddWorkerRequest, EmptyResponse)
  BESS_CONTROL_RPC(DestroyWorker, DestroyWorkerRequest, EmptyResponse)
  BESS_CONTROL_RPC(ListWorkers, EmptyRequest, ListWorkersResponse)
  BESS_CONTROL_RPC(CreatePort, CreatePortRequest, CreatePortResponse)
  BESS_CONTROL_RPC(DestroyPort, NameRequest, EmptyResponse)
  BESS_CONTROL_RPC(ListPorts, EmptyRequest, ListPortsResponse)
  BESS_CONTROL_RPC(GetPortStats, NameRequest, PortStatsResponse)
  BESS_CONTROL_RPC(ListModuleClasses, EmptyRequest, ListModuleClassesResponse)
  BESS_CONTROL_RPC(GetModuleClass, NameRequest, ModuleClassResponse)
  BESS_CONTROL_RPC(CreateModule, CreateModuleRequest, CreateModuleResponse)
  BESS_CONTROL_RPC(DestroyModule, NameRequest, EmptyResponse)
  BESS_CONTROL_RPC(ListModules, EmptyRequest, ListModulesResponse)
  BESS_CONTROL_RPC(GetModule, NameRequest, ModuleResponse)
  BESS_CONTROL_RPC(ConnectModules, ConnectRequest, EmptyResponse)
  BESS_CONTROL_RPC(DisconnectModules, DisconnectRequest, EmptyResponse)
  BESS_CONTROL_RPC(ListConnections, EmptyRequest, ListConnectionsResponse)
  BESS_CONTROL_RPC(AddHook, HookRequest, EmptyResponse)
  BESS_CONTROL_RPC(RemoveHook, HookRequest, EmptyResponse)
  BESS_CONTROL_RPC(ListHooks, EmptyRequest, ListHooksResponse)
  BESS_CONTROL_RPC(AttachTask, AttachTaskRequest, EmptyResponse)
  BESS_CONTROL_RPC(DetachTask, TaskRequest, EmptyResponse)
  BESS_CONTROL_RPC(ListTasks, EmptyRequest, ListTasksResponse)
  BESS_CONTROL_RPC(LoadPlugin, PluginRequest, EmptyResponse)
  BESS_CONTROL_RPC(UnloadPlugin, PluginRequest, EmptyResponse)
  BESS_CONTROL_RPC(ListPlugins, EmptyRequest, ListPluginsResponse)
  BESS_CONTROL_RPC(GetStats, EmptyRequest, StatsResponse)
  BESS_CONTROL_RPC(CounterId, NameRequest, CounterIdResponse)
  BESS_CONTROL_RPC(GetCounters, EmptyRequest, CountersResponse)
  BESS_CONTROL_RPC(GetSettings, EmptyRequest, SettingsResponse)
  BESS_CONTROL_RPC(SetSettings, Settings, EmptyResponse)
  BESS_CONTROL_RPC(ListStates, NameRequest, ListStatesResponse)
#undef BESS_CONTROL_RPC

  // The call ModuleCommand, which a queue takes (ControlCommands): runs the command here while the
  // control thread has nothing to do, else there, and `ran` behind it; the arguments live until
  // then. Returns: the call's status; nothing while the control thread has the command.
  std::optional<grpc::Status> runCommand(const grpc::ServerContext& context,
                                         const pb::ModuleCommandRequest& request,
                                         pb::CommandResponse* response,
                                         std::function<void()> ran);

  // Each holds one of the server's threads for as long as its client likes, so there may be
  // kMaxStreams of them at a time; a further one has status RESOURCE_EXHAUSTED.
  grpc::Status GetState(grpc::ServerContext* context,
                        const pb::StateRequest* request,
                        grpc::ServerWriter<pb::StateChunk>* writer) override;
  grpc::Status ModuleCommandStream(
      grpc::ServerContext* context,
      grpc::ServerReaderWriter<pb::CommandResponse, pb::ModuleCommandRequest>* stream) override;
  grpc::Status ModuleCommandBatchStream(
      grpc::ServerContext* context,
      grpc::ServerReaderWriter<pb::CommandResponseBatch, pb::ModuleCommandBatch>* stream) override;
  static constexpr int kMaxStreams = 16;

 private:
  ControlService(const ControlService& everything, ControlAccess::Scope scope);

  // Runs a handler; what it throws becomes the answer's error.
  template <class Request, class Response>
  void handle(Handler<Request, Response> handler, const Request& request, Response* response) {
    try {
      (this->*handler)(request, response);
    } catch (...) {
      response->Clear();
      *response->mutable_error() = currentError();
    }
  }
  // The same on the control thread.
  template <class Request, class Response>
  grpc::Status run(Handler<Request, Response> handler, const Request& request, Response* response) {
    return onControlThread([&] { handle(handler, request, response); });
  }
  static grpc::Status stopping();
  grpc::Status onControlThread(const std::function<void()>& work);
  static pb::Error currentError();  // of the exception being handled
  // A stream whose messages carry commands in the given form, from its beginning to its end.
  template <class Form>
  grpc::Status runCommands(
      grpc::ServerContext& context,
      grpc::ServerReaderWriter<typename Form::Response, typename Form::Request>& stream);
  bool takeStream();  // false: there are kMaxStreams already
  void returnStream() {
    streams_.fetch_sub(1, std::memory_order_relaxed);
  }

  // All on the control thread.
  void handleGetVersion(const pb::EmptyRequest& request, pb::VersionResponse* response);
  void handleShutdown(const pb::EmptyRequest& request, pb::EmptyResponse* response);
  void handlePauseAll(const pb::EmptyRequest& request, pb::EmptyResponse* response);
  void handleResumeAll(const pb::EmptyRequest& request, pb::EmptyResponse* response);
  void handleAddWorker(const pb::AddWorkerRequest& request, pb::EmptyResponse* response);
  void handleDestroyWorker(const pb::DestroyWorkerRequest& request, pb::EmptyResponse* response);
  void handleListWorkers(const pb::EmptyRequest& request, pb::ListWorkersResponse* response);
  void handleCreatePort(const pb::CreatePortRequest& request, pb::CreatePortResponse* response);
  void handleDestroyPort(const pb::NameRequest& request, pb::EmptyResponse* response);
  void handleListPorts(const pb::EmptyRequest& request, pb::ListPortsResponse* response);
  void handleGetPortStats(const pb::NameRequest& request, pb::PortStatsResponse* response);
  void handleListModuleClasses(const pb::EmptyRequest& request,
                               pb::ListModuleClassesResponse* response);
  void handleGetModuleClass(const pb::NameRequest& request, pb::ModuleClassResponse* response);
  void handleCreateModule(const pb::CreateModuleRequest& request,
                          pb::CreateModuleResponse* response);
  void handleDestroyModule(const pb::NameRequest& request, pb::EmptyResponse* response);
  void handleListModules(const pb::EmptyRequest& request, pb::ListModulesResponse* response);
  void handleGetModule(const pb::NameRequest& request, pb::ModuleResponse* response);
  void handleModuleCommand(const pb::ModuleCommandRequest& request, pb::CommandResponse* response);
  void handleConnectModules(const pb::ConnectRequest& request, pb::EmptyResponse* response);
  void handleDisconnectModules(const pb::DisconnectRequest& request, pb::EmptyResponse* response);
  void handleListConnections(const pb::EmptyRequest& request,
                             pb::ListConnectionsResponse* response);
  void handleAddHook(const pb::HookRequest& request, pb::EmptyResponse* response);
  void handleRemoveHook(const pb::HookRequest& request, pb::EmptyResponse* response);
  void handleListHooks(const pb::EmptyRequest& request, pb::ListHooksResponse* response);
  void handleAttachTask(const pb::AttachTaskRequest& request, pb::EmptyResponse* response);
  void handleDetachTask(const pb::TaskRequest& request, pb::EmptyResponse* response);
  void handleListTasks(const pb::EmptyRequest& request, pb::ListTasksResponse* response);
  void handleLoadPlugin(const pb::PluginRequest& request, pb::EmptyResponse* response);
  void handleUnloadPlugin(const pb::PluginRequest& request, pb::EmptyResponse* response);
  void handleListPlugins(const pb::EmptyRequest& request, pb::ListPluginsResponse* response);
  void handleGetSettings(const pb::EmptyRequest& request, pb::SettingsResponse* response);
  void handleSetSettings(const pb::Settings& request, pb::EmptyResponse* response);
  void handleGetStats(const pb::EmptyRequest& request, pb::StatsResponse* response);
  void handleCounterId(const pb::NameRequest& request, pb::CounterIdResponse* response);
  void handleGetCounters(const pb::EmptyRequest& request, pb::CountersResponse* response);
  void handleListStates(const pb::NameRequest& request, pb::ListStatesResponse* response);
  const std::vector<State>& statesOf(const std::string& module) const;
  std::string stateText(const pb::StateRequest& request) const;

  // Constant after construction.
  ControlThread& control_;
  const ControlExtensions extensions_;
  ControlAccess access_;
  const std::chrono::steady_clock::time_point started_;

  std::atomic<int> streams_{0};  // streaming calls under way

  // Control thread. A client's pause, beside those that the framework takes for each change.
  const std::shared_ptr<bool> paused_;
};

}  // namespace bess
