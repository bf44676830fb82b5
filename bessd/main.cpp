// The daemon's program: options, signals, exit codes (0 stopped cleanly, 1 could not start, 2 wrong
// command line).
#include <glog/logging.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <functional>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "Base/NyToggles/NyToggles.h"
#include "Base/Orp/Ptr.h"
#include "bessd/Daemon.h"
#include "bessd/Options.h"
#include "bessd/Service.h"

namespace {

// Blocks the signals that the daemon waits for, in this thread and in all that it starts.
sigset_t blockSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) {
    sigaddset(&signals, number);
  }
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  return signals;
}

// As many files as we may have: once they are used up, by connections of clients for example, the
// transport stops to listen for good.
void raiseFileLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

void startLogging(const Bessd::Options& options) {
  FLAGS_logtostderr = true;
  FLAGS_minloglevel = options.logLevel;
  google::InitGoogleLogging("bessd");
}

int runDaemon(const Bessd::Options& options, const sigset_t& signals) {
  try {
    Bessd::Service service(options, signals);
    Bessd::Daemon daemon(options, [] { kill(getpid(), SIGTERM); });
    service.run([&daemon](std::function<void()> fn) { daemon.post(std::move(fn)); });
  } catch (const std::exception& error) {
    std::cerr << "bessd: " << error.what() << std::endl;
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  const auto parsed =
      Bessd::parseOptions(std::vector<std::string>(argv + 1, argv + argc), std::cout, std::cerr);
  if (!parsed.options) {
    return parsed.exitCode;
  }
  // Before there is a second thread.
  Orp::VFPtrInterface::threadSafePointers_ = true;
  const sigset_t signals = blockSignals();
  raiseFileLimit();
  startLogging(*parsed.options);
  if (!parsed.options->toggles.empty()) {
    setToggleDirectory(parsed.options->toggles);
  }
  return runDaemon(*parsed.options, signals);
}
