#include "sfectl/Report.h"

#include <algorithm>
#include <ostream>
#include <utility>

namespace Sfectl {
namespace {

std::string cellText(const Json& value) {
  if (value.is_null()) {
    return "-";
  }
  if (value.is_string()) {
    const std::string text = printable(value.get_ref<const std::string&>());
    return text.empty() ? "-" : text;
  }
  if (value.is_boolean()) {
    return value.get<bool>() ? "yes" : "no";
  }
  return dumpJson(value);
}

void printPadded(std::ostream& out, const std::string& text, size_t width, bool right, bool last) {
  const std::string padding(width > text.size() ? width - text.size() : 0, ' ');
  if (right) {
    out << padding << text;
  } else {
    out << text;
    if (!last) {
      out << padding;
    }
  }
  out << (last ? "\n" : "  ");
}

}  // namespace

Report::Report(std::initializer_list<Column> columns) : columns_(columns) {}

void Report::add(std::vector<Json> values) {
  values.resize(columns_.size());
  rows_.push_back(std::move(values));
}

void Report::printText(std::ostream& out) const {
  if (rows_.empty()) {
    return;
  }
  const size_t count = columns_.size();
  std::vector<size_t> widths(count);
  std::vector<bool> right(count, true);
  std::vector<std::vector<std::string>> texts;
  for (size_t c = 0; c < count; ++c) {
    widths[c] = columns_[c].title.size();
  }
  for (const auto& row : rows_) {
    auto& line = texts.emplace_back();
    for (size_t c = 0; c < count; ++c) {
      line.push_back(cellText(row[c]));
      widths[c] = std::max(widths[c], line.back().size());
      right[c] = right[c] && (row[c].is_number() || row[c].is_null());
    }
  }
  for (size_t c = 0; c < count; ++c) {
    printPadded(out, columns_[c].title, widths[c], right[c], c + 1 == count);
  }
  for (const auto& line : texts) {
    for (size_t c = 0; c < count; ++c) {
      printPadded(out, line[c], widths[c], right[c], c + 1 == count);
    }
  }
}

Json Report::toJson() const {
  Json result = Json::array();
  for (const auto& row : rows_) {
    Json object = Json::object();
    for (size_t c = 0; c < columns_.size(); ++c) {
      if (!row[c].is_null()) {
        object[columns_[c].key] = row[c];
      }
    }
    result.push_back(std::move(object));
  }
  return result;
}

std::string printable(std::string_view text) {
  std::string result(text);
  std::replace_if(
      result.begin(), result.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
  return result;
}

std::string dumpJson(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace Sfectl
