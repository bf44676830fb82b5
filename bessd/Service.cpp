#include "bessd/Service.h"

#include <glog/logging.h>

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <stdexcept>
#include <utility>

namespace Bessd {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::hours kForever{1};
// Shares of the watchdog time: messages come twice in it, and a worker that stands still for
// longer than a quarter misses its message.
constexpr int kMessages = 2;
constexpr int kPatience = 4;

std::string count(size_t number, const std::string& what) {
  return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

std::string summary(const std::vector<WorkerStatus>& workers) {
  size_t tasks = 0;
  bool paused = false;
  for (const WorkerStatus& worker : workers) {
    tasks += worker.tasks;
    paused = paused || !worker.running;
  }
  return count(workers.size(), "worker") + (paused ? " (paused), " : ", ") + count(tasks, "task");
}

}  // namespace

Service::Service(const Options& options, const sigset_t& signals, Look look)
    : signals_(signals),
      look_(std::move(look)),
      watchdogTime_(ServiceManager::watchdogTime()),
      configuration_(Configuration::ownClient(), options.control.socket, options.config),
      watchdog_(watchdogTime_.value_or(kForever) / kPatience) {}

void Service::run(const Post& post) {
  nextProbe_ = steady_clock::now();
  configure();
  while (true) {
    switch (nextSignal(post)) {
      case SIGTERM:
      case SIGINT:
        LOG(INFO) << "stopping";
        manager_.stopping();
        return;
      case SIGHUP:
        reload();
        break;
      case SIGCHLD:
        if (const auto complaint = configuration_.finished()) {
          configured(*complaint);
        }
        break;
      default:
        break;
    }
  }
}

// Waits for a signal, and feeds the watchdog meanwhile.
int Service::nextSignal(const Post& post) {
  while (true) {
    if (watchdogTime_ && steady_clock::now() >= nextProbe_) {
      probe(post);
    }
    const auto wait = watchdogTime_ ? nextProbe_ - steady_clock::now() : kForever;
    const auto ns = std::max<int64_t>(0, std::chrono::nanoseconds(wait).count());
    const timespec limit = {.tv_sec = ns / 1'000'000'000, .tv_nsec = ns % 1'000'000'000};
    if (const int number = sigtimedwait(&signals_, nullptr, &limit); number > 0) {
      return number;
    }
  }
}

void Service::configure() {
  if (configuration_.empty()) {
    becomeReady();
  } else {
    configuration_.start();
  }
}

void Service::reload() {
  LOG(INFO) << "reloading";
  if (configuration_.running()) {
    again_ = true;
    return;
  }
  manager_.reloading();
  try {
    configure();
  } catch (const std::exception& error) {
    configured(error.what());
  }
}

void Service::configured(const std::string& complaint) {
  if (!ready_ && !complaint.empty()) {
    throw std::runtime_error(complaint);
  }
  LOG_IF(ERROR, !complaint.empty()) << complaint;
  complaint_ = complaint;
  becomeReady();
  if (std::exchange(again_, false)) {
    reload();
  }
}

void Service::becomeReady() {
  manager_.ready(complaint_.empty() ? "ready" : complaint_);
  if (!std::exchange(ready_, true)) {
    std::cout << "bessd ready" << std::endl;
  }
}

void Service::probe(const Post& post) {
  nextProbe_ = steady_clock::now() + *watchdogTime_ / kMessages;
  if (probing_.exchange(true)) {
    const std::string stuck = "the control thread does not answer";
    LOG(ERROR) << stuck;
    manager_.status(stuck);
    return;
  }
  post([this, complaint = complaint_] {
    lookAtWorkers(complaint);
    probing_ = false;
  });
}

void Service::lookAtWorkers(const std::string& complaint) {
  const std::vector<WorkerStatus> workers = look_();
  const std::string stuck = watchdog_.check(workers);
  if (stuck.empty()) {
    manager_.alive(complaint.empty() ? summary(workers) : complaint);
  } else {
    LOG(ERROR) << stuck;
    manager_.status(stuck);
  }
}

}  // namespace Bessd
