// The registry of module classes.
//
// Threads    : registration at load time (static objects) and on the control thread; the rest on
// the
//              control thread.
// Ownership  : the registry owns builders; a builder is gone after its deregistration.
// Errors     : a second class of one name is fatal: two libraries would answer to it.
// Invariants :
//   (1) a builder with instances is never deregistered by an unload (Plugin refuses it).
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Bess/GenericCommand.h"
#include "Bess/Types.h"

class Module;

class ModuleBuilder {
 public:
  using Factory = std::function<Module*()>;

  // Returns: true, so that a static object can be initialised with it. Gate counts are at most
  // kMaxGates. An instance that is created without a name is called nameTemplate0, nameTemplate1,
  // ...
  static bool
  RegisterModuleClass(  // NOLINT(readability-identifier-naming,readability-function-size)
      Factory factory,
      std::string className,
      std::string nameTemplate,
      std::string help,
      gate_idx_t igates,
      gate_idx_t ogates,
      const Commands& cmds,
      ModuleInit init);
  // Returns: false when there is no such class.
  static bool DeregisterModuleClass(const std::string& className);  // NOLINT

  static const ModuleBuilder* find(const std::string& className);  // null when there is none
  static std::vector<const ModuleBuilder*> all();                  // by name

  const std::string& className() const { return className_; }
  const std::string& nameTemplate() const { return nameTemplate_; }
  const std::string& help() const { return help_; }
  gate_idx_t igates() const { return igates_; }
  gate_idx_t ogates() const { return ogates_; }
  const Commands& commands() const { return commands_; }
  const GenericCommand* command(const std::string& name) const;  // null when there is none
  const ModuleInit& init() const { return init_; }
  const std::string& plugin() const { return plugin_; }  // empty: not from a plug-in

  // A new instance. Errors: what the factory throws; std::bad_alloc when it returns null.
  Module* create() const;

 private:
  friend class Plugin;
  ModuleBuilder() = default;

  // What plug-in loading needs: classes that register from now on belong to `path`; finding a
  // plug-in's classes, taking one out of the registry and putting it back.
  static void setLoadingPlugin(const std::string& path);
  static std::vector<ModuleBuilder*> ofPlugin(const std::string& path);
  static std::unique_ptr<ModuleBuilder> takeOut(const std::string& className);
  static void putBack(std::unique_ptr<ModuleBuilder> builder);

  Factory factory_;
  std::string className_;
  std::string nameTemplate_;
  std::string help_;
  gate_idx_t igates_ = 0;
  gate_idx_t ogates_ = 0;
  Commands commands_;
  ModuleInit init_;
  std::string plugin_;
};

// What a class says of itself.
struct ModuleClass {
  std::string name;
  std::string help;
  gate_idx_t igates = 0;
  gate_idx_t ogates = 0;
  Commands commands = {};
  ModuleInit init = {};
  std::string nameTemplate = {};  // empty: the class's name
};

// Registers class M while it lives: a static object beside the class.
//   static ModuleRegistration<Sink> sinkClass({.name = "Sink", .help = "...", .igates = 1});
template <class M>
class ModuleRegistration {
 public:
  explicit ModuleRegistration(const ModuleClass& c) : name_(c.name) {
    ModuleBuilder::RegisterModuleClass([]() -> Module* { return new M; }, c.name,
                                       c.nameTemplate.empty() ? c.name : c.nameTemplate, c.help,
                                       c.igates, c.ogates, c.commands, c.init);
  }
  ~ModuleRegistration() { ModuleBuilder::DeregisterModuleClass(name_); }
  ModuleRegistration(const ModuleRegistration&) = delete;
  ModuleRegistration& operator=(const ModuleRegistration&) = delete;

 private:
  const std::string name_;
};
