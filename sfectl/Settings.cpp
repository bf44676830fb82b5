#include "sfectl/Settings.h"

#include <utility>

#include "sfectl/Errors.h"

namespace Sfectl {

Settings::Settings(StateText text)
    : text_(std::move(text)), name_(text_.column("name")), value_(text_.column("value")) {}

Settings Settings::fetch(Client& client, const std::string& module) {
  return Settings(StateText::fetch(client, module, "settings"));
}

uint64_t Settings::number(std::string_view name) const {
  for (size_t i = 0; i < text_.size(); ++i) {
    const auto row = text_.row(i);
    if (row[name_] == name) {
      return text_.number(row, value_);
    }
  }
  throw RuntimeError("the module does not say its '" + std::string(name) +
                     "'; this program and the daemon do not fit");
}

}  // namespace Sfectl
