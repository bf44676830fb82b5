#include "Bess/ControlHealth.h"

#include <chrono>

#include "protocol/bess.grpc.pb.h"

namespace bess {
namespace {

// How long a watch goes on after its client has gone: a thread is not told.
constexpr std::chrono::milliseconds kLook{200};

}  // namespace

void ControlHealth::setServing(bool serving) {
  const std::lock_guard lock(mutex_);
  serving_ = serving;
  changed_.notify_all();
}

void ControlHealth::stop() {
  const std::lock_guard lock(mutex_);
  serving_ = false;
  stopping_ = true;
  changed_.notify_all();
}

ControlHealth::Response::ServingStatus ControlHealth::statusOf(const std::string& service) const {
  if (!service.empty() && service != pb::BESSControl::service_full_name()) {
    return Response::SERVICE_UNKNOWN;
  }
  return serving_ ? Response::SERVING : Response::NOT_SERVING;
}

grpc::Status ControlHealth::Check(grpc::ServerContext*,
                                  const Request* request,
                                  Response* response) {
  const std::lock_guard lock(mutex_);
  const auto status = statusOf(request->service());
  if (status == Response::SERVICE_UNKNOWN) {
    return {grpc::StatusCode::NOT_FOUND, "no such service"};
  }
  response->set_status(status);
  return grpc::Status::OK;
}

grpc::Status ControlHealth::Watch(grpc::ServerContext* context,
                                  const Request* request,
                                  grpc::ServerWriter<Response>* writer) {
  std::unique_lock lock(mutex_);
  if (watches_ == kMaxWatches) {
    return {grpc::StatusCode::RESOURCE_EXHAUSTED, "too many clients watch the health"};
  }
  ++watches_;
  Response said;
  bool first = true;
  bool there = true;
  while (there && !context->IsCancelled()) {
    if (const auto status = statusOf(request->service()); first || status != said.status()) {
      said.set_status(status);
      first = false;
      lock.unlock();
      there = writer->Write(said);
      lock.lock();
    } else if (stopping_) {
      break;
    } else {
      changed_.wait_for(lock, kLook);
    }
  }
  --watches_;
  return stopping_ ? grpc::Status(grpc::StatusCode::UNAVAILABLE, "the daemon is stopping")
                   : grpc::Status(grpc::StatusCode::CANCELLED, "the client gave up");
}

}  // namespace bess
