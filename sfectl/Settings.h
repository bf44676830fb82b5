// What a multicast module is set to: its state "settings", by name.
//
// Errors     : RuntimeError of the daemon, and for a value that is missing or no number.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "sfectl/StateText.h"

namespace Sfectl {

class Settings {
 public:
  explicit Settings(StateText text);
  static Settings fetch(Client& client, const std::string& module);

  uint64_t number(std::string_view name) const;

 private:
  StateText text_;
  size_t name_;
  size_t value_;
};

}  // namespace Sfectl
