// The server of the control service: on a Unix socket of its owner and the operators' group, on a
// second one for those who may only read, and over TCP when asked: without TLS on the loopback
// alone.
//
// Serves the standard health service and reflection beside it. What it refuses of strangers is
// logged, a bounded number of lines a second. Threads    : construct and destroy on one thread; the
// server has threads of its own, a bounded number. Errors     : ControlSocketError, with a text for
// the person who started the daemon. Invariants :
//   (1) no request is larger than kMaxRequestBytes when it reaches the service.
//   (2) the health service says SERVING from the moment the constructor returns until the
//   destructor begins. (3) a client that has not finished its handshake within kHandshakeSeconds is
//   disconnected.
#pragma once

#include <grpcpp/grpcpp.h>

#include <memory>
#include <optional>
#include <string>

#include "Bess/ControlCommands.h"
#include "Bess/ControlHealth.h"
#include "Bess/ControlService.h"
#include "Bess/ControlSocket.h"
#include "Bess/ControlTls.h"

namespace bess {

struct ControlServerOptions {
  std::string socket;
  std::string group;       // who may connect there beside the owner; empty: nobody
  std::string readSocket;  // where calls that change something are refused; empty: none
  std::string readGroup;
  std::string listen;  // HOST:PORT; empty: no TCP
  TlsFiles tls;        // of `listen`
};

class ControlServer {
 public:
  static constexpr int kMaxRequestBytes = 1 << 20;
  static constexpr int kMaxThreads = 32;
  static constexpr int kHandshakeSeconds = 10;

  // Requires: no other server has had the service.
  ControlServer(ControlService* service, const ControlServerOptions& options);
  // Lets the calls under way end, for at most two seconds, and takes the sockets away.
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  // Where clients reach it over TCP; 0 when it does not listen there.
  int tcpPort() const { return tcpPort_; }

 private:
  // One transport server for each socket: from inside a call they cannot be told apart.
  struct Readers {
    explicit Readers(const ControlServerOptions& options)
        : socket(options.readSocket, options.readGroup) {}
    ControlSocket socket;
    std::unique_ptr<ControlService> service;
    ControlHealth health;
    std::unique_ptr<ControlCommands> commands;
    std::unique_ptr<grpc::Server> server;
  };
  void start(ControlService* service, const ControlServerOptions& options);
  void startReaders(ControlService* service);
  void stop();

  ControlSocket socket_;
  std::optional<Readers> readers_;
  ControlHealth health_;
  std::unique_ptr<ControlCommands> commands_;
  std::unique_ptr<grpc::Server> server_;
  int tcpPort_ = 0;
};

}  // namespace bess
