// The control service's streams of module commands: what has arrived runs together, in few turns of
// the control thread, and is answered together.
#include <algorithm>
#include <condition_variable>
#include <memory>
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
// What a stream holds that has not run, in bytes.
constexpr size_t kMaxWaitingBytes = size_t{1} << 20;
// How long a stream uses the memory of its messages again: until so much has gone through it. What
// it keeps is bounded by that, and nobody has to measure it.
constexpr size_t kMaxKeptBytes = size_t{4} << 20;
constexpr size_t kMaxKeptCommands = 64 * kMaxTurn;
// Likewise of the answers to one message.
constexpr size_t kMaxKeptAnswers = 4 * kMaxTurn;

// The forms that a stream's messages have: one command and its answer, or a batch of either.
struct SingleForm {
  using Request = pb::ModuleCommandRequest;
  using Response = pb::CommandResponse;
  static constexpr const char* kMethod = "ModuleCommandStream";

  static size_t count(const Request&) { return 1; }
  static const pb::ModuleCommandRequest& command(const Request& request, size_t) { return request; }
  static bool endsWithRefusal(const Request&) { return false; }
  static void clear(Response& response) { response.Clear(); }
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
  static void clear(Response& response) {
    if (static_cast<size_t>(response.responses_size()) > kMaxKeptAnswers) {
      response = Response();
    }
    response.Clear();
  }
  static pb::CommandResponse& addAnswer(Response& response) { return *response.add_responses(); }
};

// A message of a stream. Its memory is used again when its commands have run.
template <class Form>
struct Message {
  typename Form::Request request;
  unsigned generation = 0;
};

// Messages in the order of arrival.
template <class Form>
struct Group {
  std::vector<std::unique_ptr<Message<Form>>> messages;
  size_t commands = 0;  // of them all
  size_t bytes = 0;     // likewise
};

// What was read and has not run yet: one message, or as many as have the commands of one turn, so
// that a client that sends faster than commands run is slowed down by the transport.
template <class Form>
class ReadAhead {
 public:
  using Owner = std::unique_ptr<Message<Form>>;

  // Waits for room; `message` becomes one to read into. Returns: false when nobody takes messages
  // any more.
  bool put(Owner& message) {
    const size_t commands = Form::count(message->request);
    const size_t bytes = message->request.ByteSizeLong();
    std::vector<Owner> old;  // freed without the lock
    std::unique_lock lock(mutex_);
    room_.wait(lock, [this, commands, bytes] {
      return waiting_.messages.empty() || closed_ ||
             (waiting_.messages.size() < kMaxTurn && waiting_.commands + commands <= kMaxTurn &&
              waiting_.bytes + bytes <= kMaxWaitingBytes);
    });
    if (closed_) {
      return false;
    }
    waiting_.messages.push_back(std::move(message));
    waiting_.commands += commands;
    waiting_.bytes += bytes;
    if (waiting_.messages.size() == 1) {
      arrived_.notify_one();
    }
    renew(commands, bytes, old);
    if (!free_.empty()) {
      message = std::move(free_.back());
      free_.pop_back();
    } else {
      message = std::make_unique<Message<Form>>();
      message->generation = generation_;
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

  // Takes back the messages of `group`, waits for others and takes all there are. Returns: false
  // when there are none and will be none.
  bool take(Group<Form>& group) {
    std::vector<Owner> old;  // freed without the lock
    std::unique_lock lock(mutex_);
    for (Owner& message : group.messages) {
      (message->generation == generation_ ? free_ : old).push_back(std::move(message));
    }
    group.messages.clear();
    group.commands = 0;
    group.bytes = 0;
    if (!old.empty()) {
      lock.unlock();
      old.clear();
      lock.lock();
    }
    arrived_.wait(lock, [this] { return !waiting_.messages.empty() || closed_; });
    std::swap(group, waiting_);
    room_.notify_one();
    return !group.messages.empty();
  }

 private:
  // Every so often all messages give way to new ones.
  void renew(size_t commands, size_t bytes, std::vector<Owner>& old) {
    usedCommands_ += commands;
    usedBytes_ += bytes;
    if (usedCommands_ > kMaxKeptCommands || usedBytes_ > kMaxKeptBytes) {
      ++generation_;
      usedCommands_ = 0;
      usedBytes_ = 0;
      old.swap(free_);
    }
  }

  std::mutex mutex_;
  std::condition_variable room_;
  std::condition_variable arrived_;

  // All guarded by mutex_.
  Group<Form> waiting_;
  bool closed_ = false;
  std::vector<Owner> free_;  // of this generation, whose commands have run
  unsigned generation_ = 0;
  size_t usedCommands_ = 0;  // what this generation has carried
  size_t usedBytes_ = 0;
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
    if (answers_.size() < group.messages.size()) {
      answers_.resize(group.messages.size());
    }
    std::for_each_n(answers_.begin(), group.messages.size(), &Form::clear);
  }
  bool done() const { return message_ == group_->messages.size(); }
  const typename Form::Response& answer(size_t index) const { return answers_[index]; }

  // On the control thread. Runs as many commands as one turn may have.
  void run() {
    for (size_t left = kMaxTurn; !done();) {
      const typename Form::Request& request = group_->messages[message_]->request;
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
    auto message = std::make_unique<Message<Form>>();
    while (stream.Read(&message->request) && readAhead.put(message)) {
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
    for (size_t i = 0; status.ok() && reading && i < group.messages.size(); ++i) {
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
