#include "bessd/MetricFamilies.h"

#include <algorithm>
#include <array>

namespace Bessd {
namespace {

bool isNameByte(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

bool isMetricName(std::string_view name) {
  return !name.empty() && !(name[0] >= '0' && name[0] <= '9') &&
         std::all_of(name.begin(), name.end(), [](char c) { return isNameByte(c) || c == ':'; });
}

// Names with two leading underscores are the metrics server's own.
bool isLabelName(std::string_view name) {
  return !name.empty() && !(name[0] >= '0' && name[0] <= '9') && !name.starts_with("__") &&
         std::all_of(name.begin(), name.end(), isNameByte);
}

// How many bytes the character at the front of `text` has; 0 when it is none.
size_t characterLength(std::string_view text) {
  const auto first = static_cast<unsigned char>(text[0]);
  if (first < 0x80) {
    return first < 0x20 || first == 0x7f ? 0 : 1;
  }
  struct Form {
    unsigned char mask, lead;
    size_t length;
    uint32_t least;
  };
  constexpr std::array<Form, 3> kForms = {
      {{0xe0, 0xc0, 2, 0x80}, {0xf0, 0xe0, 3, 0x800}, {0xf8, 0xf0, 4, 0x10000}}};
  for (const Form& form : kForms) {
    if ((first & form.mask) != form.lead || text.size() < form.length) {
      continue;
    }
    uint32_t value = first & static_cast<unsigned char>(~form.mask);
    for (size_t i = 1; i < form.length; ++i) {
      const auto next = static_cast<unsigned char>(text[i]);
      if ((next & 0xc0) != 0x80) {
        return 0;
      }
      value = (value << 6) | (next & 0x3f);
    }
    const bool surrogate = value >= 0xd800 && value <= 0xdfff;
    return value >= form.least && value <= 0x10ffff && !surrogate ? form.length : 0;
  }
  return 0;
}

}  // namespace

std::string printableUtf8(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) {
    const size_t length = characterLength(text);
    result += length == 0 ? "?" : text.substr(0, length);
    text.remove_prefix(std::max<size_t>(length, 1));
  }
  return result;
}

prometheus::ClientMetric* MetricFamilies::place(const Family& family,
                                                Type type,
                                                const Labels& labels) {
  if (!isMetricName(family.name)) {
    return nullptr;
  }
  prometheus::ClientMetric metric;
  for (const auto& [name, value] : labels) {
    if (!isLabelName(name)) {
      return nullptr;
    }
    metric.label.push_back({name, printableUtf8(value)});
  }
  std::sort(metric.label.begin(), metric.label.end());
  std::string key(family.name);
  for (size_t i = 0; i < metric.label.size(); ++i) {
    if (i > 0 && metric.label[i].name == metric.label[i - 1].name) {
      return nullptr;
    }
    key += '\n' + metric.label[i].name + '=' + metric.label[i].value;
  }
  auto& into = families_[std::string(family.name)];
  if (into.name.empty()) {
    into.name = family.name;
    into.help = printableUtf8(family.help);
    into.type = type;
  }
  if (into.type != type || !series_.insert(key).second) {
    return nullptr;
  }
  return &into.metric.emplace_back(std::move(metric));
}

bool MetricFamilies::counter(const Family& family, const Labels& labels, double value) {
  auto* metric = place(family, Type::Counter, labels);
  if (metric != nullptr) {
    metric->counter.value = value;
  }
  return metric != nullptr;
}

bool MetricFamilies::gauge(const Family& family, const Labels& labels, double value) {
  auto* metric = place(family, Type::Gauge, labels);
  if (metric != nullptr) {
    metric->gauge.value = value;
  }
  return metric != nullptr;
}

bool MetricFamilies::histogram(const Family& family,
                               const Labels& labels,
                               const std::vector<std::pair<double, uint64_t>>& buckets,
                               double sum) {
  auto* metric = place(family, Type::Histogram, labels);
  if (metric == nullptr) {
    return false;
  }
  uint64_t count = 0;
  for (const auto& [bound, observations] : buckets) {
    count += observations;
    metric->histogram.bucket.push_back({.cumulative_count = count, .upper_bound = bound});
  }
  metric->histogram.sample_count = count;
  metric->histogram.sample_sum = sum;
  return true;
}

std::vector<prometheus::MetricFamily> MetricFamilies::take() {
  std::vector<prometheus::MetricFamily> result;
  for (auto& [name, family] : families_) {
    if (!family.metric.empty()) {
      result.push_back(std::move(family));
    }
  }
  families_.clear();
  series_.clear();
  return result;
}

}  // namespace Bessd
