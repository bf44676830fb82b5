#include "bench/Report.h"

#include <algorithm>
#include <stdexcept>

namespace bench {

double Samples::median() const {
  std::vector<double> sorted = values_;
  std::sort(sorted.begin(), sorted.end());
  const size_t middle = sorted.size() / 2;
  return sorted.size() % 2 == 1 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2;
}

double Samples::min() const {
  return *std::min_element(values_.begin(), values_.end());
}
double Samples::max() const {
  return *std::max_element(values_.begin(), values_.end());
}

Samples Samples::times(double factor) const {
  Samples scaled;
  for (const double value : values_) {
    scaled.add(value * factor);
  }
  return scaled;
}

namespace {

std::string shortNumber(double value) {
  char text[32];
  std::snprintf(text, sizeof(text), "%g", value);
  return text;
}

}  // namespace

Mark atMost(const std::string& what, double value, double limit) {
  return {.text = "<= " + shortNumber(limit) + " " + what, .value = value, .limit = limit};
}

Mark atLeast(const std::string& what, double value, double limit) {
  return {.text = ">= " + shortNumber(limit) + " " + what,
          .value = value,
          .limit = limit,
          .atMost = false};
}

double Row::number(const std::string& field) const {
  for (const auto& [key, value] : numbers) {
    if (key == field) {
      return value;
    }
  }
  return 0;
}

void printTable(std::FILE* out, const std::vector<Row>& rows) {
  size_t width = 0;
  for (const Row& row : rows) {
    width = std::max(width, row.name.size());
  }
  std::fprintf(out, "%-*s %12s %25s %-10s %9s %6s  %s\n", static_cast<int>(width), "", "median",
               "min .. max", "", "floor", "ratio", "mark");
  for (const Row& row : rows) {
    std::fprintf(out, "%-*s %12.1f %12.1f ..%10.1f %-10s", static_cast<int>(width),
                 row.name.c_str(), row.samples.median(), row.samples.min(), row.samples.max(),
                 row.unit.c_str());
    if (const double ratio = row.number("ratio"); ratio > 0) {
      std::fprintf(out, " %9.1f %6.2f", row.number("floor"), ratio);
    } else {
      std::fprintf(out, " %9s %6s", "", "");
    }
    if (row.mark) {
      std::fprintf(out, "  %s: %.2f, %s", row.mark->text.c_str(), row.mark->value,
                   row.mark->reached() ? "reached" : "MISSED");
    }
    std::fprintf(out, "\n");
  }
}

void printJson(std::FILE* out, const std::vector<Row>& rows) {
  std::fprintf(out, "[");
  for (const Row& row : rows) {
    std::fprintf(out,
                 "%s\n  {\"name\": \"%s\", \"unit\": \"%s\", \"median\": %.4f, \"min\": %.4f, "
                 "\"max\": %.4f, \"runs\": %zu",
                 &row == rows.data() ? "" : ",", row.name.c_str(), row.unit.c_str(),
                 row.samples.median(), row.samples.min(), row.samples.max(), row.samples.count());
    if (row.mark) {
      std::fprintf(out, ", \"mark\": \"%s\", \"mark_value\": %.4f, \"reached\": %s",
                   row.mark->text.c_str(), row.mark->value, row.mark->reached() ? "true" : "false");
    } else {
      std::fprintf(out, ", \"mark\": null");
    }
    for (const auto& [name, value] : row.numbers) {
      std::fprintf(out, ", \"%s\": %.4f", name.c_str(), value);
    }
    for (const auto& [name, value] : row.words) {
      std::fprintf(out, ", \"%s\": \"%s\"", name.c_str(), value.c_str());
    }
    std::fprintf(out, "}");
  }
  std::fprintf(out, "\n]\n");
}

void report(const std::vector<Row>& rows, const std::string& jsonFile) {
  printTable(stdout, rows);
  if (jsonFile.empty()) {
    return;
  }
  std::FILE* file = std::fopen(jsonFile.c_str(), "w");
  if (file == nullptr) {
    throw std::runtime_error("cannot write " + jsonFile);
  }
  printJson(file, rows);
  if (std::fclose(file) != 0) {
    throw std::runtime_error("cannot write " + jsonFile);
  }
}

}  // namespace bench
