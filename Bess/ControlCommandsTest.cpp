// The call ModuleCommand from outside: many at once, long commands, clients that leave or do not
// read, and the end.
#include "Bess/ControlCommands.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <future>
#include <thread>
#include <vector>

#include "Bess/ControlTestFixture.h"
#include "Bess/ModuleBuilder.h"
#include "protocol/health.grpc.pb.h"

namespace bess {
namespace {

// Answers with what it was given. "hold" takes until the test says so.
class Held final : public Module {
 public:
  CommandResponse run(const pb::NameRequest& arg) {
    if (arg.name() == "hold") {
      char name[16] = {};
      pthread_getname_np(pthread_self(), name, sizeof(name));
      holding_.set_value(name);
      released_.wait();
    }
    runs_++;
    return CommandSuccess(arg);
  }
  static void reset() {
    holding_ = {};
    release_ = {};
    released_ = release_.get_future().share();
    runs_ = 0;
  }
  static inline std::promise<std::string> holding_;  // by the thread of that name
  static inline std::promise<void> release_;
  static inline std::shared_future<void> released_;
  static inline std::atomic<int> runs_{0};
};

const ModuleRegistration<Held> kHeldClass(
    {.name = "Held",
     .help = "Answers",
     .commands = {makeCommand<&Held::run>("run", "NameRequest", GenericCommand::kThreadSafe)}});

class ControlCommandsTest : public ControlTest {
 protected:
  ControlCommandsTest() {
    Held::reset();
    pb::CreateModuleRequest request;
    request.set_class_name("Held");
    request.set_name("held");
    EXPECT_EQ(call(&Stub::CreateModule, request).error().errmsg(), "");
  }

  static pb::ModuleCommandRequest command(const std::string& name) {
    pb::ModuleCommandRequest request;
    request.set_module("held");
    request.set_command("run");
    request.mutable_arg()->PackFrom(named(name));
    return request;
  }

  // One call that is under way.
  struct Pending {
    Pending(Stub& stub, const std::string& name, grpc::CompletionQueue& queue) {
      context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(60));
      call = stub.AsyncModuleCommand(&context, command(name), &queue);
      call->Finish(&response, &status, this);
    }
    std::string answer() const {
      pb::NameRequest text;
      response.data().UnpackTo(&text);
      return text.name();
    }
    grpc::ClientContext context;
    std::unique_ptr<grpc::ClientAsyncResponseReader<pb::CommandResponse>> call;
    pb::CommandResponse response;
    grpc::Status status;
  };
  std::unique_ptr<Pending> send(Stub& stub, const std::string& name) {
    return std::make_unique<Pending>(stub, name, queue_);
  }
  // The next of them that has ended.
  Pending& next() {
    void* tag = nullptr;
    bool ok = false;
    EXPECT_TRUE(queue_.Next(&tag, &ok));
    return *static_cast<Pending*>(tag);
  }
  void finish(size_t calls) {
    while (calls-- > 0) {
      next();
    }
  }

  // A stub with a connection of its own.
  std::unique_ptr<Stub> connect() {
    grpc::ChannelArguments own;
    own.SetInt("test.own", ++connections_);
    return pb::BESSControl::NewStub(
        grpc::CreateCustomChannel("unix:" + socket_, grpc::InsecureChannelCredentials(), own));
  }

  // The control thread is busy until `done` is set.
  void keepBusy(std::promise<void>& done) {
    std::promise<void> begun;
    control_.post([&begun, until = done.get_future().share()] {
      begun.set_value();
      until.wait();
    });
    begun.get_future().wait();
  }

  std::string run(const std::string& name) {
    pb::NameRequest text;
    call(&Stub::ModuleCommand, command(name)).data().UnpackTo(&text);
    return text.name();
  }

  bool healthy() {
    const auto stub = grpc::health::v1::Health::NewStub(
        grpc::CreateChannel("unix:" + socket_, grpc::InsecureChannelCredentials()));
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(30));
    grpc::health::v1::HealthCheckResponse response;
    return stub->Check(&context, {}, &response).ok();
  }

  grpc::CompletionQueue queue_;
  int connections_ = 0;
};

TEST_F(ControlCommandsTest, givesEachCallItsOwnAnswer) {
  const auto other = connect();
  std::vector<std::unique_ptr<Pending>> calls;
  for (int i = 0; i < 200; ++i) {
    // As many at a time as one connection may have.
    if (i >= 16) {
      next();
    }
    calls.push_back(send(i % 2 == 0 ? *stub_ : *other, std::to_string(i)));
  }
  finish(16);
  for (size_t i = 0; i < calls.size(); ++i) {
    EXPECT_TRUE(calls[i]->status.ok()) << calls[i]->status.error_message();
    EXPECT_EQ(calls[i]->answer(), std::to_string(i));
  }
}

TEST_F(ControlCommandsTest, servesOtherCallsWhileALongCommandRuns) {
  const auto held = send(*connect(), "hold");
  // On the thread that took the call: the control thread had nothing to do.
  EXPECT_EQ(Held::holding_.get_future().get(), "bess-commands");
  for (int i = 0; i < 20; ++i) {
    EXPECT_TRUE(healthy());
  }
  // Further commands wait for their turn.
  const auto quick = send(*connect(), "quick");
  const auto stub = connect();
  grpc::ClientContext brief;
  brief.set_deadline(std::chrono::system_clock::now() + std::chrono::milliseconds(50));
  pb::CommandResponse response;
  EXPECT_EQ(stub->ModuleCommand(&brief, command("late"), &response).error_code(),
            grpc::StatusCode::DEADLINE_EXCEEDED);
  EXPECT_EQ(Held::runs_, 0);
  Held::release_.set_value();
  finish(2);
  EXPECT_EQ(held->answer(), "hold");
  EXPECT_EQ(quick->answer(), "quick");
}

TEST_F(ControlCommandsTest, handsCommandsOverWhileTheControlThreadIsBusy) {
  std::promise<void> done;
  keepBusy(done);
  const auto stub = connect();
  std::vector<std::unique_ptr<Pending>> waiting;
  for (size_t i = 0; i < ControlCommands::kMaxCalls; ++i) {
    waiting.push_back(send(i % 2 == 0 ? *stub_ : *stub, std::to_string(i)));
  }
  // One more than may wait; which of them it is depends on which arrives last.
  waiting.push_back(send(*connect(), std::to_string(waiting.size())));
  EXPECT_EQ(next().status.error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
  EXPECT_TRUE(healthy());
  EXPECT_EQ(Held::runs_, 0);
  done.set_value();
  finish(ControlCommands::kMaxCalls);
  size_t answered = 0;
  for (size_t i = 0; i < waiting.size(); ++i) {
    answered += waiting[i]->status.ok() && waiting[i]->answer() == std::to_string(i) ? 1 : 0;
  }
  EXPECT_EQ(answered, ControlCommands::kMaxCalls);
}

TEST_F(ControlCommandsTest, forgetsClientsThatLeaveWhileTheirCommandsWait) {
  for (int round = 0; round < 4; ++round) {
    std::promise<void> done;
    keepBusy(done);
    {
      std::vector<std::unique_ptr<Pending>> calls;
      for (size_t i = 0; i < ControlCommands::kMaxCalls; ++i) {
        calls.push_back(send(*connect(), "left"));
      }
      for (const auto& pending : calls) {
        pending->context.TryCancel();
      }
      finish(calls.size());
    }
    done.set_value();
  }
  EXPECT_EQ(run("here"), "here");
}

TEST_F(ControlCommandsTest, refusesRequestsThatItCannotRead) {
  constexpr const char* kMethod = "/bess.pb.BESSControl/ModuleCommand";
  const std::string bytes = command("x").SerializeAsString();
  for (size_t length = 0; length < bytes.size(); ++length) {
    sendRaw(kMethod, bytes.substr(0, length));
  }
  for (int i = 0; i < 200; ++i) {
    EXPECT_EQ(sendRaw(kMethod, std::string(100, '\xff')).error_code(), grpc::StatusCode::INTERNAL);
  }
  EXPECT_EQ(run("here"), "here");
}

TEST_F(ControlCommandsTest, refusesCommandsOnceTheControlThreadHasEnded) {
  call(&Stub::DestroyModule, named("held"));
  control_.stop();
  grpc::ClientContext context;
  pb::CommandResponse response;
  const grpc::Status status = stub_->ModuleCommand(&context, command("x"), &response);
  EXPECT_EQ(status.error_code(), grpc::StatusCode::UNAVAILABLE);
  EXPECT_EQ(status.error_message(), "the daemon is stopping");
}

TEST_F(ControlCommandsTest, endsWithCallsUnderWay) {
  std::promise<void> done;
  keepBusy(done);
  std::vector<std::unique_ptr<Pending>> calls;
  for (size_t i = 0; i < ControlCommands::kMaxCalls + 1; ++i) {
    calls.push_back(send(*connect(), "under way"));
  }
  // One is too many: the others have arrived.
  EXPECT_EQ(next().status.error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
  auto end = std::async(std::launch::async, [this] { server_.reset(); });
  // It has no more patience, and tells the clients so; the commands run all the same.
  finish(calls.size() - 1);
  EXPECT_EQ(end.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  EXPECT_EQ(Held::runs_, 0);
  done.set_value();
  end.get();
  EXPECT_EQ(Held::runs_, static_cast<int>(ControlCommands::kMaxCalls));
  for (const auto& pending : calls) {
    EXPECT_FALSE(pending->status.ok());
  }
}

TEST_F(ControlCommandsTest, endsAfterTheCommandThatRuns) {
  const auto held = send(*stub_, "hold");
  Held::holding_.get_future().wait();
  auto end = std::async(std::launch::async, [this] { server_.reset(); });
  finish(1);  // the server's patience
  EXPECT_EQ(end.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  EXPECT_EQ(Held::runs_, 0);
  Held::release_.set_value();
  end.get();
  EXPECT_EQ(Held::runs_, 1);
}

// --- a client that takes no answer

std::string frame(uint8_t type, uint8_t flags, uint32_t stream, const std::string& payload) {
  const auto byte = [](size_t value) { return static_cast<char>(value & 0xff); };
  return std::string{byte(payload.size() >> 16),
                     byte(payload.size() >> 8),
                     byte(payload.size()),
                     byte(type),
                     byte(flags),
                     byte(stream >> 24),
                     byte(stream >> 16),
                     byte(stream >> 8),
                     byte(stream)} +
         payload;
}

// The HTTP/2 of a client that calls, and gives the server no room for answers.
std::string callsWithoutRoom(const std::string& request, int calls) {
  constexpr std::string_view kPath = "/bess.pb.BESSControl/ModuleCommand";
  std::string headers = "\x83\x86";  // POST, http
  headers += std::string("\x04") + static_cast<char>(kPath.size()) + std::string(kPath);
  headers += std::string("\x01\x01x", 3);  // authority
  headers += std::string("\x0f\x10\x10", 3) + "application/grpc";
  headers += std::string("\x00\x02", 2) + "te" + "\x08" + "trailers";
  const std::string message = std::string(3, '\0') + static_cast<char>(request.size()) + request;
  std::string bytes = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n";
  bytes += frame(4, 0, 0, std::string("\x00\x04\x00\x00\x00\x00", 6));  // initial window: 0
  for (int i = 0; i < calls; ++i) {
    const auto stream = static_cast<uint32_t>(2 * i + 1);
    bytes += frame(1, 4, stream, headers) + frame(0, 1, stream, std::string(1, '\0') + message);
  }
  return bytes;
}

TEST_F(ControlCommandsTest, needsNoPlaceForClientsThatTakeNoAnswers) {
  const std::string bytes = callsWithoutRoom(command("unread").SerializeAsString(), 32);
  std::vector<int> clients;
  for (int i = 0; i < 8; ++i) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, socket_.c_str(), socket_.size());
    ASSERT_EQ(::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
    clients.push_back(fd);
  }
  // Their commands run, all of them, and others' too.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  int others = 0;
  while (Held::runs_ < 8 * 32 + others) {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline) << Held::runs_;
    ASSERT_EQ(run("read"), "read");
    ++others;
  }
  for (const int fd : clients) {
    close(fd);
  }
}

}  // namespace
}  // namespace bess
