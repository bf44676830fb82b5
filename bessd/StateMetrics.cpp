#include "bessd/StateMetrics.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <optional>
#include <utility>
#include <vector>

namespace Bessd {
namespace {

constexpr std::array<std::string_view, 5> kColumns = {"type", "name", "help", "labels", "value"};

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  while (true) {
    const size_t end = text.find(separator);
    parts.push_back(text.substr(0, end));
    if (end == std::string_view::npos) {
      return parts;
    }
    text.remove_prefix(end + 1);
  }
}

// Takes a value off the front of `text`: quoted, with \ before what it stands for itself, or up to
// the next comma.
std::optional<std::string> takeValue(std::string_view* text) {
  std::string value;
  if (!text->starts_with('"')) {
    value = text->substr(0, text->find(','));
    text->remove_prefix(value.size());
    return value;
  }
  for (size_t i = 1; i < text->size(); ++i) {
    if ((*text)[i] == '"') {
      text->remove_prefix(i + 1);
      return value;
    }
    if ((*text)[i] == '\\' && ++i == text->size()) {
      break;
    }
    value += (*text)[i];
  }
  return std::nullopt;  // no end
}

std::optional<MetricFamilies::Labels> parseLabels(std::string_view text) {
  MetricFamilies::Labels labels;
  while (!text.empty()) {
    const size_t equals = text.find('=');
    if (equals == std::string_view::npos) {
      return std::nullopt;
    }
    std::string name(text.substr(0, equals));
    text.remove_prefix(equals + 1);
    auto value = takeValue(&text);
    if (!value || (!text.empty() && text.front() != ',')) {
      return std::nullopt;
    }
    text.remove_prefix(text.empty() ? 0 : 1);
    labels.emplace_back(std::move(name), std::move(*value));
  }
  return labels;
}

std::optional<double> parseValue(std::string_view text) {
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size() ||
      !std::isfinite(value)) {
    return std::nullopt;
  }
  return value;
}

using Places = std::array<size_t, kColumns.size()>;

std::optional<Places> findColumns(const std::vector<std::string_view>& header) {
  Places places{};
  for (size_t i = 0; i < kColumns.size(); ++i) {
    const auto found = std::find(header.begin(), header.end(), kColumns[i]);
    if (found == header.end()) {
      return std::nullopt;
    }
    places[i] = static_cast<size_t>(found - header.begin());
  }
  return places;
}

bool addLine(const std::string& module,
             const std::vector<std::string_view>& fields,
             const Places& places,
             MetricFamilies* families) {
  if (fields.size() <= *std::max_element(places.begin(), places.end())) {
    return false;
  }
  auto labels = parseLabels(fields[places[3]]);
  const auto value = parseValue(fields[places[4]]);
  if (!labels || !value) {
    return false;
  }
  labels->emplace_back("module", module);
  const MetricFamilies::Family family{.name = fields[places[1]], .help = fields[places[2]]};
  if (fields[places[0]] == "counter") {
    return *value >= 0 && families->counter(family, *labels, *value);
  }
  return fields[places[0]] == "gauge" && families->gauge(family, *labels, *value);
}

}  // namespace

StateMetricsResult addStateMetrics(const std::string& module,
                                   std::string_view table,
                                   MetricFamilies* families) {
  StateMetricsResult result;
  const auto refuse = [&result](std::string_view line) {
    if (result.refused++ == 0) {
      result.firstRefused = printableUtf8(line.substr(0, 200));
    }
  };
  const auto lines = split(table, '\n');
  const auto places = findColumns(split(lines.front(), '\t'));
  if (!places) {
    refuse(lines.front());
    return result;
  }
  for (size_t i = 1; i < lines.size(); ++i) {
    if (lines[i].empty()) {
      continue;  // after the last line feed
    }
    if (addLine(module, split(lines[i], '\t'), *places, families)) {
      result.taken++;
    } else {
      refuse(lines[i]);
    }
  }
  return result;
}

}  // namespace Bessd
