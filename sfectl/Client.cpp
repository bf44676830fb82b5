#include "sfectl/Client.h"

#include <absl/synchronization/mutex.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "Base/AwakeWait.h"
#include "sfectl/Errors.h"
#include "sfectl/Report.h"

namespace Sfectl {
namespace {

// A large route table of modules and ports fits; a daemon gone mad does not fill our memory.
constexpr int kMaxAnswerBytes = 64 << 20;
// The same for a state: several million routes.
constexpr size_t kMaxStateBytes = size_t{1} << 30;

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  if (!in || !(text << in.rdbuf())) {
    throw RuntimeError("cannot read " + path + ": " + std::strerror(errno != 0 ? errno : EIO));
  }
  return text.str();
}

std::shared_ptr<grpc::ChannelCredentials> credentials(const std::string& target,
                                                      const ClientTls& tls) {
  if (target.starts_with("unix:") || (tls.cert + tls.key + tls.ca).empty()) {
    return grpc::InsecureChannelCredentials();
  }
  if (tls.cert.empty() || tls.key.empty() || tls.ca.empty()) {
    throw UsageError("TLS takes --tls-cert, --tls-key and --tls-ca together");
  }
  return grpc::SslCredentials({.pem_root_certs = readFile(tls.ca),
                               .pem_private_key = readFile(tls.key),
                               .pem_cert_chain = readFile(tls.cert)});
}

// The errno of connecting to the socket; 0 when somebody answers, or when the path is too long to
// ask.
int tryConnect(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0 || path.size() >= sizeof(address.sun_path)) {
    return 0;
  }
  std::memcpy(address.sun_path, path.c_str(), path.size());
  const int result = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  const int error = result == 0 ? 0 : errno;
  close(fd);
  return error;
}

// Who may use a socket that we may not.
std::string whoMay(const std::string& path) {
  struct stat found {};
  if (stat(path.c_str(), &found) != 0) {
    return "its directory does not let you in";
  }
  if ((found.st_mode & S_IWGRP) == 0) {
    return "only its owner may; the daemon's option --group lets a group in";
  }
  const group* owner = getgrgid(found.st_gid);  // NOLINT(concurrency-mt-unsafe): one thread
  const std::string name = owner != nullptr ? owner->gr_name : std::to_string(found.st_gid);
  return "the members of group '" + name + "' may; become one (adduser USER " + name +
         ") and log in again";
}

// What the transport's own words do not say about an address at which nobody answered.
std::string hint(const std::string& target) {
  constexpr std::string_view kScheme = "unix:";
  if (!target.starts_with(kScheme)) {
    return "";
  }
  const std::string path = target.substr(kScheme.size());
  return tryConnect(path) == EACCES ? whoMay(path) : "";
}

using Requests = std::span<const bess::pb::ModuleCommandRequest* const>;

// What a command takes in a message, but for a few bytes.
size_t bytesOf(const bess::pb::ModuleCommandRequest& request) {
  return request.module().size() + request.command().size() + request.arg().type_url().size() +
         request.arg().value().size();
}

// How many of the commands one message should carry.
size_t batchSize(Requests requests) {
  constexpr size_t kCommands = 512;
  constexpr size_t kBytes = 256 << 10;  // more only for a single command
  const size_t most = std::min(kCommands, requests.size());
  size_t bytes = 0;
  for (size_t count = 0; count < most; ++count) {
    bytes += bytesOf(*requests[count]);
    if (count > 0 && bytes > kBytes) {
      return count;
    }
  }
  return most;
}

// A message with commands that stay others': nothing of them is copied.
class LentBatch {
 public:
  explicit LentBatch(Requests requests) {
    batch_.set_until_refused(true);
    batch_.mutable_commands()->Reserve(static_cast<int>(requests.size()));
    for (const auto* request : requests) {
      // The message is only written, which changes nothing that a command says.
      batch_.mutable_commands()->UnsafeArenaAddAllocated(
          const_cast<bess::pb::ModuleCommandRequest*>(request));
    }
  }
  ~LentBatch() {
    batch_.mutable_commands()->UnsafeArenaExtractSubrange(0, batch_.commands_size(), nullptr);
  }
  LentBatch(const LentBatch&) = delete;
  LentBatch& operator=(const LentBatch&) = delete;

  const bess::pb::ModuleCommandBatch& message() const { return batch_; }

 private:
  bess::pb::ModuleCommandBatch batch_;
};

}  // namespace

// Commands that follow one another fast are waited for awake.
struct Client::CommandQueue {
  grpc::CompletionQueue events;
  AwakeWait<> wait;
};

Client::Client(const std::string& target, const ClientTls& tls)
    : target_(target.starts_with('/') ? "unix:" + target : target),
      queue_(std::make_unique<CommandQueue>()) {
  // The packaged library looks for cycles at each of the transport's locks: a tenth of a call.
  absl::SetMutexDeadlockDetectionMode(absl::OnDeadlockCycle::kIgnore);
  grpc::ChannelArguments arguments;
  arguments.SetMaxReceiveMessageSize(kMaxAnswerBytes);
  // Statistics of each call that nobody here asks for.
  arguments.SetInt(GRPC_ARG_ENABLE_CHANNELZ, 0);
  // No proxy of the environment stands between: most daemons are on this machine.
  arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
  stub_ = bess::pb::BESSControl::NewStub(
      grpc::CreateCustomChannel(target_, credentials(target_, tls), arguments));
}

Client::~Client() = default;

void Client::check(const grpc::Status& status) const {
  if (status.ok()) {
    return;
  }
  const std::string reason = printable(status.error_message());
  switch (status.error_code()) {
    case grpc::StatusCode::UNAVAILABLE:
      if (const std::string who = hint(target_); !who.empty()) {
        throw RuntimeError("you may not use the daemon at " + target_ + ": " + who);
      }
      throw RuntimeError("no daemon answers at " + target_ + ": " + reason);
    case grpc::StatusCode::DEADLINE_EXCEEDED:
      throw RuntimeError("the daemon at " + target_ + " did not answer within " +
                         std::to_string(kCallTimeout.count()) + " seconds");
    case grpc::StatusCode::PERMISSION_DENIED:
      throw RuntimeError("the daemon at " + target_ + " refuses: " + reason);
    default:
      throw RuntimeError("the daemon at " + target_ + " answered: " + reason);
  }
}

void Client::check(const bess::pb::Error& error) const {
  if (error.code() == 0 && error.errmsg().empty()) {
    return;
  }
  throw RuntimeError(error.errmsg().empty() ? std::strerror(error.code())
                                            : printable(error.errmsg()));
}

bess::pb::CommandResponse Client::command(const std::string& module,
                                          const std::string& name,
                                          const google::protobuf::Any& arg) {
  bess::pb::ModuleCommandRequest request;
  request.set_module(module);
  request.set_command(name);
  *request.mutable_arg() = arg;
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + kCallTimeout);
  const auto call = stub_->AsyncModuleCommand(&context, request, &queue_->events);
  bess::pb::CommandResponse response;
  grpc::Status status;
  call->Finish(&response, &status, this);
  void* tag = nullptr;
  bool ok = false;
  queue_->wait.wait(
      [&] {
        return queue_->events.AsyncNext(&tag, &ok, gpr_time_0(GPR_CLOCK_MONOTONIC)) ==
               grpc::CompletionQueue::GOT_EVENT;
      },
      [&] { queue_->events.Next(&tag, &ok); });  // the deadline is an event, too
  check(status);
  check(response.error());
  return response;
}

bess::pb::CommandResponse Client::command(const std::string& module,
                                          const std::string& name,
                                          const google::protobuf::Message& arg) {
  google::protobuf::Any any;
  any.PackFrom(arg);
  return command(module, name, any);
}

void Client::commands(std::span<const bess::pb::ModuleCommandRequest* const> requests,
                      size_t& done) {
  while (!requests.empty()) {
    const size_t now = std::min(requests.size(), kMaxStreamed);
    stream(requests.first(now), done);
    requests = requests.subspan(now);
  }
}

// One thread writes and reads: what is under way is bounded, and its answers are a few bytes each,
// so that the daemon can always write them and never stops reading.
void Client::stream(std::span<const bess::pb::ModuleCommandRequest* const> requests, size_t& done) {
  constexpr size_t kUnderWay = 2048;  // commands
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + kCallTimeout);
  const auto call = stub_->ModuleCommandBatchStream(&context);
  bess::pb::CommandResponseBatch answers;
  size_t sent = 0;
  size_t answered = 0;
  bool open = true;
  while (open && answered < requests.size()) {
    while (open && sent < requests.size() && sent < answered + kUnderWay) {
      const LentBatch batch(requests.subspan(sent).first(batchSize(requests.subspan(sent))));
      open = call->Write(batch.message());
      sent += static_cast<size_t>(batch.message().commands_size());
    }
    open = open && call->Read(&answers);
    for (int i = 0; open && i < answers.responses_size(); ++i, ++answered, ++done) {
      if (const auto& error = answers.responses(i).error();
          error.code() != 0 || !error.errmsg().empty()) {
        context.TryCancel();
        call->Finish();
        check(error);
      }
    }
  }
  call->WritesDone();
  const grpc::Status status = call->Finish();
  if (answered < requests.size()) {  // else all is done, whatever became of the call
    check(status);
    throw RuntimeError("the daemon ended the stream of commands early");
  }
}

std::vector<char> Client::state(const std::string& module,
                                const std::string& name,
                                const std::string& arg) {
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + kCallTimeout);
  bess::pb::StateRequest request;
  request.set_module(module);
  request.set_name(name);
  request.set_arg(arg);
  const auto reader = stub_->GetState(&context, request);
  std::vector<char> text;
  bess::pb::StateChunk chunk;
  while (reader->Read(&chunk)) {
    check(chunk.error());
    if (text.size() + chunk.text().size() > kMaxStateBytes) {
      context.TryCancel();
      throw RuntimeError("state '" + printable(name) + "' is longer than " +
                         std::to_string(kMaxStateBytes) + " bytes");
    }
    text.insert(text.end(), chunk.text().begin(), chunk.text().end());
  }
  check(reader->Finish());
  return text;
}

std::vector<bess::pb::ModuleInfo> Client::modulesOf(const std::string& className) {
  std::vector<bess::pb::ModuleInfo> result;
  const auto all = call(&Stub::ListModules);
  for (const auto& info : all.modules()) {
    if (info.class_name() == className) {
      result.push_back(info);
    }
  }
  return result;
}

}  // namespace Sfectl
