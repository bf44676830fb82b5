#include "bessd/Options.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ostream>
#include <set>
#include <sstream>

#include <CLI/CLI.hpp>

#include "Bess/ControlSocket.h"
#include "Bess/PacketPool.h"
#include "Bess/Types.h"

namespace Bessd {
namespace {

constexpr int kExitUsage = 2;
constexpr uint32_t kMaxCore = 1023;

// What the parser fills and what needs a second look.
struct Raw {
  uint32_t publishMs = 1000;
  std::string eal;
  bool foreground = true;
};

void addControlOptions(CLI::App& app, Options& options) {
  bess::ControlServerOptions& control = options.control;
  app.add_option("--socket", control.socket, "Unix socket of the control service")
      ->capture_default_str();
  app.add_option("--group", control.group, "The members of this group may use it, too");
  auto* readSocket = app.add_option("--read-socket", control.readSocket,
                                    "Second Unix socket, on which calls may only read");
  app.add_option("--read-group", control.readGroup, "The members of this group may use that")
      ->needs(readSocket);
  auto* listen = app.add_option("--listen", control.listen,
                                "Also listen on HOST:PORT; other than loopback needs TLS");
  app.add_option("--tls-cert", control.tls.cert, "Certificate (PEM) for --listen")->needs(listen);
  app.add_option("--tls-key", control.tls.key, "Its private key (PEM)")->needs(listen);
  auto* ca = app.add_option("--tls-ca", control.tls.ca,
                            "Authorities (PEM) that sign the certificates of clients")
                 ->needs(listen);
  app.add_option("--tls-read-only", options.tlsReadOnly,
                 "Certificates with this name may only read; repeated")
      ->needs(ca);
}

void addResourceOptions(CLI::App& app, Options& options, Raw& raw) {
  app.add_option("-w,--workers", options.workers, "Start workers on these cores: 0,1,...")
      ->delimiter(',')
      ->check(CLI::Range(0u, kMaxCore));
  app.add_option("--memory", options.memoryMb, "Memory of the packet library in MB")
      ->check(CLI::Range(64u, 1u << 20))
      ->capture_default_str();
  app.add_flag("--huge", options.hugePages, "Take that memory from huge pages");
  app.add_flag("--pci", options.pci, "Let cards on the PCI bus be ports");
  app.add_option("--packets", options.packets, "Packet buffers of each memory node")
      ->check(CLI::Range(1023u, 1u << 24))
      ->capture_default_str();
  app.add_option("--data-room", options.dataRoom, "Bytes that a packet buffer holds")
      ->check(CLI::Range(256u, bess::PacketPool::kMaxDataRoom))
      ->capture_default_str();
  app.add_option("--eal", raw.eal, "More words for the packet library, separated by spaces");
  app.add_flag("--spin", options.spin, "Idle workers poll without ever sleeping");
}

void addRunOptions(CLI::App& app, Options& options, Raw& raw) {
  app.add_option("--config", options.config,
                 "Apply this file at start, and again on SIGHUP, by 'sfectl apply'");
  app.add_option("--plugin-dir", options.pluginDirectory, "Where plug-ins named without / are")
      ->capture_default_str();
  app.add_option("--plugin", options.plugins, "Load this plug-in at start; repeated");
  app.add_option("--toggles", options.toggles, "Directory of feature toggles");
  app.add_option("--publish-period", raw.publishMs, "Milliseconds between counter publications")
      ->check(CLI::Range(1u, Options::kMaxPublishMs))
      ->capture_default_str();
  app.add_option("--log-level", options.logLevel, "0 information, 1 warnings, 2 errors")
      ->check(CLI::Range(0, 2))
      ->capture_default_str();
  app.add_flag("--foreground", raw.foreground, "Stay in the foreground (always so)");
  app.set_version_flag("--version", "bessd " SFE_VERSION);
}

constexpr const char* kMetricsAddress = "127.0.0.1:9394";
constexpr uint32_t kMaxMetricsRoutes = 100'000;

void addMetricsOptions(CLI::App& app, Options& options) {
  auto* metrics = app.add_option_function<std::string>(
      "--metrics",
      [&options](const std::string& address) {
        options.metrics = address.empty() ? kMetricsAddress : address;
      },
      std::string("Serve metrics for Prometheus on HOST:PORT, under /metrics; without it on ") +
          kMetricsAddress);
  metrics->expected(0, 1);
  app.add_option("--metrics-routes", options.metricsRoutes,
                 "Also metrics of single routes, at most so many of each module")
      ->check(CLI::Range(1u, kMaxMetricsRoutes))
      ->needs(metrics);
}

void finishControl(bess::ControlServerOptions& control) {
  constexpr std::string_view kScheme = "unix:";
  for (std::string* path : {&control.socket, &control.readSocket}) {
    if (path->starts_with(kScheme)) {
      path->erase(0, kScheme.size());
    }
  }
  if (control.socket == control.readSocket) {
    throw CLI::ValidationError("--read-socket", "is the path of --socket, too");
  }
  if (control.tls.any() && !control.tls.complete()) {
    throw CLI::ValidationError("--listen", "TLS takes --tls-cert, --tls-key and --tls-ca together");
  }
  if (!control.listen.empty()) {
    try {
      bess::listenAddress(control.listen, control.tls.any());
    } catch (const bess::ControlSocketError& error) {
      throw CLI::ValidationError("--listen", error.what());
    }
  }
}

void finish(Options& options, const Raw& raw) {
  options.publishPeriod = std::chrono::milliseconds(raw.publishMs);
  std::istringstream words(raw.eal);
  for (std::string word; words >> word;) {
    options.eal.push_back(word);
  }
  finishControl(options.control);
  if (!options.config.empty() && access(options.config.c_str(), R_OK) != 0) {
    throw CLI::ValidationError("--config", options.config + ": " + std::strerror(errno));
  }
  if (!options.metrics.empty()) {
    try {
      // Anybody may read them: an address that others reach is the operator's choice.
      options.metrics = bess::listenAddress(options.metrics, true);
    } catch (const bess::ControlSocketError& error) {
      throw CLI::ValidationError("--metrics", error.what());
    }
  }
  if (options.workers.size() > static_cast<size_t>(kMaxWorkers)) {
    throw CLI::ValidationError("--workers", "at most " + std::to_string(kMaxWorkers) + " workers");
  }
  if (std::set<uint32_t>(options.workers.begin(), options.workers.end()).size() !=
      options.workers.size()) {
    throw CLI::ValidationError("--workers", "a core appears twice");
  }
}

}  // namespace

ParseResult parseOptions(const std::vector<std::string>& arguments,
                         std::ostream& out,
                         std::ostream& err) {
  CLI::App app("Packet forwarding daemon. Stops cleanly on SIGTERM and SIGINT.", "bessd");
  Options options;
  Raw raw;
  addControlOptions(app, options);
  addResourceOptions(app, options, raw);
  addRunOptions(app, options, raw);
  addMetricsOptions(app, options);
  try {
    // The library takes the words from the back.
    app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
    finish(options, raw);
  } catch (const CLI::ParseError& error) {
    return {std::nullopt, app.exit(error, out, err) == 0 ? 0 : kExitUsage};
  }
  return {std::move(options), 0};
}

}  // namespace Bessd
