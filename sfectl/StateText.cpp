#include "sfectl/StateText.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <utility>

#include "sfectl/Client.h"
#include "sfectl/Errors.h"
#include "sfectl/Report.h"

namespace Sfectl {

StateText::StateText(std::string what, std::vector<char> text)
    : what_(std::move(what)), text_(std::move(text)) {
  const char* at = text_.data();
  const char* const end = at + text_.size();
  for (size_t number = 1; at != end; ++number) {
    const auto* feed = static_cast<const char*>(std::memchr(at, '\n', end - at));
    const char* const lineEnd = feed == nullptr ? end : feed;
    addLine({at, static_cast<size_t>(lineEnd - at)}, number);
    if (number == 1) {
      const size_t lines = std::count(lineEnd, end, '\n');
      fields_.reserve((lines + 1) * columns_.size());
    }
    at = feed == nullptr ? end : feed + 1;
  }
  if (columns_.empty()) {
    refuse("is empty; a first line with the names of its columns is missing");
  }
}

void StateText::addLine(std::string_view line, size_t number) {
  std::vector<std::string_view>& fields = number == 1 ? columns_ : fields_;
  const size_t before = fields.size();
  for (;;) {
    const size_t tab = line.find('\t');
    fields.push_back(line.substr(0, tab));
    if (tab == std::string_view::npos) {
      break;
    }
    line.remove_prefix(tab + 1);
  }
  const size_t added = fields.size() - before;
  if (added != columns_.size()) {
    refuse("has " + std::to_string(added) + " fields in line " + std::to_string(number) + " and " +
           std::to_string(columns_.size()) + " columns");
  }
}

StateText StateText::fetch(Client& client,
                           const std::string& module,
                           const std::string& name,
                           const std::string& arg) {
  const std::string what =
      "state '" + printable(name) + "' of " + (module.empty() ? "the daemon" : printable(module));
  return {what, client.state(module, name, arg)};
}

size_t StateText::column(std::string_view name) const {
  const auto found = std::find(columns_.begin(), columns_.end(), name);
  if (found == columns_.end()) {
    refuse("has no column '" + std::string(name) + "'; this program and the daemon do not fit");
  }
  return found - columns_.begin();
}

uint64_t StateText::number(Row row, size_t column) const {
  const std::string_view field = row[column];
  uint64_t value = 0;
  const auto [end, error] = std::from_chars(field.begin(), field.end(), value, 10);
  if (!field.empty() && (error != std::errc() || end != field.end())) {
    refuse("has '" + printable(field) + "' in column '" + std::string(columns_[column]) +
           "', where a number belongs");
  }
  return value;
}

void StateText::refuse(const std::string& why) const {
  throw RuntimeError(what_ + " " + why);
}

}  // namespace Sfectl
