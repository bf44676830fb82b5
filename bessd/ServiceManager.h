// What the daemon tells the service manager that started it (sd_notify(3)): datagrams to the socket
// that $NOTIFY_SOCKET names. Without one every call does nothing.
//
// Threads    : any.
// Errors     : a message that cannot be sent is logged as a warning, once; the daemon goes on.
#pragma once

#include <atomic>
#include <chrono>
#include <optional>
#include <string>

namespace Bessd {

class ServiceManager {
 public:
  void ready(const std::string& status);
  void reloading();
  void stopping();
  void alive(const std::string& status);  // restarts the service manager's watchdog
  // One line, for people.
  void status(const std::string& text);

  // Within which time alive() is expected again; absent when nobody watches.
  static std::optional<std::chrono::microseconds> watchdogTime();

 private:
  void send(const std::string& message);
  std::atomic<bool> warned_{false};
};

}  // namespace Bessd
