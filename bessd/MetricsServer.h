// Serves the daemon's metrics over HTTP, in the text format that Prometheus reads, under /metrics.
//
// A scrape is gathered on the control thread while workers forward, then turned into text and sent
// by a thread of the HTTP server: a scraper that is slow holds that thread for at most
// kRequestSeconds, and nothing else. Anybody who reaches the address may read; nothing can be
// changed through it. The HTTP server is the metrics library's own: it binds to the one address
// given, has no documents and no scripts, and answers every other path with 404.
//
// Threads    : construct and destroy on one thread; kThreads threads of its own.
// Errors     : std::runtime_error when the address cannot be listened on.
// Ownership  : refers to the control thread and the source, which outlive it.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "Bess/ControlThread.h"
#include "bessd/MetricFamilies.h"

namespace prometheus {
class Exposer;
class Collectable;
}  // namespace prometheus

namespace Bessd {

class MetricsServer {
 public:
  static constexpr int kThreads = 4;
  static constexpr int kRequestSeconds = 10;

  // `gather` is called on the control thread, once for each scrape.
  using Gather = std::function<void(MetricFamilies* families)>;

  MetricsServer(const std::string& address, ControlThread& control, Gather gather);
  ~MetricsServer();
  MetricsServer(const MetricsServer&) = delete;
  MetricsServer& operator=(const MetricsServer&) = delete;

  int port() const;

 private:
  std::shared_ptr<prometheus::Collectable> source_;
  std::unique_ptr<prometheus::Exposer> exposer_;
};

}  // namespace Bessd
