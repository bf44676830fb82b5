// The control service's stream of module commands: what has arrived runs together, in one turn of
// the control thread, and is answered together.
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "Bess/ControlService.h"
#include "Bess/ModuleGraph.h"

namespace bess {
namespace {

// Other clients wait for at most one group of each stream.
constexpr size_t kMaxGroup = 256;

// Requests in the order of arrival. Those behind `count` have run; their memory is used again.
struct Group {
  std::vector<pb::ModuleCommandRequest> requests;
  size_t count = 0;
};

// What was read and has not run yet: at most one group, so that a client that sends faster than
// commands run is slowed down by the transport.
class ReadAhead {
 public:
  // Waits for room; `request` becomes one that has run. Returns: false when nobody takes requests
  // any more.
  bool put(pb::ModuleCommandRequest& request) {
    std::unique_lock lock(mutex_);
    room_.wait(lock, [this] { return waiting_.count < kMaxGroup || closed_; });
    if (closed_) {
      return false;
    }
    if (waiting_.count == waiting_.requests.size()) {
      waiting_.requests.emplace_back();
    }
    waiting_.requests[waiting_.count++].Swap(&request);
    if (waiting_.count == 1) {
      arrived_.notify_one();
    }
    return true;
  }

  void close() {
    {
      const std::lock_guard lock(mutex_);
      closed_ = true;
    }
    arrived_.notify_one();
    room_.notify_one();
  }

  // Waits for requests and takes all there are. Returns: false when there are none and will be
  // none.
  bool take(Group& group) {
    group.count = 0;
    std::unique_lock lock(mutex_);
    arrived_.wait(lock, [this] { return waiting_.count > 0 || closed_; });
    std::swap(group, waiting_);
    room_.notify_one();
    return group.count > 0;
  }

 private:
  std::mutex mutex_;
  std::condition_variable room_;
  std::condition_variable arrived_;
  Group waiting_;        // guarded by mutex_
  bool closed_ = false;  // guarded by mutex_
};

}  // namespace

grpc::Status ControlService::ModuleCommandStream(
    grpc::ServerContext* context,
    grpc::ServerReaderWriter<pb::CommandResponse, pb::ModuleCommandRequest>* stream) {
  if (grpc::Status allowed = access_.check(*context, "ModuleCommandStream"); !allowed.ok()) {
    return allowed;
  }
  if (!takeStream()) {
    return {grpc::StatusCode::RESOURCE_EXHAUSTED, "too many streaming calls at once"};
  }
  struct Slot {
    ControlService& service;
    ~Slot() { service.returnStream(); }
  } const slot{*this};
  ReadAhead readAhead;
  std::jthread reader([&] {
    pb::ModuleCommandRequest request;
    while (stream->Read(&request) && readAhead.put(request)) {
    }
    readAhead.close();
  });
  grpc::Status status;
  Group group;
  std::vector<pb::CommandResponse> answers;
  bool reading = true;
  while (status.ok() && reading && readAhead.take(group)) {
    answers.resize(group.count);
    status = onControlThread([&] {
      for (size_t i = 0; i < group.count; ++i) {
        const pb::ModuleCommandRequest& one = group.requests[i];
        answers[i] = ModuleGraph::runCommand(one.module(), one.command(), one.arg());
      }
    });
    // All but the last wait in the transport's buffer for it.
    for (size_t i = 0; status.ok() && reading && i < answers.size(); ++i) {
      grpc::WriteOptions options;
      if (i + 1 < answers.size()) {
        options.set_buffer_hint();
      }
      reading = stream->Write(answers[i], options);
    }
  }
  if (!status.ok() || !reading) {
    readAhead.close();
    context->TryCancel();  // ends the read under way
  }
  reader.join();
  if (!status.ok()) {
    return status;
  }
  return context->IsCancelled() ? grpc::Status(grpc::StatusCode::CANCELLED, "the client gave up")
                                : grpc::Status::OK;
}

}  // namespace bess
