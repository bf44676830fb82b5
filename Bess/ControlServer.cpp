#include "Bess/ControlServer.h"

#include <absl/synchronization/mutex.h>
#include <glog/logging.h>
#include <grpc/support/log.h>
#include <grpcpp/ext/proto_server_reflection_plugin.h>
#include <grpcpp/resource_quota.h>

#include <chrono>

#include "Bess/LogLimit.h"
#include "protocol/bess.grpc.pb.h"

namespace bess {
namespace {

// Answers list everything there is.
constexpr int kMaxAnswerBytes = 64 << 20;
constexpr std::chrono::seconds kStopPatience{2};
// A client that comes back after a pause connects again by itself.
constexpr std::chrono::minutes kIdle{10};
// How long a host that vanished goes unnoticed.
constexpr std::chrono::minutes kKeepalive{1};

// What the transport has to say: mostly of clients that it refused.
void logTransport(gpr_log_func_args* line) {
  static LogLimit& limit = *new LogLimit;
  uint64_t dropped = 0;
  if (line->severity == GPR_LOG_SEVERITY_ERROR && limit.admit(&dropped)) {
    LOG_IF(WARNING, dropped != 0) << dropped << " lines of the transport were not logged";
    LOG(WARNING) << "control service: " << line->message;
  }
}

void enablePlugins() {
  // Takes effect for the builders that are made afterwards.
  static const bool enabled = [] {
    gpr_set_log_function(&logTransport);
    // The packaged library looks for cycles at each of the transport's locks: a tenth of a call.
    absl::SetMutexDeadlockDetectionMode(absl::OnDeadlockCycle::kIgnore);
    grpc::reflection::InitProtoReflectionServerBuilderPlugin();
    return true;
  }();
  static_cast<void>(enabled);
}

constexpr int kPollMs = 100;

void setLimits(grpc::ServerBuilder& builder) {
  builder.SetMaxReceiveMessageSize(ControlServer::kMaxRequestBytes);
  builder.SetMaxSendMessageSize(kMaxAnswerBytes);
  builder.SetResourceQuota(
      grpc::ResourceQuota("control").SetMaxThreads(ControlServer::kMaxThreads));
  builder.SetSyncServerOption(grpc::ServerBuilder::NUM_CQS, 1);
  builder.SetSyncServerOption(grpc::ServerBuilder::MAX_POLLERS, 2);
  // A thread that waits for its own call's next event now and then misses the wake-up when another
  // one polls: it stands still until that one's poll ends, ten seconds unless told otherwise.
  builder.SetSyncServerOption(grpc::ServerBuilder::CQ_TIMEOUT_MSEC, kPollMs);
  const auto milliseconds = [](auto time) {
    return static_cast<int>(std::chrono::milliseconds(time).count());
  };
  // Statistics of each call that nobody here asks for.
  builder.AddChannelArgument(GRPC_ARG_ENABLE_CHANNELZ, 0);
  builder.AddChannelArgument(GRPC_ARG_SERVER_HANDSHAKE_TIMEOUT_MS,
                             milliseconds(std::chrono::seconds(ControlServer::kHandshakeSeconds)));
  builder.AddChannelArgument(GRPC_ARG_MAX_CONNECTION_IDLE_MS, milliseconds(kIdle));
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIME_MS, milliseconds(kKeepalive));
  builder.AddChannelArgument(GRPC_ARG_MAX_CONCURRENT_STREAMS, ControlServer::kMaxThreads);
  // A second daemon on a port in use must fail, not share it.
  builder.AddChannelArgument(GRPC_ARG_ALLOW_REUSEPORT, 0);
}

std::string tcpFailure(const ControlServerOptions& options, const std::string& address) {
  return "cannot listen on " + address +
         ": is the port in use, or the address not one of this machine" +
         (options.tls.any() ? ", or the certificate not acceptable?" : "?");
}

}  // namespace

ControlServer::ControlServer(ControlService* service, const ControlServerOptions& options)
    : socket_(options.socket, options.group) {
  if (!options.readSocket.empty()) {
    readers_.emplace(options);
  }
  try {
    start(service, options);
    socket_.publish();
    health_.setServing(true);
    if (readers_) {
      startReaders(service);
    }
  } catch (...) {
    stop();
    throw;
  }
}

void ControlServer::start(ControlService* service, const ControlServerOptions& options) {
  enablePlugins();
  grpc::ServerBuilder builder;
  setLimits(builder);
  int unixBound = 0;
  const std::string tcp =
      options.listen.empty() ? "" : listenAddress(options.listen, options.tls.any());
  builder.AddListeningPort("unix:" + socket_.bindPath(), grpc::InsecureServerCredentials(),
                           &unixBound);
  if (!tcp.empty()) {
    builder.AddListeningPort(
        tcp, options.tls.any() ? tlsCredentials(options.tls) : grpc::InsecureServerCredentials(),
        &tcpPort_);
  }
  builder.RegisterService(service);
  commands_ = std::make_unique<ControlCommands>(*service, builder);
  builder.RegisterService(&health_);
  server_ = builder.BuildAndStart();
  if (server_ == nullptr) {
    throw ControlSocketError(!tcp.empty() && tcpPort_ == 0 ? tcpFailure(options, tcp)
                                                           : "cannot listen on " + socket_.path());
  }
  commands_->start();
}

void ControlServer::startReaders(ControlService* service) {
  grpc::ServerBuilder builder;
  setLimits(builder);
  builder.AddListeningPort("unix:" + readers_->socket.bindPath(),
                           grpc::InsecureServerCredentials());
  readers_->service = service->readOnly();
  builder.RegisterService(readers_->service.get());
  readers_->commands = std::make_unique<ControlCommands>(*readers_->service, builder);
  builder.RegisterService(&readers_->health);
  readers_->server = builder.BuildAndStart();
  if (readers_->server == nullptr) {
    throw ControlSocketError("cannot listen on " + readers_->socket.path());
  }
  readers_->commands->start();
  readers_->socket.publish();
  readers_->health.setServing(true);
}

ControlServer::~ControlServer() {
  stop();
}

void ControlServer::stop() {
  const auto deadline = std::chrono::system_clock::now() + kStopPatience;
  const auto stopOne = [deadline](ControlHealth& health, grpc::Server* server,
                                  const std::unique_ptr<ControlCommands>& commands) {
    health.stop();
    if (server != nullptr) {
      server->Shutdown(deadline);
      server->Wait();
      commands->finish();
    }
  };
  if (readers_) {
    stopOne(readers_->health, readers_->server.get(), readers_->commands);
  }
  stopOne(health_, server_.get(), commands_);
}

}  // namespace bess
