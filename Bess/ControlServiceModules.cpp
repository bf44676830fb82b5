// The control service's requests about module classes, modules, connections and hooks.
#include <cerrno>
#include <functional>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

#include "Bess/ControlInfo.h"
#include "Bess/ControlService.h"
#include "Bess/ModuleBuilder.h"
#include "Bess/ModuleGraph.h"

namespace bess {
namespace {

[[noreturn]] void refuse(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

ModuleGraph::GateRef gateRef(const pb::HookRequest& request) {
  if (request.direction() != pb::GATE_IN && request.direction() != pb::GATE_OUT) {
    refuse(EINVAL, "a hook needs a direction, in or out");
  }
  return {request.module(), request.direction() == pb::GATE_OUT, request.gate()};
}

}  // namespace

void ControlService::handleListModuleClasses(const pb::EmptyRequest&,
                                             pb::ListModuleClassesResponse* response) {
  for (const ModuleBuilder* builder : ModuleBuilder::all()) {
    response->add_names(builder->className());
  }
}

void ControlService::handleGetModuleClass(const pb::NameRequest& request,
                                          pb::ModuleClassResponse* response) {
  const ModuleBuilder* builder = ModuleBuilder::find(request.name());
  if (builder == nullptr) {
    std::string known;
    for (const ModuleBuilder* other : ModuleBuilder::all()) {
      known += (known.empty() ? "" : ", ") + other->className();
    }
    refuse(ENOENT, "no module class '" + request.name() + "' (there are: " + known + ")");
  }
  response->set_name(builder->className());
  response->set_help(builder->help());
  response->set_init_type(builder->init().argFullName());
  response->set_input_gates(builder->igates());
  response->set_output_gates(builder->ogates());
  for (const GenericCommand& command : builder->commands()) {
    pb::CommandInfo* info = response->add_commands();
    info->set_name(command.name);
    info->set_arg_type(command.argFullName.empty() ? command.argType : command.argFullName);
    info->set_thread_safe(command.threadSafe == GenericCommand::kThreadSafe);
  }
}

void ControlService::handleCreateModule(const pb::CreateModuleRequest& request,
                                        pb::CreateModuleResponse* response) {
  *response = ModuleGraph::createModule(request.class_name(), request.name(), request.arg());
}

void ControlService::handleDestroyModule(const pb::NameRequest& request,
                                         pb::EmptyResponse* response) {
  passError(ModuleGraph::destroyModule(request.name()), response);
}

void ControlService::handleListModules(const pb::EmptyRequest&, pb::ListModulesResponse* response) {
  for (const Module* module : ModuleGraph::modules()) {
    fillInfo(*module, response->add_modules());
  }
}

void ControlService::handleGetModule(const pb::NameRequest& request, pb::ModuleResponse* response) {
  const Module* module = ModuleGraph::findModule(request.name());
  if (module == nullptr) {
    refuse(ENOENT, "no module '" + request.name() + "'");
  }
  fillInfo(*module, response->mutable_module());
}

void ControlService::handleModuleCommand(const pb::ModuleCommandRequest& request,
                                         pb::CommandResponse* response) {
  *response = ModuleGraph::runCommand(request.module(), request.command(), request.arg());
}

std::optional<grpc::Status> ControlService::runCommand(const grpc::ServerContext& context,
                                                       const pb::ModuleCommandRequest& request,
                                                       pb::CommandResponse* response,
                                                       std::function<void()> ran) {
  if (grpc::Status allowed = access_.check(context, "ModuleCommand"); !allowed.ok()) {
    return allowed;
  }
  // Whatever happens, the call has to end: an answer that finds no memory stays empty.
  const auto run = [this, &request, response] {
    try {
      handle(&ControlService::handleModuleCommand, request, response);
    } catch (const std::exception&) {
      response->Clear();
    }
  };
  if (control_.tryCallHere(run)) {
    return grpc::Status::OK;
  }
  try {
    control_.post([run, ran = std::move(ran)] {
      run();
      ran();
    });
    return std::nullopt;
  } catch (const std::exception&) {
    return stopping();
  }
}

void ControlService::handleConnectModules(const pb::ConnectRequest& request,
                                          pb::EmptyResponse* response) {
  passError(ModuleGraph::connect(request.m1(), request.ogate(), request.m2(), request.igate()),
            response);
}

void ControlService::handleDisconnectModules(const pb::DisconnectRequest& request,
                                             pb::EmptyResponse* response) {
  passError(ModuleGraph::disconnect(request.module(), request.ogate()), response);
}

void ControlService::handleListConnections(const pb::EmptyRequest&,
                                           pb::ListConnectionsResponse* response) {
  for (const ModuleGraph::Connection& connection : ModuleGraph::connections()) {
    pb::ConnectRequest* info = response->add_connections();
    info->set_m1(connection.from->name());
    info->set_ogate(connection.ogate);
    info->set_m2(connection.to->name());
    info->set_igate(connection.igate);
  }
}

void ControlService::handleAddHook(const pb::HookRequest& request, pb::EmptyResponse* response) {
  passError(ModuleGraph::addHook(request.hook(), gateRef(request), request.file()), response);
}

void ControlService::handleRemoveHook(const pb::HookRequest& request, pb::EmptyResponse* response) {
  passError(ModuleGraph::removeHook(request.hook(), gateRef(request)), response);
}

void ControlService::handleListHooks(const pb::EmptyRequest&, pb::ListHooksResponse* response) {
  for (const ModuleGraph::HookRef& ref : ModuleGraph::hooks()) {
    pb::HookInfo* info = response->add_hooks();
    pb::HookRequest* where = info->mutable_where();
    where->set_hook(ref.hook->name());
    where->set_module(ref.where.module);
    where->set_direction(ref.where.output ? pb::GATE_OUT : pb::GATE_IN);
    where->set_gate(ref.where.gate);
    where->set_file(ref.hook->arg());
    const GateHookStats stats = ref.hook->stats();
    info->set_packets(stats.packets);
    info->set_bytes(stats.bytes);
    info->set_batches(stats.batches);
    info->set_state(ref.hook->state());
  }
}

}  // namespace bess
