// The encryption of the control service over TCP: both sides show a certificate.
//
// Threads    : any, at start.
// Errors     : ControlSocketError, naming the file and what is wrong with it.
// Invariants :
//   (1) a client gets through the handshake with a certificate that the authority of `ca` signed,
//   and with no other.
//   (2) files that are replaced hold for connections that are made afterwards, at most
//   refreshSeconds later; connections that stand are left alone. A certificate and key that do not
//   fit each other let nobody in until they do.
#pragma once

#include <grpcpp/security/server_credentials.h>

#include <memory>
#include <string>

namespace bess {

// PEM files; all three, or none.
struct TlsFiles {
  std::string cert;  // of this server, with the chain up to its authority
  std::string key;   // of that certificate, without a pass phrase, not for everybody to read
  std::string ca;    // the authorities that sign the clients' certificates
  unsigned refreshSeconds = 10;  // between two looks whether the files have changed

  bool complete() const { return !cert.empty() && !key.empty() && !ca.empty(); }
  bool any() const { return !cert.empty() || !key.empty() || !ca.empty(); }
};

std::shared_ptr<grpc::ServerCredentials> tlsCredentials(const TlsFiles& files);

}  // namespace bess
