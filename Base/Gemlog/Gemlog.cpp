#include "Base/Gemlog/Gemlog.h"

#include <glog/logging.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

namespace Gemlog {
namespace {

using NamedLevel = std::pair<std::string_view, int>;

// Reads "Mfib/7".
std::optional<NamedLevel> parseOne(std::string_view text) {
  const size_t slash = text.rfind('/');
  if (slash == std::string_view::npos || slash == 0) {
    return std::nullopt;
  }
  const char* end = text.data() + text.size();
  int level = 0;
  const auto [stop, error] = std::from_chars(text.data() + slash + 1, end, level);
  if (error != std::errc() || stop != end) {
    return std::nullopt;
  }
  return NamedLevel(text.substr(0, slash), level);
}

std::vector<NamedLevel> parse(std::string_view text) {
  std::vector<NamedLevel> levels;
  while (!text.empty()) {
    const size_t comma = std::min(text.find(','), text.size());
    const std::string_view part = text.substr(0, comma);
    text.remove_prefix(std::min(comma + 1, text.size()));
    if (const auto one = parseOne(part)) {
      levels.push_back(*one);
    } else {
      LOG(WARNING) << "Text trace levels: \"" << part << "\" is not of the form Facility/level";
    }
  }
  return levels;
}

// Never destroyed: trace statements keep pointers to facilities.
class Facilities {
 public:
  static Facilities& instance() {
    static auto& facilities = *new Facilities;
    return facilities;
  }

  Facility& get(std::string_view name) {
    const std::lock_guard lock(mutex_);
    auto at = byName_.find(name);
    if (at == byName_.end()) {
      at = byName_.emplace(name, std::make_unique<Facility>(name, kDefaultLevel)).first;
    }
    return *at->second;
  }

 private:
  Facilities() {
    const char* levels = std::getenv("GEMLOG");  // NOLINT(concurrency-mt-unsafe): nobody sets it
    for (const auto& [name, level] : parse(levels == nullptr ? "" : levels)) {
      get(name).levelIs(level);
    }
  }

  std::mutex mutex_;
  std::map<std::string, std::unique_ptr<Facility>, std::less<>> byName_;  // guarded by mutex_
};

struct Captures {
  static Captures& instance() {
    static auto& captures = *new Captures;
    return captures;
  }

  std::atomic<size_t> count{0};  // of `alive`, to look without the lock
  std::mutex mutex;
  std::vector<Capture*> alive;  // guarded by mutex, as are the captures' lines
};

}  // namespace

Facility& facility(std::string_view name) {
  return Facilities::instance().get(name);
}

void setLevel(std::string_view name, int level) {
  facility(name).levelIs(level);
}

int level(std::string_view name) {
  return facility(name).level();
}

bool enabled(std::string_view name, int level) {
  return facility(name).enabled(level);
}

void setLevels(std::string_view text) {
  for (const auto& [name, level] : parse(text)) {
    setLevel(name, level);
  }
}

void write(std::string_view text, const Where& where) {
  google::LogMessage(where.file, where.line, google::GLOG_INFO).stream() << text;
  Captures& captures = Captures::instance();
  if (captures.count.load(std::memory_order_acquire) == 0) {
    return;
  }
  const std::lock_guard lock(captures.mutex);
  for (Capture* capture : captures.alive) {
    capture->lines_.emplace_back(text);
  }
}

Capture::Capture() {
  Captures& captures = Captures::instance();
  const std::lock_guard lock(captures.mutex);
  captures.alive.push_back(this);
  captures.count.store(captures.alive.size(), std::memory_order_release);
}

Capture::~Capture() {
  Captures& captures = Captures::instance();
  const std::lock_guard lock(captures.mutex);
  std::erase(captures.alive, this);
  captures.count.store(captures.alive.size(), std::memory_order_release);
}

std::vector<std::string> Capture::lines() const {
  const std::lock_guard lock(Captures::instance().mutex);
  return lines_;
}

bool Capture::contains(std::string_view text) const {
  const std::lock_guard lock(Captures::instance().mutex);
  return std::ranges::any_of(
      lines_, [text](const std::string& line) { return line.find(text) != std::string::npos; });
}

}  // namespace Gemlog
