// The control service's streams of module commands: what has arrived runs together, in few turns of
// the control thread, and is answered together.
#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "Bess/ControlService.h"
#include "Bess/ModuleGraph.h"

namespace bess {
namespace {

// Other clients wait for at most so many commands of each stream.
constexpr size_t kMaxTurn = 256;
// What a stream holds unread, and what it keeps of a message for the next one, in bytes.
constexpr size_t kMaxWaitingBytes = size_t{1} << 20;
constexpr size_t kMaxKeptBytes = size_t{64} << 10;

// Gives the memory of a large message back; a small one's is used again.
template <class Message>
void trim(Message& message) {
  if (message.SpaceUsedLong() > kMaxKeptBytes) {
    message = Message();
  }
}

// The forms that a stream's messages have: one command and its answer, or a batch of either.
struct SingleForm {
  using Request = pb::ModuleCommandRequest;
  using Response = pb::CommandResponse;
  static constexpr const char* kMethod = "ModuleCommandStream";

  static size_t count(const Request&) { return 1; }
  static const pb::ModuleCommandRequest& command(const Request& request, size_t) { return request; }
  static bool endsWithRefusal(const Request&) { return false; }
  static void clear(Response&) {}
  static pb::CommandResponse& addAnswer(Response& response) { return response; }
};

struct BatchForm {
  using Request = pb::ModuleCommandBatch;
  using Response = pb::CommandResponseBatch;
  static constexpr const char* kMethod = "ModuleCommandBatchStream";

  static size_t count(const Request& request) {
    return static_cast<size_t>(request.commands_size());
  }
  static const pb::ModuleCommandRequest& command(const Request& request, size_t index) {
    return request.commands(static_cast<int>(index));
  }
  static bool endsWithRefusal(const Request& request) { return request.until_refused(); }
  static void clear(Response& response) { response.Clear(); }
  static pb::CommandResponse& addAnswer(Response& response) { return *response.add_responses(); }
};

// Messages in the order of arrival. Those behind `count` have run; their memory is used again.
template <class Form>
struct Group {
  std::vector<typename Form::Request> requests;
  size_t count = 0;
  size_t commands = 0;  // of them all
  size_t bytes = 0;     // likewise
};

// What was read and has not run yet: one message, or as many as have the commands of one turn, so
// that a client that sends faster than commands run is slowed down by the transport.
template <class Form>
class ReadAhead {
 public:
  // Waits for room; `request` becomes one that has run. Returns: false when nobody takes requests
  // any more.
  bool put(typename Form::Request& request) {
    const size_t commands = Form::count(request);
    const size_t bytes = request.ByteSizeLong();
    std::unique_lock lock(mutex_);
    room_.wait(lock, [this, commands, bytes] {
      return waiting_.count == 0 || closed_ ||
             (waiting_.count < kMaxTurn && waiting_.commands + commands <= kMaxTurn &&
              waiting_.bytes + bytes <= kMaxWaitingBytes);
    });
    if (closed_) {
      return false;
    }
    if (waiting_.count == waiting_.requests.size()) {
      waiting_.requests.emplace_back();
    }
    waiting_.requests[waiting_.count++].Swap(&request);
    trim(request);
    waiting_.commands += commands;
    waiting_.bytes += bytes;
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
  bool take(Group<Form>& group) {
    group.count = 0;
    group.commands = 0;
    group.bytes = 0;
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
  Group<Form> waiting_;  // guarded by mutex_
  bool closed_ = false;  // guarded by mutex_
};

// The commands of one group, one after another, and their answers.
template <class Form>
class Turns {
 public:
  explicit Turns(bool& ended) : ended_(ended) {}

  void begin(const Group<Form>& group) {
    group_ = &group;
    message_ = 0;
    command_ = 0;
    if (answers_.size() < group.count) {
      answers_.resize(group.count);
    }
    std::for_each_n(answers_.begin(), group.count, [](typename Form::Response& answer) {
      Form::clear(answer);
      trim(answer);
    });
  }
  bool done() const { return message_ == group_->count; }
  const typename Form::Response& answer(size_t index) const { return answers_[index]; }

  // On the control thread. Runs as many commands as one turn may have.
  void run() {
    for (size_t left = kMaxTurn; !done();) {
      const typename Form::Request& request = group_->requests[message_];
      if (ended_ || command_ == Form::count(request)) {
        ++message_;
        command_ = 0;
        continue;
      }
      if (left-- == 0) {
        return;
      }
      const pb::ModuleCommandRequest& one = Form::command(request, command_++);
      pb::CommandResponse& answer = Form::addAnswer(answers_[message_]);
      answer = ModuleGraph::runCommand(one.module(), one.command(), one.arg());
      const bool refused = answer.error().code() != 0 || !answer.error().errmsg().empty();
      ended_ = refused && Form::endsWithRefusal(request);
    }
  }

 private:
  bool& ended_;  // no command of the call runs any more
  const Group<Form>* group_ = nullptr;
  size_t message_ = 0;  // the command that is next
  size_t command_ = 0;
  std::vector<typename Form::Response> answers_;
};

}  // namespace

template <class Form>
grpc::Status ControlService::runCommands(
    grpc::ServerContext& context,
    grpc::ServerReaderWriter<typename Form::Response, typename Form::Request>& stream) {
  if (grpc::Status allowed = access_.check(context, Form::kMethod); !allowed.ok()) {
    return allowed;
  }
  if (!takeStream()) {
    return {grpc::StatusCode::RESOURCE_EXHAUSTED, "too many streaming calls at once"};
  }
  struct Slot {
    ControlService& service;
    ~Slot() { service.returnStream(); }
  } const slot{*this};
  ReadAhead<Form> readAhead;
  std::jthread reader([&] {
    typename Form::Request request;
    while (stream.Read(&request) && readAhead.put(request)) {
    }
    readAhead.close();
  });
  grpc::Status status;
  Group<Form> group;
  bool ended = false;
  Turns<Form> turns(ended);
  bool reading = true;
  while (status.ok() && reading && readAhead.take(group)) {
    turns.begin(group);
    while (status.ok() && !turns.done()) {
      status = onControlThread([&turns] { turns.run(); });
    }
    for (size_t i = 0; status.ok() && reading && i < group.count; ++i) {
      // Each on its own: told to wait in its buffer for the next one, the transport may keep the
      // caller waiting too.
      reading = stream.Write(turns.answer(i));
    }
  }
  if (!status.ok() || !reading) {
    readAhead.close();
    context.TryCancel();  // ends the read under way
  }
  reader.join();
  if (!status.ok()) {
    return status;
  }
  return context.IsCancelled() ? grpc::Status(grpc::StatusCode::CANCELLED, "the client gave up")
                               : grpc::Status::OK;
}

grpc::Status ControlService::ModuleCommandStream(
    grpc::ServerContext* context,
    grpc::ServerReaderWriter<pb::CommandResponse, pb::ModuleCommandRequest>* stream) {
  return runCommands<SingleForm>(*context, *stream);
}

grpc::Status ControlService::ModuleCommandBatchStream(
    grpc::ServerContext* context,
    grpc::ServerReaderWriter<pb::CommandResponseBatch, pb::ModuleCommandBatch>* stream) {
  return runCommands<BatchForm>(*context, *stream);
}

}  // namespace bess
