#include "Bess/ControlCommands.h"

#include <grpcpp/alarm.h>
#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <optional>

namespace bess {

// The place of one call, from waiting for it to the end of its answer.
class ControlCommands::Call {
 public:
  enum class State {
    kFree,
    kListening,  // its event: a client has called, or none will
    kWaiting,    // for the control thread; its event: the command has run
    kAnswered,   // its event: the answer has left, or cannot
  };
  using Clock = std::chrono::steady_clock;

  State state() const { return state_; }

  void listen(ControlService& service, grpc::ServerCompletionQueue* queue) {
    state_ = State::kListening;
    exchange_.emplace();
    service.RequestModuleCommand(&exchange_->context, &exchange_->request, &exchange_->writer,
                                 queue, queue, this);
  }

  // Returns: whether the command has run, or never will; else its event is to come.
  bool run(ControlService& service, grpc::ServerCompletionQueue* queue) {
    state_ = State::kWaiting;
    const auto status = service.runCommand(
        exchange_->context, exchange_->request, &exchange_->response,
        // On the control thread. The rest happens on the queue's.
        [this, queue] { exchange_->ran.Set(queue, gpr_time_0(GPR_CLOCK_MONOTONIC), this); });
    if (status) {
      answer(*status);
    }
    return status.has_value();
  }

  void answer(const grpc::Status& status) {
    state_ = State::kAnswered;
    answered_ = Clock::now();
    if (status.ok()) {
      exchange_->writer.Finish(exchange_->response, status, this);
    } else {
      exchange_->writer.FinishWithError(status, this);
    }
  }

  // Whether its answer could be given up, and since when it has been on its way.
  bool canGiveUp() const { return state_ == State::kAnswered && !givenUp_; }
  Clock::time_point answered() const { return answered_; }
  void giveUp() {
    givenUp_ = true;
    exchange_->context.TryCancel();
  }

  void free() {
    state_ = State::kFree;
    givenUp_ = false;
    exchange_.reset();
  }

 private:
  struct Exchange {
    grpc::ServerContext context;
    grpc::ServerAsyncResponseWriter<pb::CommandResponse> writer{&context};
    pb::ModuleCommandRequest request;
    pb::CommandResponse response;
    grpc::Alarm ran;
  };

  State state_ = State::kFree;
  bool givenUp_ = false;
  Clock::time_point answered_;
  std::optional<Exchange> exchange_;
};

ControlCommands::ControlCommands(ControlService& service, grpc::ServerBuilder& builder)
    : service_(service), queue_(builder.AddCompletionQueue()) {
  for (size_t i = 0; i < 2 * kMaxCalls; ++i) {
    calls_.push_back(std::make_unique<Call>());
    free_.push_back(calls_.back().get());
  }
}

ControlCommands::~ControlCommands() {
  finish();
}

void ControlCommands::start() {
  thread_ = std::thread([this] { serve(); });
}

void ControlCommands::finish() {
  if (thread_.joinable()) {
    thread_.join();
  }
  if (!drained_) {
    drained_ = true;
    queue_->Shutdown();
    void* tag = nullptr;
    bool ok = false;
    while (queue_->Next(&tag, &ok)) {
    }
  }
}

void ControlCommands::serve() {
  pthread_setname_np(pthread_self(), "bess-commands");
  listen();
  void* tag = nullptr;
  bool ok = false;
  // The server's end is the end of the call that listens, and at last of all.
  while (open_ > 0 && next(&tag, &ok)) {
    --open_;
    proceed(*static_cast<Call*>(tag), ok);
  }
}

bool ControlCommands::next(void** tag, bool* ok) {
  auto status = grpc::CompletionQueue::TIMEOUT;
  wait_.wait(
      [&] {
        status = queue_->AsyncNext(tag, ok, gpr_time_0(GPR_CLOCK_MONOTONIC));
        return status != grpc::CompletionQueue::TIMEOUT;
      },
      [&] { status = queue_->AsyncNext(tag, ok, gpr_inf_future(GPR_CLOCK_MONOTONIC)); });
  return status == grpc::CompletionQueue::GOT_EVENT;
}

void ControlCommands::proceed(Call& call, bool ok) {
  switch (call.state()) {
    case Call::State::kListening:
      listening_ = false;
      if (ok) {
        listen();
        begin(call);
      } else {
        ended_ = true;
        release(call);
      }
      break;
    case Call::State::kWaiting:
      --waiting_;
      call.answer(grpc::Status::OK);
      ++open_;
      break;
    case Call::State::kAnswered:
      release(call);
      break;
    case Call::State::kFree:
      break;
  }
}

void ControlCommands::listen() {
  if (free_.empty()) {
    endOldest();  // the next one that becomes free listens
    return;
  }
  Call* call = free_.back();
  free_.pop_back();
  call->listen(service_, queue_.get());
  ++open_;
  listening_ = true;
}

void ControlCommands::begin(Call& call) {
  ++open_;
  if (waiting_ == kMaxCalls) {
    call.answer({grpc::StatusCode::RESOURCE_EXHAUSTED, "too many commands at once"});
  } else if (!call.run(service_, queue_.get())) {
    ++waiting_;
  }
}

// Whoever does not read his answers loses them when others need the place.
void ControlCommands::endOldest() {
  Call* oldest = nullptr;
  for (const auto& call : calls_) {
    if (call->canGiveUp() && (oldest == nullptr || call->answered() < oldest->answered())) {
      oldest = call.get();
    }
  }
  if (oldest != nullptr) {
    oldest->giveUp();
  }
}

void ControlCommands::release(Call& call) {
  call.free();
  free_.push_back(&call);
  if (!listening_ && !ended_) {
    listen();
  }
}

}  // namespace bess
