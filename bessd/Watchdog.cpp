#include "bessd/Watchdog.h"

#include <utility>

namespace Bessd {

Watchdog::Watchdog(std::chrono::nanoseconds patience, Clock clock)
    : patience_(patience), clock_(std::move(clock)) {}

std::string Watchdog::check(const std::vector<WorkerStatus>& workers) {
  const auto now = clock_();
  std::map<int, Progress> seen;
  std::string stuck;
  for (const WorkerStatus& worker : workers) {
    const Progress fresh{worker.stats.rounds, now};
    const auto before = seen_.find(worker.wid);
    const bool moved = before == seen_.end() || before->second.rounds != worker.stats.rounds;
    if (moved || !worker.running || worker.tasks == 0) {
      seen[worker.wid] = fresh;
      continue;
    }
    seen[worker.wid] = before->second;
    const auto still = now - before->second.since;
    if (still > patience_) {
      const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(still).count();
      stuck += (stuck.empty() ? "worker " : ", worker ") + std::to_string(worker.wid) +
               " has made no progress for " + std::to_string(seconds) + " s";
    }
  }
  seen_ = std::move(seen);
  return stuck;
}

}  // namespace Bessd
