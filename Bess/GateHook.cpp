#include "Bess/GateHook.h"

#include <glog/logging.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>

namespace {

class NoHandler final : public GateHook {
 public:
  NoHandler() : GateHook("none") {}
};

// The function that a call of hook->ProcessBatch() reaches, from the object's virtual table. In the
// Itanium C++ ABI a pointer to a virtual member holds 1 + the slot's offset in the table.
const void* batchHandlerOf(const GateHook* hook) {
  struct {
    uintptr_t ptr;
    ptrdiff_t adj;
  } member{};
  auto handler = &GateHook::ProcessBatch;
  static_assert(sizeof(handler) == sizeof(member));
  memcpy(&member, &handler, sizeof(member));
  const char* table = nullptr;
  memcpy(&table, static_cast<const void*>(hook), sizeof(table));
  const void* function = nullptr;
  memcpy(&function, table + (member.ptr - 1), sizeof(function));
  return function;
}

using Factories = std::map<std::string, GateHookRegistry::Factory>;
Factories& factories() {
  // Never destroyed: libraries deregister at exit.
  static Factories& map = *new Factories;
  return map;
}

}  // namespace

GateHook::~GateHook() = default;

void GateHook::ProcessBatch(const bess::PacketBatch* /*batch*/) {}

GateHookStats GateHook::stats() const {
  return {};
}

std::string GateHook::state() const {
  return {};
}

bool GateHook::handlesBatches() const {
  static const NoHandler kNoHandler;
  return batchHandlerOf(this) != batchHandlerOf(&kNoHandler);
}

bool GateHookRegistry::registerHook(const std::string& name, Factory factory) {
  CHECK(factories().emplace(name, std::move(factory)).second)
      << "the gate hook " << name << " is registered twice";
  return true;
}

bool GateHookRegistry::deregisterHook(const std::string& name) {
  return factories().erase(name) == 1;
}

std::unique_ptr<GateHook> GateHookRegistry::create(const std::string& name,
                                                   const std::string& arg) {
  auto it = factories().find(name);
  return it == factories().end() ? nullptr : it->second(arg);
}

std::vector<std::string> GateHookRegistry::names() {
  std::vector<std::string> result;
  for (const auto& [name, factory] : factories()) {
    result.push_back(name);
  }
  return result;
}
