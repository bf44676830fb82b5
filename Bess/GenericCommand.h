// Named commands of a module class, and the answers they give.
//
// Threads    : commands run on the control thread. One that is flagged thread-safe runs while
//              workers forward; before any other the workers are paused.
// Errors     : a handler answers CommandFailure or throws; an exception becomes a failure with its
//              text (see failureFromException).
#pragma once

#include <google/protobuf/any.pb.h>
#include <google/protobuf/message.h>

#include <concepts>
#include <exception>
#include <functional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "protocol/bess.pb.h"

class Module;

using CommandResponse = bess::pb::CommandResponse;

CommandResponse CommandSuccess();                                       // NOLINT
CommandResponse CommandSuccess(const google::protobuf::Message& data);  // NOLINT
// A failure with an errno value and a printf text.
[[gnu::format(printf, 2, 3)]] CommandResponse CommandFailure(  // NOLINT
    int errnoValue,
    const char* fmt,
    ...);

// The failure that an exception stands for: errno from std::system_error (and what derives from
// it), ENOMEM for std::bad_alloc, EINVAL for any other; the text is what().
bess::pb::Error errorFromException(std::exception_ptr exception);
CommandResponse failureFromException(std::exception_ptr exception);

struct GenericCommand {
  enum ThreadSafe { kUnsafe = 0, kThreadSafe = 1 };

  std::string name;
  std::string argType;  // as the class's author names it, for example "SizeArg"
  std::function<CommandResponse(Module*, const google::protobuf::Any&)> run;
  ThreadSafe threadSafe = kUnsafe;
  std::string argFullName = {};  // the message's full name; empty when the command does not say
};

using Commands = std::vector<GenericCommand>;

// The init function of a class: unpacks the argument of an instance's creation.
class ModuleInit {
 public:
  ModuleInit() = default;  // a class whose instances need no argument
  template <class F>
  requires std::is_invocable_r_v<CommandResponse, F, Module*, const google::protobuf::Any&>
  ModuleInit(F run, std::string argFullName = {})  // NOLINT(google-explicit-constructor)
      : run_(std::move(run)), argFullName_(std::move(argFullName)) {}

  CommandResponse operator()(Module* module, const google::protobuf::Any& arg) const {
    return run_ ? run_(module, arg) : CommandSuccess();
  }
  const std::string& argFullName() const { return argFullName_; }

 private:
  std::function<CommandResponse(Module*, const google::protobuf::Any&)> run_;
  std::string argFullName_;
};

namespace bess::detail {

template <class Method>
struct Handler;
template <class M, class A>
struct Handler<CommandResponse (M::*)(const A&)> {
  static_assert(std::derived_from<A, google::protobuf::Message>);
  using ModuleType = M;
  using ArgType = A;
};

// Unpacks and calls. An argument of another type reaches the handler as an empty message.
template <auto kMethod>
CommandResponse callHandler(Module* module, const google::protobuf::Any& any) {
  using H = Handler<decltype(kMethod)>;
  typename H::ArgType arg;
  static_cast<void>(any.UnpackTo(&arg));
  return (static_cast<typename H::ModuleType*>(module)->*kMethod)(arg);
}

}  // namespace bess::detail

// A command that calls `kMethod`, a CommandResponse (M::*)(const Arg&) of the module's class M.
template <auto kMethod>
GenericCommand makeCommand(std::string name,
                           std::string argType,
                           GenericCommand::ThreadSafe threadSafe = GenericCommand::kUnsafe) {
  using Arg = typename bess::detail::Handler<decltype(kMethod)>::ArgType;
  return {std::move(name), std::move(argType), &bess::detail::callHandler<kMethod>, threadSafe,
          Arg::descriptor()->full_name()};
}

template <auto kMethod>
ModuleInit makeInit() {
  using Arg = typename bess::detail::Handler<decltype(kMethod)>::ArgType;
  return {&bess::detail::callHandler<kMethod>, Arg::descriptor()->full_name()};
}
