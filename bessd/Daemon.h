// The running daemon: its construction is the start, its destruction the clean stop.
//
// Start order: packet library, packet pools, control thread, counter publisher, plug-ins, workers,
// control server, metrics server. The stop goes the other way: no more calls, then workers,
// modules, ports and plug-ins go, then what they used.
//
// Threads    : the main thread constructs and destroys it.
// Errors     : the constructor throws std::exception with a text that says what could not be
// started; whatever was
//              started before is stopped again.
// Invariants :
//   (1) after the destructor no module, port or worker is left, and nothing of them in shared
//   memory.
#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "Bess/ControlServer.h"
#include "Bess/ControlService.h"
#include "Bess/ControlThread.h"
#include "bessd/EventCounters.h"
#include "bessd/MetricsServer.h"
#include "bessd/Options.h"

namespace Bessd {

class Daemon {
 public:
  // `shutdown` is called, on the control thread, when a client asks for the end.
  Daemon(const Options& options, std::function<void()> shutdown);
  ~Daemon() = default;
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // Runs `fn` on the control thread, later; it has run when the destructor returns. Any thread.
  void post(std::function<void()> fn) { control_.post(std::move(fn)); }

 private:
  // Each of these starts one thing and stops it when it goes.
  struct Eal {
    explicit Eal(const Options& options);
    ~Eal();
  };
  struct Pools {
    explicit Pools(const Options& options);
    ~Pools();
  };
  struct Publisher {
    explicit Publisher(const Options& options);
    ~Publisher();
  };
  // Everything that clients make.
  struct Graph {
    explicit Graph(ControlThread& thread) : control(thread) {}
    ~Graph();
    ControlThread& control;
  };

  static bess::ControlExtensions extensions(const Options& options,
                                            EventCounters& counters,
                                            std::function<void()> shutdown);
  void loadPlugins(const Options& options);
  void launchWorkers(const Options& options);
  void startMetrics(const Options& options);

  // In the order of the start.
  Eal eal_;
  Pools pools_;
  EventCounters counters_;
  ControlThread control_;
  Publisher publisher_;
  Graph graph_;
  bess::ControlService service_;
  std::unique_ptr<bess::ControlServer> server_;
  std::unique_ptr<MetricsServer> metrics_;
};

}  // namespace Bessd
