// The daemon's command line.
#pragma once

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "Bess/ControlServer.h"

namespace Bessd {

struct Options {
  bess::ControlServerOptions control{.socket = "/run/sfe/bessd.sock",
                                     .group = "",
                                     .readSocket = "",
                                     .readGroup = "",
                                     .listen = "",
                                     .tls = {}};
  std::vector<std::string> tlsReadOnly;  // certificate names that may only read
  std::string config;                    // file that sfectl applies at the start; empty: none
  std::vector<uint32_t> workers;         // core of worker 0, 1, ...
  uint32_t memoryMb = 1024;
  bool hugePages = false;
  bool pci = false;
  uint32_t packets = 16384;  // of each memory node
  uint32_t dataRoom = 2048;  // bytes behind the headroom
  std::string pluginDirectory = SFE_PLUGIN_DIRECTORY;
  std::vector<std::string> plugins;  // paths, or names in the directory
  std::vector<std::string> eal;      // further words for the packet library
  std::string toggles;               // directory; empty: the default
  std::string metrics;               // HOST:PORT of the metrics; empty: none
  uint32_t metricsRoutes = 0;        // at most so many series of single routes of each module
  static constexpr uint32_t kMaxPublishMs = 3'600'000;
  std::chrono::milliseconds publishPeriod{1000};
  bool spin = false;
  int logLevel = 0;  // 0 information, 1 warnings, 2 errors
};

struct ParseResult {
  std::optional<Options> options;  // absent: nothing to run
  int exitCode = 0;                // then 0 (help, version) or 2 (wrong command line)
};

// Requires: `arguments` without the program's own name. Help goes to `out`, complaints to `err`.
ParseResult parseOptions(const std::vector<std::string>& arguments,
                         std::ostream& out,
                         std::ostream& err);

}  // namespace Bessd
