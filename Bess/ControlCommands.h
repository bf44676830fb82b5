// Serves the call ModuleCommand of a control service: takes the calls from a completion queue on a
// thread of its own, which also runs their commands while the control thread has nothing to do.
//
// The server's own threads would take turns at looking for events and hand each call on: several
// wake-ups for a command of a few microseconds. This thread is the one that looks, and it waits
// awake for the next call of a client that sends one after another. While a command runs on it, the
// server's threads look in its place; further commands wait, as for the control thread.
//
// Threads    : construct, start and destroy on one thread.
// Ownership  : refers to the service and to the server that the builder makes. The server is shut
//              down before finish(), and destroyed after it: events that wait refer to it.
// Errors     : as of the service; a call beyond kMaxCalls has status RESOURCE_EXHAUSTED. The
//              transport itself ends calls whose request cannot be read.
// Invariants :
//   (1) the thread never waits for the control thread: what it may not run itself it hands over.
//   (2) of the calls that were taken, the commands of at most kMaxCalls have not run, and the
//       clients of as many have not read the answer; the oldest of these is ended to make room.
//       Calls that come while a command runs here wait in the transport, a bounded number for each
//       connection.
#pragma once

#include <grpcpp/grpcpp.h>

#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "Base/AwakeWait.h"
#include "Bess/ControlService.h"

namespace bess {

class ControlCommands {
 public:
  static constexpr size_t kMaxCalls = 32;

  ControlCommands(ControlService& service, grpc::ServerBuilder& builder);
  ~ControlCommands();
  ControlCommands(const ControlCommands&) = delete;
  ControlCommands& operator=(const ControlCommands&) = delete;

  // Once the server has started.
  void start();
  // Waits for the calls under way to end, and takes their last events. Requires: the server is shut
  // down, and not destroyed.
  void finish();

 private:
  class Call;

  void serve();
  bool next(void** tag, bool* ok);
  void proceed(Call& call, bool ok);
  void listen();
  void begin(Call& call);
  void endOldest();
  void release(Call& call);

  ControlService& service_;
  const std::unique_ptr<grpc::ServerCompletionQueue> queue_;
  std::thread thread_;
  bool drained_ = false;

  // The queue's thread.
  std::vector<std::unique_ptr<Call>> calls_;
  std::vector<Call*> free_;
  size_t open_ = 0;         // calls whose next event is to come
  size_t waiting_ = 0;      // calls that the control thread has
  bool listening_ = false;  // one of the calls is for the next client
  bool ended_ = false;      // no client will come any more
  AwakeWait<> wait_;
};

}  // namespace bess
