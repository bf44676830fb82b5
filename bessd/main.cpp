// The daemon's program: options, signals, exit codes (0 stopped cleanly, 1 could not start, 2 wrong
// command line).
#include <glog/logging.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "Base/NyToggles/NyToggles.h"
#include "Base/Orp/Ptr.h"
#include "bessd/Daemon.h"
#include "bessd/Options.h"

namespace {

// Blocks the signals that end the daemon, in this thread and in all that it starts.
sigset_t blockStopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
    sigaddset(&signals, number);
  }
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  return signals;
}

void startLogging(const Bessd::Options& options) {
  FLAGS_logtostderr = true;
  FLAGS_minloglevel = options.logLevel;
  google::InitGoogleLogging("bessd");
}

int runDaemon(const Bessd::Options& options, const sigset_t& stopSignals) {
  try {
    const Bessd::Daemon daemon(options, [] { kill(getpid(), SIGTERM); });
    std::cout << "bessd ready" << std::endl;
    int number = 0;
    while (sigwait(&stopSignals, &number) != 0) {
    }
    LOG(INFO) << "stopping";
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
  const sigset_t stopSignals = blockStopSignals();
  startLogging(*parsed.options);
  if (!parsed.options->toggles.empty()) {
    setToggleDirectory(parsed.options->toggles);
  }
  return runDaemon(*parsed.options, stopSignals);
}
