// The metrics of one scrape while they are gathered: samples from several sources, merged into
// families.
//
// Threads    : one at a time.
// Errors     : a sample that would make the whole scrape unreadable is refused, and the rest
// stands. Invariants :
//   (1) names and labels are ones that the format allows; texts are valid UTF-8.
//   (2) a family has one type, and no two of its samples have the same labels.
#pragma once

#include <prometheus/metric_family.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Bessd {

class MetricFamilies {
 public:
  using Labels = std::vector<std::pair<std::string, std::string>>;
  using Type = prometheus::MetricType;

  // What a sample belongs to.
  struct Family {
    std::string_view name;
    std::string_view help;
  };

  // Return: whether the sample was taken. The help of a family is the first one given.
  bool counter(const Family& family, const Labels& labels, double value);
  bool gauge(const Family& family, const Labels& labels, double value);
  // `counts[i]` observations were at most `bounds[i]` and more than the bound before it.
  bool histogram(const Family& family,
                 const Labels& labels,
                 const std::vector<std::pair<double, uint64_t>>& buckets,
                 double sum);

  // In the order of their names; empties this object.
  std::vector<prometheus::MetricFamily> take();

 private:
  prometheus::ClientMetric* place(const Family& family, Type type, const Labels& labels);

  std::map<std::string, prometheus::MetricFamily, std::less<>> families_;
  std::set<std::string> series_;
};

// Bytes that are no UTF-8, and control characters, become '?'.
std::string printableUtf8(std::string_view text);

}  // namespace Bessd
