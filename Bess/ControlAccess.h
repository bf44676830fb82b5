// Decides which calls a client may make.
//
// Who a client is: over a Unix socket, somebody whom the permissions of the socket's file let in
// (the transport tells nothing more about him, and the address it gives is the client's own
// choice); over TCP, the names in his certificate; over the loopback without TLS, anybody on this
// machine. Everybody who gets in may make the calls that only read. The read-only socket, and
// certificates with a name from the list, allow no others.
//
// Threads    : any.
// Errors     : a refusal is the status PERMISSION_DENIED, and one line in the log with the call and
// the client. Invariants :
//   (1) a call whose name does not begin with Get or List changes something, as far as this class
//   is concerned.
#pragma once

#include <grpcpp/server_context.h>
#include <grpcpp/support/status.h>

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Bess/LogLimit.h"

namespace bess {

class ControlAccess {
 public:
  enum class Scope {
    kEverything,
    kReads,
  };

  // Certificates with one of the names (common name or alternative name) may only read.
  explicit ControlAccess(Scope scope, const std::vector<std::string>& readOnlyNames = {});

  static bool isReadCall(std::string_view method);

  // Returns: OK, or the refusal of the call `method`, such as "CreatePort".
  grpc::Status check(const grpc::ServerContext& context, std::string_view method);

 private:
  bool mayChange(const grpc::ServerContext& context) const;
  std::string describe(const grpc::ServerContext& context) const;

  const Scope scope_;
  const std::set<std::string> readOnlyNames_;
  LogLimit logLimit_;
};

}  // namespace bess
