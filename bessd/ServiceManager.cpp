#include "bessd/ServiceManager.h"

#include <glog/logging.h>
#include <systemd/sd-daemon.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace Bessd {
namespace {

// A line break would begin another assignment.
std::string statusLine(const std::string& text) {
  std::string line = text;
  std::replace(line.begin(), line.end(), '\n', ' ');
  return "STATUS=" + line;
}

// The clock that the service manager orders a reload by.
uint64_t monotonicUs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

}  // namespace

void ServiceManager::ready(const std::string& status) {
  send("READY=1\n" + statusLine(status));
}

void ServiceManager::reloading() {
  send("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(monotonicUs()) + "\n" +
       statusLine("reading the configuration again"));
}

void ServiceManager::stopping() {
  send("STOPPING=1\n" + statusLine("stopping"));
}

void ServiceManager::alive(const std::string& status) {
  send("WATCHDOG=1\n" + statusLine(status));
}

void ServiceManager::status(const std::string& text) {
  send(statusLine(text));
}

std::optional<std::chrono::microseconds> ServiceManager::watchdogTime() {
  uint64_t us = 0;
  if (sd_watchdog_enabled(0, &us) <= 0) {
    return std::nullopt;
  }
  return std::chrono::microseconds(us);
}

void ServiceManager::send(const std::string& message) {
  const int result = sd_notify(0, message.c_str());
  if (result < 0 && !warned_.exchange(true)) {
    LOG(WARNING) << "cannot tell the service manager: " << std::strerror(-result);
  }
}

}  // namespace Bessd
