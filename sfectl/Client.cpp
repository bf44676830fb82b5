#include "sfectl/Client.h"

#include <cstring>

#include "sfectl/Errors.h"
#include "sfectl/Report.h"

namespace Sfectl {
namespace {

// A large route table of modules and ports fits; a daemon gone mad does not fill our memory.
constexpr int kMaxAnswerBytes = 64 << 20;
// The same for a state: several million routes.
constexpr size_t kMaxStateBytes = size_t{1} << 30;

}  // namespace

Client::Client(const std::string& target)
    : target_(target.starts_with('/') ? "unix:" + target : target) {
  grpc::ChannelArguments arguments;
  arguments.SetMaxReceiveMessageSize(kMaxAnswerBytes);
  // The daemon is on this machine: no proxy of the environment stands between.
  arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
  stub_ = bess::pb::BESSControl::NewStub(
      grpc::CreateCustomChannel(target_, grpc::InsecureChannelCredentials(), arguments));
}

void Client::check(const grpc::Status& status) const {
  if (status.ok()) {
    return;
  }
  const std::string reason = printable(status.error_message());
  switch (status.error_code()) {
    case grpc::StatusCode::UNAVAILABLE:
      throw RuntimeError("no daemon answers at " + target_ + ": " + reason);
    case grpc::StatusCode::DEADLINE_EXCEEDED:
      throw RuntimeError("the daemon at " + target_ + " did not answer within " +
                         std::to_string(kCallTimeout.count()) + " seconds");
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
  return call(&Stub::ModuleCommand, request);
}

bess::pb::CommandResponse Client::command(const std::string& module,
                                          const std::string& name,
                                          const google::protobuf::Message& arg) {
  google::protobuf::Any any;
  any.PackFrom(arg);
  return command(module, name, any);
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
