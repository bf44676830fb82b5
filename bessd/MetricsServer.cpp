#include "bessd/MetricsServer.h"

#include <glog/logging.h>
#include <prometheus/collectable.h>
#include <prometheus/exposer.h>

#include <chrono>
#include <exception>
#include <stdexcept>
#include <utility>
#include <vector>

namespace Bessd {
namespace {

class Source : public prometheus::Collectable {
 public:
  Source(ControlThread& control, MetricsServer::Gather gather)
      : control_(control), gather_(std::move(gather)) {}

  std::vector<prometheus::MetricFamily> Collect() const override {
    try {
      const auto asked = std::chrono::steady_clock::now();
      return control_.call([this, asked] {
        const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - asked;
        MetricFamilies families;
        gather_(&families);
        families.gauge({"bessd_control_wait_seconds",
                        "How long this scrape waited for what the control thread had to do first"},
                       {}, waited.count());
        return families.take();
      });
    } catch (const std::exception& error) {
      LOG(WARNING) << "a scrape got no metrics: " << error.what();
      return {};
    }
  }

 private:
  ControlThread& control_;
  const MetricsServer::Gather gather_;
};

}  // namespace

MetricsServer::MetricsServer(const std::string& address, ControlThread& control, Gather gather)
    : source_(std::make_shared<Source>(control, std::move(gather))) {
  const std::vector<std::string> options = {
      "listening_ports",    address,
      "num_threads",        std::to_string(kThreads),
      "request_timeout_ms", std::to_string(kRequestSeconds * 1000),
      "enable_keep_alive",  "no"};
  try {
    exposer_ = std::make_unique<prometheus::Exposer>(options);
  } catch (const std::exception&) {
    // The library only says that something is null.
    throw std::runtime_error("cannot listen on " + address +
                             ": is the port in use, or the address not one of this machine?");
  }
  exposer_->RegisterCollectable(source_);
}

MetricsServer::~MetricsServer() = default;

int MetricsServer::port() const {
  const std::vector<int> ports = exposer_->GetListeningPorts();
  return ports.empty() ? 0 : ports.front();
}

}  // namespace Bessd
