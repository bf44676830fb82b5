#include "bench/Report.h"

#include <algorithm>

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

namespace {

constexpr double kNsPerSecond = 1e9;

}  // namespace

void printTable(std::FILE* out, const std::vector<Row>& rows) {
  std::fprintf(out, "%6s %7s %13s %13s %9s %15s %9s %7s\n", "bytes", "fan-out", "packets/s",
               "copies/s", "ns/copy", "min..max", "floor", "ratio");
  for (const Row& row : rows) {
    const double packets = kNsPerSecond / row.forwardNsPerPacket.median();
    std::fprintf(out, "%6u %7u %13.0f %13.0f %9.1f %7.1f..%-6.1f %9.1f %7.2f\n", row.frameBytes,
                 row.fanOut, packets, packets * row.fanOut, row.nsPerCopy(),
                 row.forwardNsPerPacket.min() / row.fanOut,
                 row.forwardNsPerPacket.max() / row.fanOut, row.floorNsPerCopy(), row.ratio());
  }
}

void printJson(std::FILE* out, const std::vector<Row>& rows) {
  std::fprintf(out, "[");
  for (const Row& row : rows) {
    std::fprintf(
        out,
        "%s\n  {\"frame_bytes\": %u, \"fan_out\": %u, \"runs\": %zu, \"ns_per_copy\": %.2f, "
        "\"ns_per_copy_min\": %.2f, \"ns_per_copy_max\": %.2f, \"floor_ns_per_copy\": %.2f, "
        "\"ratio\": %.3f}",
        &row == rows.data() ? "" : ",", row.frameBytes, row.fanOut, row.forwardNsPerPacket.count(),
        row.nsPerCopy(), row.forwardNsPerPacket.min() / row.fanOut,
        row.forwardNsPerPacket.max() / row.fanOut, row.floorNsPerCopy(), row.ratio());
  }
  std::fprintf(out, "\n]\n");
}

}  // namespace bench
