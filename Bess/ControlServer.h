// The server of the control service: on a Unix socket of the owner alone, and on the loopback when
// asked.
//
// Serves the standard health service and reflection beside it.
// Threads    : construct and destroy on one thread; the server has threads of its own, a bounded
// number. Errors     : ControlSocketError, with a text for the person who started the daemon.
// Invariants :
//   (1) no request is larger than kMaxRequestBytes when it reaches the service.
//   (2) the health service says SERVING from the moment the constructor returns until the
//   destructor begins.
#pragma once

#include <grpcpp/grpcpp.h>

#include <memory>
#include <string>

#include "Bess/ControlSocket.h"

namespace bess {

class ControlServer {
 public:
  static constexpr int kMaxRequestBytes = 1 << 20;
  static constexpr int kMaxThreads = 32;

  // `listen` is HOST:PORT of the loopback, or empty.
  ControlServer(grpc::Service* service, const std::string& socket, const std::string& listen);
  // Lets the calls under way end, for at most two seconds, and takes the socket away.
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  // Where clients reach it over TCP; 0 when it does not listen there.
  int tcpPort() const { return tcpPort_; }

 private:
  ControlSocket socket_;
  std::unique_ptr<grpc::Server> server_;
  int tcpPort_ = 0;
};

}  // namespace bess
