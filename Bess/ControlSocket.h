// Where the control service listens: checks an address, and puts a Unix socket where its owner, and
// the group that it is for, alone reach it.
//
// Threads    : one at a time, at start and stop.
// Errors     : ControlSocketError with a text for the person who started the daemon.
// Invariants :
//   (1) the socket's path never names a socket that others than the owner and the group can connect
//   to: the server binds inside a directory of mode 0700, and what appears under the path has its
//   group and its mode, 0660 with a group and 0600 without, already.
//   (2) a socket on which a process answers is never replaced.
#pragma once

#include <sys/types.h>

#include <optional>
#include <stdexcept>
#include <string>

namespace bess {

class ControlSocketError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// "HOST:PORT" as the server takes it. Without TLS only addresses of the loopback are allowed.
// Errors: not of that form, a name instead of an address, or not an address of the loopback.
std::string listenAddress(const std::string& text, bool tls);

// One Unix socket of a server that is about to start.
class ControlSocket {
 public:
  // Makes the directory of `path` when it is missing, and the place where the server binds. The
  // members of `group` may connect beside the owner; empty: nobody.
  explicit ControlSocket(std::string path, const std::string& group = "");
  // Takes the path away if it is still the one that publish() made.
  ~ControlSocket();
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;

  // What the server binds to.
  std::string bindPath() const { return directory_ + "/s"; }
  // Requires: the server is bound and listens. Replaces the socket of a dead process.
  void publish();

  const std::string& path() const { return path_; }

 private:
  // Passes when nothing is there, or a socket that nobody answers on.
  void requireStale() const;
  // Gives the bound socket its group and its mode.
  void admitGroup() const;

  std::string path_;
  std::string group_;
  std::optional<gid_t> gid_;
  std::string directory_;
  ino_t inode_ = 0;
};

}  // namespace bess
