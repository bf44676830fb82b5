// The control service's requests about state texts.
#include <algorithm>
#include <cerrno>
#include <string>
#include <system_error>

#include "Bess/ControlService.h"
#include "Bess/ModuleBuilder.h"
#include "Bess/ModuleGraph.h"

namespace bess {
namespace {

constexpr size_t kChunkBytes = 64 << 10;

[[noreturn]] void refuse(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

}  // namespace

const std::vector<State>& ControlService::statesOf(const std::string& module) const {
  if (module.empty()) {
    return extensions_.states;
  }
  const Module* found = ModuleGraph::findModule(module);
  if (found == nullptr) {
    refuse(ENOENT, "no module '" + module + "'");
  }
  return found->states();
}

void ControlService::handleListStates(const pb::NameRequest& request,
                                      pb::ListStatesResponse* response) {
  for (const State& state : statesOf(request.name())) {
    pb::StateInfo* info = response->add_states();
    info->set_name(state.name);
    info->set_help(state.help);
  }
}

std::string ControlService::stateText(const pb::StateRequest& request) const {
  const std::vector<State>& states = statesOf(request.module());
  const State* state = findState(states, request.name());
  if (state == nullptr) {
    refuse(ENOENT, (request.module().empty() ? "the daemon" : "module '" + request.module() + "'") +
                       " has no state '" + request.name() + "' (there are: " + stateNames(states) +
                       ")");
  }
  return state->text(request.arg());
}

bool ControlService::takeStream() {
  if (streams_.fetch_add(1, std::memory_order_relaxed) < kMaxStreams) {
    return true;
  }
  returnStream();
  return false;
}

grpc::Status ControlService::GetState(grpc::ServerContext* context,
                                      const pb::StateRequest* request,
                                      grpc::ServerWriter<pb::StateChunk>* writer) {
  if (!takeStream()) {
    return {grpc::StatusCode::RESOURCE_EXHAUSTED, "too many streaming calls at once"};
  }
  struct Slot {
    ControlService& service;
    ~Slot() { service.returnStream(); }
  } const slot{*this};
  std::string text;
  pb::StateChunk chunk;
  const grpc::Status status = onControlThread([&] {
    // Whoever gave up while the call waited for its turn costs nothing more.
    if (context->IsCancelled()) {
      return;
    }
    try {
      text = stateText(*request);
    } catch (...) {
      *chunk.mutable_error() = currentError();
    }
  });
  bool reading = status.ok();
  if (reading && chunk.has_error()) {
    reading = writer->Write(chunk);
  }
  for (size_t at = 0; reading && at < text.size(); at += kChunkBytes) {
    chunk.set_text(text.data() + at, std::min(kChunkBytes, text.size() - at));
    reading = writer->Write(chunk);
  }
  if (!status.ok()) {
    return status;
  }
  return reading && !context->IsCancelled()
             ? grpc::Status::OK
             : grpc::Status(grpc::StatusCode::CANCELLED, "the client gave up");
}

}  // namespace bess
