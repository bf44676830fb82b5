#include "Bess/ControlServer.h"

#include <grpcpp/ext/proto_server_reflection_plugin.h>
#include <grpcpp/health_check_service_interface.h>
#include <grpcpp/resource_quota.h>

#include <chrono>

#include "protocol/bess.grpc.pb.h"

namespace bess {
namespace {

// Answers list everything there is.
constexpr int kMaxAnswerBytes = 64 << 20;
constexpr std::chrono::seconds kStopPatience{2};

void enablePlugins() {
  // Takes effect for the builders that are made afterwards.
  static const bool enabled = [] {
    grpc::EnableDefaultHealthCheckService(true);
    grpc::reflection::InitProtoReflectionServerBuilderPlugin();
    return true;
  }();
  static_cast<void>(enabled);
}

void setHealth(grpc::Server& server, bool serving) {
  auto* health = server.GetHealthCheckService();
  if (health != nullptr) {
    health->SetServingStatus(serving);
    health->SetServingStatus(pb::BESSControl::service_full_name(), serving);
  }
}

void setLimits(grpc::ServerBuilder& builder) {
  builder.SetMaxReceiveMessageSize(ControlServer::kMaxRequestBytes);
  builder.SetMaxSendMessageSize(kMaxAnswerBytes);
  builder.SetResourceQuota(
      grpc::ResourceQuota("control").SetMaxThreads(ControlServer::kMaxThreads));
  builder.SetSyncServerOption(grpc::ServerBuilder::NUM_CQS, 1);
  builder.SetSyncServerOption(grpc::ServerBuilder::MAX_POLLERS, 2);
  // A second daemon on a port in use must fail, not share it.
  builder.AddChannelArgument(GRPC_ARG_ALLOW_REUSEPORT, 0);
}

}  // namespace

ControlServer::ControlServer(grpc::Service* service,
                             const std::string& socket,
                             const std::string& listen)
    : socket_(socket) {
  enablePlugins();
  grpc::ServerBuilder builder;
  setLimits(builder);
  int unixBound = 0;
  const std::string tcp = listen.empty() ? "" : loopbackAddress(listen);
  builder.AddListeningPort("unix:" + socket_.bindPath(), grpc::InsecureServerCredentials(),
                           &unixBound);
  if (!tcp.empty()) {
    builder.AddListeningPort(tcp, grpc::InsecureServerCredentials(), &tcpPort_);
  }
  builder.RegisterService(service);
  server_ = builder.BuildAndStart();
  if (server_ == nullptr) {
    const bool tcpFailed = !tcp.empty() && tcpPort_ == 0;
    throw ControlSocketError("cannot listen on " + (tcpFailed ? tcp : socket_.path()) +
                             (tcpFailed ? ": is the port in use?" : ""));
  }
  socket_.publish();
  setHealth(*server_, true);
}

ControlServer::~ControlServer() {
  setHealth(*server_, false);
  server_->Shutdown(std::chrono::system_clock::now() + kStopPatience);
  server_->Wait();
}

}  // namespace bess
