#include "Bess/Gate.h"

#include <algorithm>

void Gate::addHook(std::unique_ptr<GateHook> hook) {
  auto behind = [](const auto& a, const auto& b) { return a->priority() < b->priority(); };
  auto place = std::upper_bound(hooks_.begin(), hooks_.end(), hook, behind);
  hooks_.insert(place, std::move(hook));
  active_.clear();
  for (const auto& each : hooks_) {
    if (each->handlesBatches()) {
      active_.push_back(each.get());
    }
  }
}

std::unique_ptr<GateHook> Gate::removeHook(std::string_view name) {
  auto it = std::find_if(hooks_.begin(), hooks_.end(),
                         [name](const auto& hook) { return hook->name() == name; });
  if (it == hooks_.end()) {
    return nullptr;
  }
  std::unique_ptr<GateHook> hook = std::move(*it);
  hooks_.erase(it);
  std::erase(active_, hook.get());
  return hook;
}

GateHook* Gate::findHook(std::string_view name) const {
  for (const auto& hook : hooks_) {
    if (hook->name() == name) {
      return hook.get();
    }
  }
  return nullptr;
}
