#include "sfectl/config/DifferSteps.h"

#include "sfectl/Client.h"

namespace Sfectl {
namespace {

using Stub = Client::Stub;

bess::pb::NameRequest named(const std::string& name) {
  bess::pb::NameRequest request;
  request.set_name(name);
  return request;
}

std::string gateText(const GateName& gate) {
  return gate.first + ":" + std::to_string(gate.second);
}

bess::pb::ConnectRequest connection(const GateName& from, const GateName& to) {
  bess::pb::ConnectRequest request;
  request.set_m1(from.first);
  request.set_ogate(from.second);
  request.set_m2(to.first);
  request.set_igate(to.second);
  return request;
}

}  // namespace

void DifferSteps::command(Step step,
                          const std::string& module,
                          const std::string& command,
                          const google::protobuf::Message& arg) {
  bess::pb::ModuleCommandRequest request;
  request.set_module(module);
  request.set_command(command);
  request.mutable_arg()->PackFrom(arg);
  step.command = std::move(request);
  plan.steps.push_back(std::move(step));
}

void DifferSteps::removeModule(const std::string& name) {
  add(Change::kRemove, "module", name, "",
      [name](Executor& executor) { executor.client().call(&Stub::DestroyModule, named(name)); });
  now.modules.erase(name);
  now.edges.erase(name);
  now.instances.erase(name);
  std::erase_if(now.connections, [&](const auto& connection) {
    return connection.first.first == name || connection.second.first == name;
  });
  std::erase_if(now.tasks, [&](const auto& task) { return task.first.first == name; });
}

void DifferSteps::addModule(const std::string& className,
                            const std::string& name,
                            const google::protobuf::Message& arg,
                            const std::string& detail) {
  bess::pb::CreateModuleRequest request;
  request.set_class_name(className);
  request.set_name(name);
  request.mutable_arg()->PackFrom(arg);
  now.modules[name] = {className, request.arg()};
  add(Change::kAdd, "module", name, className + (detail.empty() ? "" : ", " + detail),
      [request](Executor& executor) { executor.client().call(&Stub::CreateModule, request); });
}

void DifferSteps::connect(const GateName& from, const GateName& to) {
  add(Change::kAdd, "connection", gateText(from), "to " + to.first,
      [request = connection(from, to)](Executor& executor) {
        executor.client().call(&Stub::ConnectModules, request);
      });
  now.connections[from] = to;
}

void DifferSteps::connectPort(const std::string& from,
                              const std::string& port,
                              const std::string& to) {
  add(Change::kAdd, "connection", from, "gate of port " + port + " to " + to,
      [from, port, to](Executor& executor) {
        const uint32_t gate = executor.port(port).id();
        executor.client().call(&Stub::ConnectModules, connection({from, gate}, {to, 0}));
      });
}

void DifferSteps::disconnect(const GateName& from) {
  bess::pb::DisconnectRequest request;
  request.set_module(from.first);
  request.set_ogate(from.second);
  const auto found = now.connections.find(from);
  add(Change::kRemove, "connection", gateText(from),
      found == now.connections.end() ? "" : "to " + found->second.first,
      [request](Executor& executor) { executor.client().call(&Stub::DisconnectModules, request); });
  now.connections.erase(from);
}

void DifferSteps::removeInterface(const std::string& module, const std::string& name) {
  sfe::pb::IntfNameArg arg;
  arg.set_name(name);
  add(Change::kRemove, "interface", name, "of " + module,
      [module, arg](Executor& executor) { executor.command(module, "delIntf", arg); });
  now.edges[module].erase(name);
}

}  // namespace Sfectl
