// Brings the daemon to the state that a configuration file describes, by its own client:
// `sfectl --socket SOCKET apply FILE` as a child process, so that a file is read in one way only.
//
// Threads    : one at a time; the caller takes SIGCHLD and calls finished() then.
// Ownership  : the destructor ends a child that still runs.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace Bessd {

class Configuration {
 public:
  // `client`: the program to run.
  Configuration(std::string client, std::string socket, std::string file);
  ~Configuration();
  Configuration(const Configuration&) = delete;
  Configuration& operator=(const Configuration&) = delete;

  bool empty() const { return file_.empty(); }
  bool running() const { return child_ > 0; }

  // Requires: not empty, not running. Errors: std::system_error when the program cannot be started.
  void start();
  // Returns: how the child ended: an empty text when the file is applied, else what went wrong.
  // Absent while it runs, and when none was started.
  std::optional<std::string> finished();

  // The client that was installed or built together with this program.
  static std::string ownClient();

 private:
  const std::string client_;
  const std::string socket_;
  const std::string file_;
  pid_t child_ = 0;
};

}  // namespace Bessd
