#include "Bess/ControlTls.h"

#include <grpcpp/security/tls_certificate_provider.h>
#include <grpcpp/security/tls_credentials_options.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>

#include "Bess/ControlSocket.h"

namespace bess {
namespace {

void requireReadable(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in || in.peek() == std::ifstream::traits_type::eof()) {
    throw ControlSocketError("cannot read " + path + ": " +
                             std::strerror(errno != 0 ? errno : EIO));
  }
}

[[noreturn]] void refuse(const std::string& what) {
  std::array<char, 256> reason{};
  ERR_error_string_n(ERR_get_error(), reason.data(), reason.size());
  ERR_clear_error();
  throw ControlSocketError(what + ": " + reason.data());
}

void requirePrivate(const std::string& path) {
  struct stat found {};
  if (stat(path.c_str(), &found) != 0) {
    throw ControlSocketError("cannot read " + path + ": " + std::strerror(errno));
  }
  if ((found.st_mode & S_IRWXO) != 0) {
    throw ControlSocketError("the private key " + path +
                             " can be used by everybody on this machine: chmod o= " + path);
  }
}

int noPassPhrase(char* /*text*/, int /*size*/, int /*writing*/, void* /*data*/) {
  return 0;
}

// The server would only say that it cannot listen; this says why.
void checkFiles(const TlsFiles& files) {
  const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(SSL_CTX_new(TLS_server_method()),
                                                                  &SSL_CTX_free);
  if (context == nullptr) {
    refuse("cannot use TLS");
  }
  SSL_CTX_set_default_passwd_cb(context.get(), &noPassPhrase);
  if (SSL_CTX_use_certificate_chain_file(context.get(), files.cert.c_str()) != 1) {
    refuse(files.cert + " holds no certificate");
  }
  if (SSL_CTX_use_PrivateKey_file(context.get(), files.key.c_str(), SSL_FILETYPE_PEM) != 1) {
    refuse(files.key + " holds no private key of " + files.cert);
  }
  if (SSL_CTX_load_verify_locations(context.get(), files.ca.c_str(), nullptr) != 1) {
    refuse(files.ca + " holds no certificate of an authority");
  }
}

}  // namespace

std::shared_ptr<grpc::ServerCredentials> tlsCredentials(const TlsFiles& files) {
  if (!files.complete()) {
    throw ControlSocketError("TLS needs a certificate, its key and the clients' authority");
  }
  for (const std::string* path : {&files.cert, &files.key, &files.ca}) {
    requireReadable(*path);
  }
  requirePrivate(files.key);
  checkFiles(files);
  namespace tls = grpc::experimental;
  tls::TlsServerCredentialsOptions options(std::make_shared<tls::FileWatcherCertificateProvider>(
      files.key, files.cert, files.ca, files.refreshSeconds));
  options.watch_root_certs();
  options.watch_identity_key_cert_pairs();
  options.set_cert_request_type(GRPC_SSL_REQUEST_AND_REQUIRE_CLIENT_CERTIFICATE_AND_VERIFY);
  return tls::TlsServerCredentials(options);
}

}  // namespace bess
