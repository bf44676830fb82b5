// The result of a benchmark run: one row per case, as a table for people and as JSON for programs.
//
// Units      : nanoseconds per operation; medians over the runs, with the smallest and the largest.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace bench {

// The runs of one figure.
class Samples {
 public:
  void add(double value) { values_.push_back(value); }
  double median() const;
  double min() const;
  double max() const;
  size_t count() const { return values_.size(); }

 private:
  std::vector<double> values_;
};

struct Row {
  unsigned frameBytes = 0;
  unsigned fanOut = 0;
  Samples forwardNsPerPacket;
  Samples floorNsPerPacket;  // copying alone, in the same run

  double nsPerCopy() const { return forwardNsPerPacket.median() / fanOut; }
  double floorNsPerCopy() const { return floorNsPerPacket.median() / fanOut; }
  double ratio() const { return forwardNsPerPacket.median() / floorNsPerPacket.median(); }
};

void printTable(std::FILE* out, const std::vector<Row>& rows);
void printJson(std::FILE* out, const std::vector<Row>& rows);

}  // namespace bench
