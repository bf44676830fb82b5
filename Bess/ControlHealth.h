// The standard health service of a control server: tells whoever watches over the daemon whether it
// takes calls.
//
// The transport library has one of its own, whose threads look for work on every connection: each
// call of the control service would wake them, and wait for them.
//
// Threads    : any.
// Errors     : a name that is not served: NOT_FOUND (Check) or SERVICE_UNKNOWN (Watch); a watch
//              beyond kMaxWatches has status RESOURCE_EXHAUSTED.
// Cost       : a watch holds one of the server's threads, which looks a few times a second whether
//              its client is still there.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>

#include "protocol/health.grpc.pb.h"

namespace bess {

class ControlHealth final : public grpc::health::v1::Health::Service {
 public:
  using Request = grpc::health::v1::HealthCheckRequest;
  using Response = grpc::health::v1::HealthCheckResponse;
  static constexpr int kMaxWatches = 4;

  // Not serving until told otherwise.
  void setServing(bool serving);
  // Tells the watching clients that the server does not serve any more, and ends their calls.
  void stop();

  grpc::Status Check(grpc::ServerContext* context,
                     const Request* request,
                     Response* response) override;
  grpc::Status Watch(grpc::ServerContext* context,
                     const Request* request,
                     grpc::ServerWriter<Response>* writer) override;

 private:
  // Requires: mutex_ is held.
  Response::ServingStatus statusOf(const std::string& service) const;

  std::mutex mutex_;
  std::condition_variable changed_;
  bool serving_ = false;  // guarded by mutex_, as the others
  bool stopping_ = false;
  int watches_ = 0;
};

}  // namespace bess
