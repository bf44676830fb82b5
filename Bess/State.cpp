#include "Bess/State.h"

#include <algorithm>
#include <cerrno>
#include <sstream>
#include <system_error>

#include "Bess/StateTable.h"

namespace bess {
namespace {

[[noreturn]] void refuse(const std::string& what) {
  throw std::system_error(EINVAL, std::generic_category(), what);
}

}  // namespace

const State* findState(const std::vector<State>& states, std::string_view name) {
  const auto found = std::find_if(states.begin(), states.end(),
                                  [name](const State& state) { return state.name == name; });
  return found == states.end() ? nullptr : &*found;
}

std::string stateNames(const std::vector<State>& states) {
  std::string names;
  for (const State& state : states) {
    names += (names.empty() ? "" : ", ") + state.name;
  }
  return names;
}

StateArgs::StateArgs(const std::string& arg,
                     size_t words,
                     std::initializer_list<std::string_view> options,
                     const std::string& usage) {
  std::istringstream in(arg);
  for (std::string word; in >> word;) {
    const size_t equals = word.find('=');
    if (equals == std::string::npos) {
      words_.push_back(word);
      continue;
    }
    const std::string name = word.substr(0, equals);
    if (std::find(options.begin(), options.end(), name) == options.end()) {
      refuse("unknown option '" + name + "' (usage: " + usage + ")");
    }
    if (option(name) != nullptr) {
      refuse("option '" + name + "' twice");
    }
    options_.emplace_back(name, word.substr(equals + 1));
  }
  if (words_.size() != words) {
    refuse(std::to_string(words_.size()) + " words where " + std::to_string(words) +
           " belong (usage: " + usage + ")");
  }
}

const std::string* StateArgs::option(std::string_view name) const {
  for (const auto& [key, value] : options_) {
    if (key == name) {
      return &value;
    }
  }
  return nullptr;
}

unsigned long StateArgs::number(std::string_view name,
                                unsigned long absent,
                                unsigned long max) const {
  const std::string* text = option(name);
  if (text == nullptr) {
    return absent;
  }
  unsigned long value = 0;
  const char* end = text->data() + text->size();
  const auto parsed = std::from_chars(text->data(), end, value);
  if (parsed.ec != std::errc() || parsed.ptr != end || value > max) {
    refuse(std::string(name) + "='" + *text + "' is no number of 0.." + std::to_string(max));
  }
  return value;
}

StateTable::StateTable(std::initializer_list<std::string_view> columns, size_t reserve) {
  text_.reserve(reserve);
  for (const std::string_view column : columns) {
    field(column);
  }
  endRow();
}

}  // namespace bess
