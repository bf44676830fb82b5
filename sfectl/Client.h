// The connection with a daemon: one call at a time, answers or exceptions.
//
// Errors     : RuntimeError with the daemon's own text when it refuses, with the address and the
// reason when it cannot be
//              reached.
#pragma once

#include <google/protobuf/any.pb.h>
#include <grpcpp/grpcpp.h>

#include <chrono>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "protocol/bess.grpc.pb.h"

namespace Sfectl {

inline constexpr const char* kDefaultSocket = "unix:/run/sfe/bessd.sock";
// How long a daemon may take to answer.
inline constexpr std::chrono::seconds kCallTimeout{30};

// PEM files for a daemon that wants TLS: all three, or none. Not looked at for a Unix socket.
struct ClientTls {
  std::string cert;
  std::string key;
  std::string ca;  // who signs the daemon's certificate
};

class Client {
 public:
  using Stub = bess::pb::BESSControl::Stub;

  // `target` is "unix:PATH", a bare absolute path, or HOST:PORT.
  // Errors: UsageError when one of the files is missing from `tls`, RuntimeError when one cannot be
  // read.
  explicit Client(const std::string& target, const ClientTls& tls = {});
  ~Client();

  // One call: call(&Stub::ListPorts, request).
  template <class Request, class Response>
  Response call(grpc::Status (Stub::*method)(grpc::ClientContext*, const Request&, Response*),
                const Request& request) {
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + kCallTimeout);
    Response response;
    check((stub_.get()->*method)(&context, request, &response));
    check(response.error());
    return response;
  }
  template <class Response>
  Response call(grpc::Status (Stub::*method)(grpc::ClientContext*,
                                             const bess::pb::EmptyRequest&,
                                             Response*)) {
    return call(method, bess::pb::EmptyRequest());
  }

  // One command of a module.
  bess::pb::CommandResponse command(const std::string& module,
                                    const std::string& name,
                                    const google::protobuf::Any& arg);
  bess::pb::CommandResponse command(const std::string& module,
                                    const std::string& name,
                                    const google::protobuf::Message& arg);

  // Many commands, over one call for every kMaxStreamed of them: in their order, until one is
  // refused; none behind that one runs. `done` grows by the commands that ran, also when this
  // throws; when the connection breaks, some of the others may have run, too.
  void commands(std::span<const bess::pb::ModuleCommandRequest* const> requests, size_t& done);
  static constexpr size_t kMaxStreamed = 16384;

  // The text of a state (sfectl/StateText.h reads it), in one pass.
  std::vector<char> state(const std::string& module,
                          const std::string& name,
                          const std::string& arg);

  std::vector<bess::pb::ModuleInfo> modulesOf(const std::string& className);

 private:
  void check(const grpc::Status& status) const;
  void check(const bess::pb::Error& error) const;
  void stream(std::span<const bess::pb::ModuleCommandRequest* const> requests, size_t& done);

  std::string target_;
  std::unique_ptr<Stub> stub_;
  struct CommandQueue;  // of single commands
  std::unique_ptr<CommandQueue> queue_;
};

}  // namespace Sfectl
