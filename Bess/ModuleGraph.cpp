#include "Bess/ModuleGraph.h"

#include <glog/logging.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <utility>

#include "Bess/ModuleBuilder.h"
#include "Bess/Worker.h"

namespace {

constexpr size_t kMaxNameLength = 64;

struct Node {
  std::unique_ptr<Module> module;
  google::protobuf::Any arg;
};
using Nodes = std::map<std::string, Node>;

Nodes& nodes() {
  // Never destroyed: a module's end belongs to control, not to the end of the process.
  static Nodes& map = *new Nodes;
  return map;
}

CommandResponse noModule(const std::string& name) {
  return CommandFailure(ENOENT, "no module '%s'", name.c_str());
}

CommandResponse notConnected(const std::string& module, const char* direction, unsigned gate) {
  return CommandFailure(ENOENT, "%s gate %u of module '%s' is not connected", direction, gate,
                        module.c_str());
}

bool isGoodName(const std::string& name) {
  return name.size() <= kMaxNameLength && std::all_of(name.begin(), name.end(), [](char c) {
           return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '_' || c == '-' || c == '.';
         });
}

std::string freeName(const std::string& nameTemplate) {
  for (unsigned n = 0;; n++) {
    std::string name = nameTemplate + std::to_string(n);
    if (!nodes().contains(name)) {
      return name;
    }
  }
}

// Runs a handler of a module; what it throws becomes the answer.
template <class F>
CommandResponse guarded(F&& handler) {
  try {
    return handler();
  } catch (...) {
    return failureFromException(std::current_exception());
  }
}

// Ends a module that no worker can reach.
CommandResponse finish(std::unique_ptr<Module> module) {
  CommandResponse response = guarded([&module] {
    module->DeInit();
    return CommandSuccess();
  });
  if (response.has_error()) {
    LOG(ERROR) << module->name() << ": DeInit: " << response.error().errmsg();
  }
  return response;
}

void isolate(Module* module) {
  for (size_t gate = 0; gate < module->ogates().size(); gate++) {
    if (module->ogate(gate) != nullptr) {
      module->disconnectGate(gate);
    }
  }
  for (size_t gate = 0; gate < module->igates().size(); gate++) {
    while (module->igate(gate) != nullptr) {
      OutputGate* feeder = module->igate(gate)->feeders().back();
      feeder->module()->disconnectGate(feeder->index());
    }
  }
  for (const auto& task : module->tasks()) {
    detachTask(task.get());
  }
}

// Every module that packets of `from` can reach, itself included.
std::set<Module*> reachableFrom(Module* from) {
  std::set<Module*> seen = {from};
  std::vector<Module*> open = {from};
  while (!open.empty()) {
    const Module* module = open.back();
    open.pop_back();
    for (const auto& gate : module->ogates()) {
      if (gate != nullptr && seen.insert(gate->next()->module()).second) {
        open.push_back(gate->next()->module());
      }
    }
  }
  return seen;
}

// Returns: the answer that refuses the connection, if there is one.
std::optional<CommandResponse> refuseConnection(const Module* from,
                                                unsigned ogate,
                                                Module* to,
                                                unsigned igate) {
  const auto refuse = [](const Module* module, const char* direction, unsigned gate,
                         unsigned limit) {
    return CommandFailure(EINVAL, "module '%s' (class %s) has no %s gate %u: it has %u",
                          module->name().c_str(), module->moduleBuilder()->className().c_str(),
                          direction, gate, limit);
  };
  if (ogate >= from->moduleBuilder()->ogates()) {
    return refuse(from, "output", ogate, from->moduleBuilder()->ogates());
  }
  if (igate >= to->moduleBuilder()->igates()) {
    return refuse(to, "input", igate, to->moduleBuilder()->igates());
  }
  if (const OutputGate* gate = from->ogate(static_cast<gate_idx_t>(ogate)); gate != nullptr) {
    return CommandFailure(EBUSY, "output gate %u of module '%s' is connected to '%s'", ogate,
                          from->name().c_str(), gate->next()->module()->name().c_str());
  }
  if (reachableFrom(to).contains(const_cast<Module*>(from))) {
    return CommandFailure(ELOOP, "'%s' to '%s' closes a circle", from->name().c_str(),
                          to->name().c_str());
  }
  return std::nullopt;
}

Task* findTask(const Module* module, unsigned taskId) {
  return taskId < module->tasks().size() ? module->tasks()[taskId].get() : nullptr;
}

// Null when the gate is not connected.
Gate* findGate(const Module* module, const ModuleGraph::GateRef& where) {
  if (where.gate >= kMaxGates) {
    return nullptr;
  }
  const auto gate = static_cast<gate_idx_t>(where.gate);
  if (where.output) {
    return module->ogate(gate);
  }
  return module->igate(gate);
}

const char* directionOf(const ModuleGraph::GateRef& where) {
  return where.output ? "output" : "input";
}

}  // namespace

bess::pb::CreateModuleResponse ModuleGraph::createModule(const std::string& className,
                                                         const std::string& name,
                                                         const google::protobuf::Any& arg) {
  bess::pb::CreateModuleResponse answer;
  const auto fail = [&answer](const CommandResponse& failure) {
    *answer.mutable_error() = failure.error();
    return answer;
  };
  const ModuleBuilder* builder = ModuleBuilder::find(className);
  if (builder == nullptr) {
    return fail(CommandFailure(ENOENT, "no module class '%s'", className.c_str()));
  }
  if (!isGoodName(name)) {
    return fail(CommandFailure(EINVAL,
                               "'%s' is no module name: up to %zu letters, digits, '_', '-', '.'",
                               name.c_str(), kMaxNameLength));
  }
  if (nodes().contains(name)) {
    return fail(CommandFailure(EEXIST, "there is a module '%s'", name.c_str()));
  }
  std::unique_ptr<Module> module;
  const CommandResponse response = guarded([&] {
    module.reset(builder->create());
    module->name_ = name.empty() ? freeName(builder->nameTemplate()) : name;
    module->builder_ = builder;
    return builder->init()(module.get(), arg);
  });
  if (response.has_error()) {
    if (module != nullptr) {
      finish(std::move(module));
    }
    return fail(response);
  }
  answer.set_name(module->name());
  if (response.has_data()) {
    *answer.mutable_data() = response.data();
  }
  nodes().emplace(answer.name(), Node{std::move(module), arg});
  return answer;
}

CommandResponse ModuleGraph::destroyModule(const std::string& name) {
  auto node = nodes().extract(name);
  if (node.empty()) {
    return noModule(name);
  }
  {
    ScopedWorkerPause pause;
    isolate(node.mapped().module.get());
    checkConstraints();
  }
  return finish(std::move(node.mapped().module));
}

void ModuleGraph::destroyAllModules() {
  while (!nodes().empty()) {
    destroyModule(nodes().begin()->first);
  }
}

Module* ModuleGraph::findModule(const std::string& name) {
  auto it = nodes().find(name);
  return it == nodes().end() ? nullptr : it->second.module.get();
}

std::vector<Module*> ModuleGraph::modules() {
  std::vector<Module*> result;
  for (const auto& [name, node] : nodes()) {
    result.push_back(node.module.get());
  }
  return result;
}

const google::protobuf::Any& ModuleGraph::initArg(const Module* module) {
  return nodes().at(module->name()).arg;
}

unsigned ModuleGraph::instancesOf(const ModuleBuilder* builder) {
  unsigned n = 0;
  for (const auto& [name, node] : nodes()) {
    n += node.module->moduleBuilder() == builder ? 1 : 0;
  }
  return n;
}

CommandResponse ModuleGraph::connect(const std::string& m1,
                                     unsigned ogate,
                                     const std::string& m2,
                                     unsigned igate) {
  Module* from = findModule(m1);
  Module* to = findModule(m2);
  if (from == nullptr || to == nullptr) {
    return noModule(from == nullptr ? m1 : m2);
  }
  if (auto refusal = refuseConnection(from, ogate, to, igate)) {
    return *refusal;
  }
  ScopedWorkerPause pause;
  from->connectGate(static_cast<gate_idx_t>(ogate), to, static_cast<gate_idx_t>(igate));
  if (const std::string text = checkConstraints(); !text.empty()) {
    from->disconnectGate(static_cast<gate_idx_t>(ogate));
    checkConstraints();
    return CommandFailure(EINVAL, "%s", text.c_str());
  }
  return CommandSuccess();
}

CommandResponse ModuleGraph::disconnect(const std::string& module, unsigned ogate) {
  Module* from = findModule(module);
  if (from == nullptr) {
    return noModule(module);
  }
  if (findGate(from, {module, true, ogate}) == nullptr) {
    return notConnected(module, "output", ogate);
  }
  ScopedWorkerPause pause;
  from->disconnectGate(static_cast<gate_idx_t>(ogate));
  checkConstraints();
  return CommandSuccess();
}

std::vector<ModuleGraph::Connection> ModuleGraph::connections() {
  std::vector<Connection> result;
  for (const auto& [name, node] : nodes()) {
    for (const auto& gate : node.module->ogates()) {
      if (gate != nullptr) {
        result.push_back(
            {gate->module(), gate->index(), gate->next()->module(), gate->next()->index()});
      }
    }
  }
  return result;
}

CommandResponse ModuleGraph::addHook(const std::string& hook,
                                     const GateRef& where,
                                     const std::string& arg) {
  const Module* module = findModule(where.module);
  if (module == nullptr) {
    return noModule(where.module);
  }
  Gate* gate = findGate(module, where);
  if (gate == nullptr) {
    return notConnected(where.module, directionOf(where), where.gate);
  }
  if (gate->findHook(hook) != nullptr) {
    return CommandFailure(EEXIST, "%s gate %u of module '%s' has a hook '%s'", directionOf(where),
                          where.gate, where.module.c_str(), hook.c_str());
  }
  return guarded([&] {
    std::unique_ptr<GateHook> made = GateHookRegistry::create(hook, arg);
    if (made == nullptr) {
      return CommandFailure(ENOENT, "no gate hook '%s'", hook.c_str());
    }
    made->arg_ = arg;
    ScopedWorkerPause pause;
    gate->addHook(std::move(made));
    return CommandSuccess();
  });
}

CommandResponse ModuleGraph::removeHook(const std::string& hook, const GateRef& where) {
  const Module* module = findModule(where.module);
  if (module == nullptr) {
    return noModule(where.module);
  }
  Gate* gate = findGate(module, where);
  if (gate == nullptr) {
    return notConnected(where.module, directionOf(where), where.gate);
  }
  if (gate->findHook(hook) == nullptr) {
    return CommandFailure(ENOENT, "%s gate %u of module '%s' has no hook '%s'", directionOf(where),
                          where.gate, where.module.c_str(), hook.c_str());
  }
  std::unique_ptr<GateHook> removed;
  {
    ScopedWorkerPause pause;
    removed = gate->removeHook(hook);
  }
  return CommandSuccess();
}

std::vector<ModuleGraph::HookRef> ModuleGraph::hooks() {
  std::vector<HookRef> result;
  const auto add = [&result](const Gate* gate, bool output) {
    if (gate != nullptr) {
      for (const auto& hook : gate->hooks()) {
        result.push_back({hook.get(), {gate->module()->name(), output, gate->index()}});
      }
    }
  };
  for (const auto& [name, node] : nodes()) {
    for (const auto& gate : node.module->igates()) {
      add(gate.get(), false);
    }
    for (const auto& gate : node.module->ogates()) {
      add(gate.get(), true);
    }
  }
  return result;
}

CommandResponse ModuleGraph::attachTask(const std::string& module,
                                        unsigned taskId,
                                        int wid,
                                        uint64_t ratePerSecond) {
  const Module* owner = findModule(module);
  if (owner == nullptr) {
    return noModule(module);
  }
  Task* task = findTask(owner, taskId);
  if (task == nullptr) {
    return CommandFailure(ENOENT, "module '%s' has no task %u", module.c_str(), taskId);
  }
  if (!isWorkerRunning(wid)) {
    return CommandFailure(ENOENT, "worker %d does not run", wid);
  }
  const int oldWid = task->worker();
  const uint64_t oldRate = task->ratePerSecond();
  ScopedWorkerPause pause;
  ::detachTask(task);
  ::attachTask(task, wid, ratePerSecond);
  if (const std::string text = checkConstraints(); !text.empty()) {
    ::detachTask(task);
    if (oldWid >= 0) {
      ::attachTask(task, oldWid, oldRate);
    }
    checkConstraints();
    return CommandFailure(EINVAL, "%s", text.c_str());
  }
  return CommandSuccess();
}

CommandResponse ModuleGraph::detachTask(const std::string& module, unsigned taskId) {
  const Module* owner = findModule(module);
  if (owner == nullptr) {
    return noModule(module);
  }
  Task* task = findTask(owner, taskId);
  if (task == nullptr) {
    return CommandFailure(ENOENT, "module '%s' has no task %u", module.c_str(), taskId);
  }
  if (task->worker() < 0) {
    return CommandFailure(ENOENT, "task %u of module '%s' is attached to no worker", taskId,
                          module.c_str());
  }
  ScopedWorkerPause pause;
  ::detachTask(task);
  checkConstraints();
  return CommandSuccess();
}

CommandResponse ModuleGraph::runCommand(const std::string& module,
                                        const std::string& command,
                                        const google::protobuf::Any& arg) {
  Module* target = findModule(module);
  if (target == nullptr) {
    return noModule(module);
  }
  const GenericCommand* found = target->moduleBuilder()->command(command);
  if (found == nullptr) {
    return CommandFailure(ENOENT, "module '%s' (class %s) has no command '%s'", module.c_str(),
                          target->moduleBuilder()->className().c_str(), command.c_str());
  }
  std::optional<ScopedWorkerPause> pause;
  if (found->threadSafe != GenericCommand::kThreadSafe) {
    pause.emplace();
  }
  return guarded([&] { return found->run(target, arg); });
}

void ModuleGraph::sendEvent(bess::Event event) {
  for (const auto& [name, node] : nodes()) {
    Module* module = node.module.get();
    if (!module->wantsEvents_) {
      continue;
    }
    guarded([&] {
      const int result = module->OnEvent(event);
      module->wantsEvents_ = result != -ENOTSUP;
      LOG_IF(WARNING, result != 0 && module->wantsEvents_)
          << module->name() << ": event: " << result;
      return CommandSuccess();
    });
  }
}

std::string ModuleGraph::checkConstraints() {
  for (const auto& [name, node] : nodes()) {
    node.module->active_.fill(false);
  }
  for (const auto& [name, node] : nodes()) {
    for (const auto& task : node.module->tasks()) {
      if (task->worker() < 0) {
        continue;
      }
      for (Module* module : reachableFrom(node.module.get())) {
        module->AddActiveWorker(task->worker(), task.get());
      }
    }
  }
  std::string refusal;
  for (const auto& [name, node] : nodes()) {
    const CheckConstraintResult result = node.module->CheckModuleConstraints();
    if (result == CheckConstraintResult::kOk) {
      continue;
    }
    const std::string text =
        "module '" + name + "' does not accept " + std::to_string(node.module->activeWorkers()) +
        " workers at once (it allows " + std::to_string(node.module->maxAllowedWorkers()) + ")";
    if (result == CheckConstraintResult::kFatal) {
      refusal = text;
    } else {
      LOG(WARNING) << text;
    }
  }
  return refusal;
}
