#include "Bess/ModuleBuilder.h"

#include <glog/logging.h>

#include <map>
#include <new>
#include <utility>

#include "Bess/Module.h"

namespace {

using Builders = std::map<std::string, std::unique_ptr<ModuleBuilder>>;
Builders& builders() {
  // Never destroyed: libraries deregister at exit.
  static Builders& map = *new Builders;
  return map;
}

std::string& loadingPlugin() {
  static std::string& path = *new std::string;
  return path;
}

}  // namespace

// NOLINTNEXTLINE(readability-function-size): the framework's own signature
bool ModuleBuilder::RegisterModuleClass(Factory factory,
                                        std::string className,
                                        std::string nameTemplate,
                                        std::string help,
                                        gate_idx_t igates,
                                        gate_idx_t ogates,
                                        const Commands& cmds,
                                        ModuleInit init) {
  CHECK(!className.empty());
  CHECK(factory) << className;
  CHECK_LE(igates, kMaxGates) << className;
  CHECK_LE(ogates, kMaxGates) << className;
  std::unique_ptr<ModuleBuilder> builder(new ModuleBuilder);
  builder->factory_ = std::move(factory);
  builder->className_ = std::move(className);
  builder->nameTemplate_ = std::move(nameTemplate);
  builder->help_ = std::move(help);
  builder->igates_ = igates;
  builder->ogates_ = ogates;
  builder->commands_ = cmds;
  builder->init_ = std::move(init);
  builder->plugin_ = loadingPlugin();
  putBack(std::move(builder));
  return true;
}

void ModuleBuilder::putBack(std::unique_ptr<ModuleBuilder> builder) {
  const std::string name = builder->className_;
  CHECK(builders().emplace(name, std::move(builder)).second)
      << "the module class " << name << " is registered twice";
}

bool ModuleBuilder::DeregisterModuleClass(const std::string& className) {
  return builders().erase(className) == 1;
}

const ModuleBuilder* ModuleBuilder::find(const std::string& className) {
  auto it = builders().find(className);
  return it == builders().end() ? nullptr : it->second.get();
}

std::vector<const ModuleBuilder*> ModuleBuilder::all() {
  std::vector<const ModuleBuilder*> result;
  for (const auto& [name, builder] : builders()) {
    result.push_back(builder.get());
  }
  return result;
}

const GenericCommand* ModuleBuilder::command(const std::string& name) const {
  for (const GenericCommand& command : commands_) {
    if (command.name == name) {
      return &command;
    }
  }
  return nullptr;
}

Module* ModuleBuilder::create() const {
  Module* module = factory_();
  if (module == nullptr) {
    throw std::bad_alloc();
  }
  return module;
}

void ModuleBuilder::setLoadingPlugin(const std::string& path) {
  loadingPlugin() = path;
}

std::vector<ModuleBuilder*> ModuleBuilder::ofPlugin(const std::string& path) {
  std::vector<ModuleBuilder*> result;
  for (const auto& [name, builder] : builders()) {
    if (builder->plugin_ == path) {
      result.push_back(builder.get());
    }
  }
  return result;
}

std::unique_ptr<ModuleBuilder> ModuleBuilder::takeOut(const std::string& className) {
  auto node = builders().extract(className);
  return std::move(node.mapped());
}
