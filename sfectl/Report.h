// A table of results that prints itself for people and for programs.
//
// Invariants :
//   (1) text holds no control characters, whatever the daemon answered, and no terminal escapes.
//   (2) numbers stand right-aligned in text and unquoted in JSON.
#pragma once

#include <initializer_list>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace Sfectl {

using Json = nlohmann::ordered_json;

struct Column {
  std::string title;  // of the text table
  std::string key;    // of the JSON object
};

class Report {
 public:
  Report(std::initializer_list<Column> columns);

  // Requires: one value per column; null prints as "-" and is left out of the JSON object.
  void add(std::vector<Json> values);
  bool empty() const { return rows_.empty(); }

  // An empty table prints nothing.
  void printText(std::ostream& out) const;
  Json toJson() const;  // array of objects

 private:
  std::vector<Column> columns_;
  std::vector<std::vector<Json>> rows_;
};

// Control characters become '?'.
std::string printable(std::string_view text);
// One line, invalid UTF-8 replaced.
std::string dumpJson(const Json& value);

}  // namespace Sfectl
