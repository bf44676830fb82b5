#include "Base/Flit/Flit.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <deque>
#include <memory>
#include <mutex>
#include <new>

#include "Base/Flit/Clock.h"
#include "Base/Flit/Points.h"
#include "Base/Flit/Ring.h"
#include "Base/Orp/ThreadExit.h"
#include "Base/Orp/ThreadSlot.h"

namespace Flit {
namespace {

// All rings; never destroyed, since threads may trace after main() has ended.
class Rings {
 public:
  static Rings& instance() {
    static auto& rings = *new Rings;
    return rings;
  }

  // Errors: std::bad_alloc.
  Ring* add() {
    auto ring = std::make_unique<Ring>(Orp::tryThreadSlot().value_or(kNoSlot));
    const std::lock_guard lock(mutex_);
    live_.push_back(std::move(ring));
    return live_.back().get();
  }

  // The ring's thread has ended.
  void retire(const Ring* ring) {
    std::unique_ptr<Ring> oldest;
    const std::lock_guard lock(mutex_);
    const auto at = std::ranges::find(live_, ring, &std::unique_ptr<Ring>::get);
    ended_.push_back(std::move(*at));
    live_.erase(at);
    if (ended_.size() > kMaxEndedRings) {
      oldest = std::move(ended_.front());
      ended_.pop_front();
    }
  }

  RawRecords read() const {
    RawRecords raw;
    const std::lock_guard lock(mutex_);
    for (const auto& ring : ended_) {
      ring->read(raw);
    }
    for (const auto& ring : live_) {
      ring->read(raw);
    }
    return raw;
  }

 private:
  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::vector<std::unique_ptr<Ring>> live_;
  std::deque<std::unique_ptr<Ring>> ended_;  // oldest first
};

[[gnu::tls_model("initial-exec")]] constinit thread_local Ring* mine = nullptr;
[[gnu::tls_model("initial-exec")]] constinit thread_local bool ended = false;

void retireMine(void* armed) {
  mine = nullptr;
  ended = true;
  Rings::instance().retire(static_cast<Ring*>(armed));
}

[[gnu::noinline, gnu::cold]] Ring* makeRing() noexcept {
  if (ended) {
    return nullptr;
  }
  static auto& atExit = *new Orp::ThreadExit(retireMine);
  try {
    mine = Rings::instance().add();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  atExit.arm(mine);
  return mine;
}

std::string timeText(uint64_t unixNs) {
  constexpr uint64_t kNsPerSecond = 1'000'000'000;
  const auto seconds = static_cast<time_t>(unixNs / kNsPerSecond);
  std::tm calendar{};
  gmtime_r(&seconds, &calendar);
  std::array<char, 64> text{};
  const size_t used = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &calendar);
  std::snprintf(text.data() + used, text.size() - used, ".%09uZ",
                static_cast<unsigned>(unixNs % kNsPerSecond));
  return text.data();
}

void appendPrintable(std::string& to, std::string_view text) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= ' ' && byte < 0x7f) {
      to += c;
    } else {
      to += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 0xf]};
    }
  }
}

}  // namespace

void append(uint32_t point, const uint64_t* words, unsigned count) noexcept {
  Ring* ring = mine;
  if (ring == nullptr) [[unlikely]] {
    ring = makeRing();
    if (ring == nullptr) {
      return;
    }
  }
  ring->append(ticks(), point, words, count);
}

std::vector<Record> read(int maxLevel) {
  RawRecords raw = Rings::instance().read();
  const TickScale scale(firstMoment(), momentNow());
  // Stable: a thread's records stay in their order when their ticks are equal.
  std::ranges::stable_sort(raw.records, {}, &RawRecord::ticks);

  std::vector<Record> records;
  const std::span<const uint64_t> words(raw.words);
  for (const RawRecord& one : raw.records) {
    const Point* point = Points::instance().find(one.point);
    if (point != nullptr && point->level <= maxLevel) {
      records.push_back({scale.unixNs(one.ticks), one.slot, point->level,
                         point->text(words.subspan(one.firstWord, one.words)), point->signature});
    }
  }
  return records;
}

void print(std::FILE* out, int maxLevel) {
  for (const Record& record : read(maxLevel)) {
    std::string line = timeText(record.timeNs);
    line += record.threadSlot == kNoSlot ? " -" : ' ' + std::to_string(record.threadSlot);
    line += ' ' + std::to_string(record.level) + ' ';
    appendPrintable(line, record.text);
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), out);
  }
}

}  // namespace Flit
