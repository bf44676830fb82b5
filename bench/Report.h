// The result of a benchmark run: one row for each figure, as a table for people and as JSON for
// programs.
//
// Units      : a row names its own; medians over the runs, with the smallest and the largest.
#pragma once

#include <cstdio>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace bench {

// The runs of one figure.
class Samples {
 public:
  void add(double value) { values_.push_back(value); }
  // Requires: at least one run.
  double median() const;
  double min() const;
  double max() const;
  double last() const { return values_.back(); }
  size_t count() const { return values_.size(); }
  Samples times(double factor) const;

 private:
  std::vector<double> values_;
};

// What a figure is to be.
struct Mark {
  std::string text;
  double value = 0;  // what is held against the limit; a ratio or a difference of figures
  double limit = 0;
  bool atMost = true;

  bool reached() const { return atMost ? value <= limit : value >= limit; }
};
Mark atMost(const std::string& what, double value, double limit);
Mark atLeast(const std::string& what, double value, double limit);

struct Row {
  std::string name;
  std::string unit;
  Samples samples;
  std::optional<Mark> mark = {};
  std::vector<std::pair<std::string, double>> numbers = {};  // further fields
  std::vector<std::pair<std::string, std::string>> words = {};

  double number(const std::string& field) const;  // 0 when it has none of that name
};

void printTable(std::FILE* out, const std::vector<Row>& rows);
void printJson(std::FILE* out, const std::vector<Row>& rows);

// Both, the second one into a file unless its name is empty.
// Errors: std::runtime_error when the file cannot be written.
void report(const std::vector<Row>& rows, const std::string& jsonFile);

}  // namespace bench
