#include "Base/Flit/Points.h"

#include <glog/logging.h>

#include <optional>
#include <string_view>

#include "Base/Flit/Encode.h"

namespace Flit {
namespace {

// Takes the words of one string off `words`. Returns: nothing when they do not hold one.
std::optional<std::string_view> takeString(std::span<const uint64_t>& words) {
  const uint64_t bytes = words.front();
  if (bytes > (words.size() - 1) * sizeof(uint64_t)) {
    return std::nullopt;
  }
  const std::string_view text(reinterpret_cast<const char*>(words.data() + 1), bytes);
  words = words.subspan(1 + (bytes + sizeof(uint64_t) - 1) / sizeof(uint64_t));
  return text;
}

bool appendValue(std::string& to, ArgKind kind, std::span<const uint64_t>& words) {
  if (words.empty()) {
    return false;
  }
  if (kind == ArgKind::kStr) {
    const auto text = takeString(words);
    to += text.value_or(std::string_view());
    return text.has_value();
  }
  const uint64_t word = words.front();
  words = words.subspan(1);
  if (kind == ArgKind::kI64) {
    appendNumber(to, static_cast<int64_t>(word));
  } else {
    appendNumber(to, kind == ArgKind::kU32 ? uint64_t{static_cast<uint32_t>(word)} : word);
  }
  return true;
}

}  // namespace

std::string Point::text(std::span<const uint64_t> words) const {
  std::string out = signature + ": ";
  for (size_t i = 0; i < labels.size(); ++i) {
    out += labels[i];
    if (i < kinds.size() && !appendValue(out, kinds[i], words)) {
      break;
    }
  }
  return out;
}

Points& Points::instance() {
  static auto& points = *new Points;  // threads may trace after main() has ended
  return points;
}

uint32_t Points::add(const PointInfo& info) {
  CHECK_LE(info.kinds.size(), kMaxArgs) << info.signature;
  CHECK(info.labels.size() == info.kinds.size() || info.labels.size() == info.kinds.size() + 1)
      << info.signature;
  Point point{std::string(info.signature),
              info.level,
              {info.labels.begin(), info.labels.end()},
              {info.kinds.begin(), info.kinds.end()}};
  const std::lock_guard lock(mutex_);
  const auto [at, isNew] = numberOf_.try_emplace(point, 0);
  if (isNew) {
    points_.push_back(std::move(point));
    at->second = static_cast<uint32_t>(points_.size());
  }
  return at->second;
}

const Point* Points::find(uint32_t number) const {
  const std::lock_guard lock(mutex_);
  return number == 0 || number > points_.size() ? nullptr : &points_[number - 1];
}

uint32_t registerPoint(const PointInfo& info) {
  return Points::instance().add(info);
}

}  // namespace Flit
