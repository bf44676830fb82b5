// What a module, or the program itself, shows of its inside: named texts that are built on request.
//
// A text is a table. The first line names the columns, each further line is a record. Fields are
// separated by tabs and hold neither tabs nor line feeds; a field that is empty says that there is
// no value. Columns are only ever added, so a reader looks them up by name. StateTable.h builds
// one.
//
// Threads    : a text is built on the control thread, while workers forward.
// Errors     : a builder throws std::system_error: EINVAL for an argument that it does not take.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace bess {

struct State {
  std::string name;
  std::string help;
  std::function<std::string(const std::string& arg)> text;
};

// The state of that name; null when there is none.
const State* findState(const std::vector<State>& states, std::string_view name);
// Their names, for a person: "a, b, c".
std::string stateNames(const std::vector<State>& states);

}  // namespace bess
