// The packet graph: module instances, their connections, the hooks on their gates, their tasks.
//
// Threads    : everything on the control thread (or, before there are workers, on the one thread).
// Ownership  : owns every module. Pointers are good until the module is destroyed.
// Errors     : an answer carries errno and text; nothing here throws.
//              ENOENT: no such class, module, command, gate, hook, task, worker; EEXIST: the name
//              is taken; EBUSY: the gate is connected; EINVAL: a bad name, a gate that the class
//              does not have, a constraint of a module; whatever Init or a command reported.
// Pauses     : connect, disconnect, hooks, attach, detach and destroyModule pause the workers while
//              the graph changes. createModule does not: no worker can reach the new instance.
// Invariants :
//   (1) a refused change leaves the graph as it was.
//   (2) no module's DeInit runs while a worker can still reach it.
//   (3) no packet comes back to a module within one task run: connections never close a circle.
#pragma once

#include <google/protobuf/any.pb.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Bess/Gate.h"
#include "Bess/GenericCommand.h"
#include "Bess/Module.h"
#include "Bess/Types.h"
#include "protocol/bess.pb.h"

class ModuleGraph {
 public:
  struct Connection {
    Module* from;
    gate_idx_t ogate;
    Module* to;
    gate_idx_t igate;
  };
  struct GateRef {
    std::string module;
    bool output = true;  // false: an input gate
    unsigned gate = 0;
  };
  struct HookRef {
    const GateHook* hook = nullptr;
    GateRef where;
  };

  // An empty name asks for one from the class's template.
  static bess::pb::CreateModuleResponse createModule(const std::string& className,
                                                     const std::string& name,
                                                     const google::protobuf::Any& arg);
  // Disconnects it, detaches its tasks, DeInit, delete. A DeInit that throws is reported and the
  // module is gone all the same.
  static CommandResponse destroyModule(const std::string& name);
  static void destroyAllModules();

  static Module* findModule(const std::string& name);  // null when there is none
  static std::vector<Module*> modules();               // by name
  // What the module was created with. Requires: the module is of the graph.
  static const google::protobuf::Any& initArg(const Module* module);
  static unsigned instancesOf(const ModuleBuilder* builder);

  static CommandResponse connect(const std::string& m1,
                                 unsigned ogate,
                                 const std::string& m2,
                                 unsigned igate);
  static CommandResponse disconnect(const std::string& module, unsigned ogate);
  static std::vector<Connection> connections();

  // Hooks live on connected gates, one of each name on a gate, and go with the connection.
  static CommandResponse addHook(const std::string& hook,
                                 const GateRef& where,
                                 const std::string& arg);
  static CommandResponse removeHook(const std::string& hook, const GateRef& where);
  static std::vector<HookRef> hooks();

  // Attaching an attached task moves it. Rate: runs per second, 0 = no limit.
  static CommandResponse attachTask(const std::string& module,
                                    unsigned taskId,
                                    int wid,
                                    uint64_t ratePerSecond);
  static CommandResponse detachTask(const std::string& module, unsigned taskId);

  // Runs a command of the module's class. Workers are paused around one that is not thread-safe.
  static CommandResponse runCommand(const std::string& module,
                                    const std::string& command,
                                    const google::protobuf::Any& arg);

  // Sent to every module right before the workers go on.
  static void sendEvent(bess::Event event);

 private:
  // Tells modules again which workers reach them and asks each whether that is fine.
  // Returns: an empty text when it is.
  static std::string checkConstraints();
};
