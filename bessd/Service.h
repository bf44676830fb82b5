// The life of the running daemon between its start and its stop: signals, the configuration file,
// and what the service manager is told.
//
// SIGTERM and SIGINT stop, SIGHUP applies the configuration file again. While the service manager
// watches, it is told twice in its watchdog time that the daemon is alive; the message comes from
// the control thread, after a look at the workers, so that a control thread or a worker that is
// stuck lets the watchdog fire.
//
// Threads    : the main thread; the look at the workers runs on the control thread.
// Ownership  : refers to the daemon, which ends before it: its control thread runs what is queued.
#pragma once

#include <signal.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "bessd/Configuration.h"
#include "bessd/Options.h"
#include "bessd/ServiceManager.h"
#include "bessd/Watchdog.h"

namespace Bessd {

class Service {
 public:
  // Runs a closure on the control thread, later.
  using Post = std::function<void(std::function<void()>)>;
  using Look = std::function<std::vector<WorkerStatus>()>;  // called on the control thread

  // `signals`: blocked in every thread; SIGTERM, SIGINT, SIGHUP and SIGCHLD.
  Service(const Options& options, const sigset_t& signals, Look look = workerStatus);

  // Returns on SIGTERM or SIGINT. Errors: std::runtime_error when the configuration file of the
  // start cannot be applied; a later one that cannot be applied is logged and changes nothing.
  void run(const Post& post);

 private:
  using Time = std::chrono::steady_clock::time_point;

  int nextSignal(const Post& post);
  void configure();
  void reload();
  void configured(const std::string& complaint);
  void becomeReady();
  void probe(const Post& post);
  void lookAtWorkers(const std::string& complaint);

  const sigset_t signals_;
  const Look look_;
  const std::optional<std::chrono::microseconds> watchdogTime_;
  ServiceManager manager_;
  Configuration configuration_;
  bool ready_ = false;
  std::string complaint_;  // why the file could not be applied at the last time
  bool again_ = false;     // SIGHUP came while the file was being applied
  Time nextProbe_;
  std::atomic<bool> probing_{false};  // the control thread has not answered yet
  Watchdog watchdog_;                 // the control thread's, from the first probe on
};

}  // namespace Bessd
