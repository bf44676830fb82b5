// Text trace: lines that go to the process log when the level of their facility asks for them.
//
// A facility is a name ("Mfib"); a line of level L is written when the facility's level is at least
// L. Facilities start at kDefaultLevel; the environment variable GEMLOG ("Mfib/7,Bess/5") sets
// others at start.
//
// Threads    : any.
// Ownership  : facilities live as long as the process; they keep copies of their names.
// Cost       : Facility::enabled() is one relaxed load. The functions that take a name look it up
// under a lock.
#pragma once

#include <atomic>
#include <string>
#include <string_view>
#include <vector>

namespace Gemlog {

inline constexpr int kDefaultLevel = 3;

class Facility {
 public:
  explicit Facility(std::string_view name, int level) : name_(name), level_(level) {}

  bool enabled(int level) const { return level <= level_.load(std::memory_order_relaxed); }
  int level() const { return level_.load(std::memory_order_relaxed); }
  void levelIs(int level) { level_.store(level, std::memory_order_relaxed); }
  const std::string& name() const { return name_; }

 private:
  const std::string name_;
  std::atomic<int> level_;
};

// The one facility of that name; made on its first mention.
Facility& facility(std::string_view name);

// `name` is the facility's.
void setLevel(std::string_view name, int level);
int level(std::string_view name);
bool enabled(std::string_view name, int level);

// Sets levels from a text as in GEMLOG. Parts that cannot be understood are skipped with a warning.
void setLevels(std::string_view text);

// The place in the code that the log names with a line.
struct Where {
  const char* file;
  int line;
};

// Writes one line to the process log. The caller has asked enabled().
void write(std::string_view text, const Where& where);

// Collects the lines that any thread writes while it lives; they go to the log as well. Several may
// live at once.
class Capture {
 public:
  Capture();
  ~Capture();
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  std::vector<std::string> lines() const;
  // Returns: whether a line contains `text`.
  bool contains(std::string_view text) const;

 private:
  friend void write(std::string_view text, const Where& where);

  std::vector<std::string> lines_;  // guarded by the lock of all captures
};

}  // namespace Gemlog
