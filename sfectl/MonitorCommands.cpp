#include <poll.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <optional>
#include <ostream>

#include "Nynet/NamespaceName.h"
#include "Routing/Multicast/Notify/CacheReportListener.h"
#include "sfectl/Commands.h"
#include "sfectl/Errors.h"
#include "sfectl/Notification.h"
#include "sfectl/StopSignals.h"

namespace Sfectl {
namespace {

using Routing::Multicast::Notify::CacheReportListener;
using SteadyClock = std::chrono::steady_clock;

constexpr uint32_t kMaxTimeout = 1'000'000;

struct MonitorWords {
  std::string ns = "default";
  uint64_t count = 0;         // 0: no end
  double timeoutSeconds = 0;  // 0: no end
};

enum class Wake { kReport, kStop, kTimeout };

Wake waitFor(int reportFd, int stopFd, std::optional<SteadyClock::time_point> deadline) {
  for (;;) {
    int timeoutMs = -1;
    if (deadline) {
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(*deadline - SteadyClock::now());
      if (left.count() <= 0) {
        return Wake::kTimeout;
      }
      timeoutMs = static_cast<int>(left.count());
    }
    pollfd fds[] = {{reportFd, POLLIN, 0}, {stopFd, POLLIN, 0}};
    if (poll(fds, 2, timeoutMs) < 0 && errno != EINTR) {
      throw RuntimeError(std::string("cannot wait for notifications: ") + std::strerror(errno));
    }
    if (fds[1].revents != 0) {
      return Wake::kStop;
    }
    if (fds[0].revents != 0) {
      return Wake::kReport;
    }
  }
}

Nynet::NamespaceName namespaceName(const std::string& name) {
  if (name.empty() || name.size() > Nynet::NamespaceName::kMaxBytes) {
    throw UsageError("--namespace: a name has 1 to " +
                     std::to_string(Nynet::NamespaceName::kMaxBytes) + " bytes");
  }
  return Nynet::NamespaceName(name);
}

class Monitor {
 public:
  Monitor(Session& session, const MonitorWords& words)
      : session_(session), words_(words), listener_(namespaceName(words.ns)) {}

  void run() {
    session_.err() << "listening" << std::endl;
    std::optional<SteadyClock::time_point> deadline;
    if (words_.timeoutSeconds > 0) {
      deadline = SteadyClock::now() + std::chrono::duration_cast<SteadyClock::duration>(
                                          std::chrono::duration<double>(words_.timeoutSeconds));
    }
    while (words_.count == 0 || seen_ < words_.count) {
      const Wake wake = waitFor(listener_.fd(), signals_.fd(), deadline);
      if (wake == Wake::kStop) {
        return;
      }
      if (wake == Wake::kTimeout) {
        requireCount();
        return;
      }
      printWaiting();
    }
  }

 private:
  void printWaiting() {
    while (words_.count == 0 || seen_ < words_.count) {
      const auto report = listener_.receive(0);
      reportOverruns();
      if (!report) {
        return;
      }
      ++seen_;
      if (session_.json) {
        session_.print(notificationJson(*report));
      } else {
        session_.out() << notificationText(*report) << std::endl;
      }
      if (!session_.out()) {
        throw RuntimeError("nobody reads the output");
      }
    }
  }

  void reportOverruns() {
    if (listener_.overruns() != overruns_) {
      overruns_ = listener_.overruns();
      session_.err() << "sfectl: notifications were lost, they came faster than they were read"
                     << std::endl;
    }
  }

  void requireCount() const {
    if (seen_ < words_.count) {
      throw RuntimeError(std::to_string(seen_) + " of " + std::to_string(words_.count) +
                         " notifications came in time");
    }
  }

  Session& session_;
  const MonitorWords& words_;
  StopSignals signals_;
  CacheReportListener listener_;
  uint64_t seen_ = 0;
  uint64_t overruns_ = 0;
};

}  // namespace

void addMonitorCommands(CLI::App& app, Session& session) {
  auto words = std::make_shared<MonitorWords>();
  auto* monitor = app.add_subcommand("monitor", "Print notifications as they arrive");
  monitor->add_option("--namespace", words->ns, "Network namespace")->capture_default_str();
  monitor->add_option("--count", words->count, "End after so many")->check(CLI::PositiveNumber);
  monitor->add_option("--timeout", words->timeoutSeconds, "End after so many seconds")
      ->check(CLI::Range(0.001, static_cast<double>(kMaxTimeout)));
  session.bind(monitor, [words](Session& s) { Monitor(s, *words).run(); });
}

}  // namespace Sfectl
