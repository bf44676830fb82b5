// Clients that mean harm, or are broken: each gets an error or is disconnected, and the daemon
// stays as it was.
#include <dirent.h>
#include <fcntl.h>
#include <grpcpp/generic/generic_stub.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "Bess/ControlTestFixture.h"

namespace bess {
namespace {

constexpr std::string_view kPreface = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n";

// A connection that speaks whatever bytes it is given.
class RawClient {
 public:
  explicit RawClient(const std::string& path)
      : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size());
    connected_ =
        fd_ >= 0 && connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  }
  ~RawClient() {
    if (fd_ >= 0) {
      close(fd_);
    }
  }
  RawClient(RawClient&& other) noexcept
      : fd_(std::exchange(other.fd_, -1)), connected_(other.connected_) {}
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  bool connected() const { return connected_; }
  // As much of it as the server takes.
  void say(std::string_view bytes) const {
    EXPECT_NE(send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL), 0);
  }

 private:
  int fd_;
  bool connected_ = false;
};

size_t openFiles() {
  size_t count = 0;
  DIR* directory = opendir("/proc/self/fd");
  while (readdir(directory) != nullptr) {  // NOLINT(concurrency-mt-unsafe): a directory of its own
    ++count;
  }
  closedir(directory);
  return count;
}

// An HTTP/2 frame whose header says what it likes.
std::string frame(uint32_t length,
                  uint8_t type,
                  uint8_t flags,
                  uint32_t stream,
                  const std::string& payload) {
  const auto byte = [](uint32_t value) { return static_cast<char>(value & 0xff); };
  return std::string{byte(length >> 16), byte(length >> 8), byte(length),
                     byte(type),         byte(flags),       byte(stream >> 24),
                     byte(stream >> 16), byte(stream >> 8), byte(stream)} +
         payload;
}

class ControlHostileTest : public ControlTest {
 protected:
  static grpc::Status sendBytes(const std::shared_ptr<grpc::Channel>& channel,
                                const std::string& method,
                                const std::string& bytes) {
    grpc::GenericStub stub(channel);
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(30));
    grpc::CompletionQueue queue;
    const grpc::Slice slice(bytes);
    const grpc::ByteBuffer request(&slice, 1);
    auto unary = stub.PrepareUnaryCall(&context, "/bess.pb.BESSControl/" + method, request, &queue);
    unary->StartCall();
    grpc::ByteBuffer response;
    grpc::Status status;
    unary->Finish(&response, &status, nullptr);
    void* tag = nullptr;
    bool ok = false;
    queue.Next(&tag, &ok);
    return status;
  }

  // Clients that went leave nothing in the process.
  static void expectFilesAgain(size_t before) {
    for (int i = 0; i < 2000 && openFiles() > before; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_LE(openFiles(), before);
  }
};

TEST_F(ControlHostileTest, survivesBrokenFrames) {
  const std::string settings = frame(0, 4, 0, 0, "");
  const std::string zeros(64, '\0');
  std::vector<std::string> conversations = {
      std::string(kPreface.substr(0, 10)),
      std::string(kPreface) + frame(0xffffff, 4, 0, 0, zeros),       // settings of 16 MB
      std::string(kPreface) + frame(5, 4, 0, 0, "abcde"),            // no whole setting
      std::string(kPreface) + settings + frame(64, 1, 4, 1, zeros),  // headers of zeros
      std::string(kPreface) + settings + frame(4, 1, 4, 1, "\xff\xff\xff\xff"),
      std::string(kPreface) + settings + frame(8, 0, 0, 9, "no such "),  // data of no call
      std::string(kPreface) + settings + frame(4, 8, 0, 0, std::string(4, '\0')),
      std::string(kPreface) + settings + frame(64, 9, 4, 1, zeros),  // continues nothing
      std::string(kPreface) + settings + frame(1, 1, 0, 1, "\x82"),  // headers that never end
  };
  std::mt19937 random(7);
  for (int i = 0; i < 200; ++i) {
    std::string noise(random() % 300, '\0');
    for (char& c : noise) {
      c = static_cast<char>(random());
    }
    conversations.push_back(std::string(kPreface) + settings + noise);
  }
  expectAlive(0);
  const size_t before = openFiles();
  for (const std::string& conversation : conversations) {
    const RawClient client(socket_);
    ASSERT_TRUE(client.connected());
    client.say(conversation);
  }
  expectAlive(0);
  expectFilesAgain(before);
}

TEST_F(ControlHostileTest, servesOthersWhileHundredsHoldHalfOpenConnections) {
  expectAlive(0);
  const size_t before = openFiles();
  {
    std::vector<RawClient> clients;
    for (int i = 0; i < 300; ++i) {
      clients.emplace_back(i % 2 == 0 ? socket_ : readSocket_);
      ASSERT_TRUE(clients.back().connected()) << i;
      clients.back().say(kPreface.substr(0, static_cast<size_t>(1 + i % 20)));
    }
    const auto channel = grpc::CreateChannel("unix:" + socket_, grpc::InsecureChannelCredentials());
    EXPECT_TRUE(sendBytes(channel, "GetVersion", "").ok());
    expectAlive(0);
  }
  expectFilesAgain(before);
}

TEST_F(ControlHostileTest, refusesMessagesThatNestTooDeep) {
  // A group within a group within a group ...: a parser that recurses without end would crash.
  EXPECT_FALSE(sendBytes(channel_, "GetVersion", std::string(500'000, '\x0b')).ok());
  // The same inside the argument of a command: nobody looks into it before its type is known.
  pb::CreateModuleRequest request;
  request.set_class_name("Source");
  request.mutable_arg()->set_type_url("type.googleapis.com/bess.pb.SourceArg");
  request.mutable_arg()->set_value(std::string(500'000, '\x0b'));
  EXPECT_NE(call(&Stub::CreateModule, request).error().code(), 0);
  expectAlive(0);
}

TEST_F(ControlHostileTest, refusesArgumentsOfOtherTypes) {
  pb::CreateModuleRequest sink;
  sink.set_class_name("Sink");
  sink.set_name("sink");
  ASSERT_FALSE(call(&Stub::CreateModule, sink).has_error());
  for (const char* type :
       {"", "no-slash", "/", "type.googleapis.com/", "type.googleapis.com/bess.pb.HookRequest",
        "type.googleapis.com/no.such.Type", "type.googleapis.com/google.protobuf.Any"}) {
    for (const std::string& value : {std::string(), std::string(50, '\xff')}) {
      pb::CreateModuleRequest request;
      request.set_class_name("Source");
      request.set_name("source");
      request.mutable_arg()->set_type_url(type);
      request.mutable_arg()->set_value(value);
      EXPECT_NE(call(&Stub::CreateModule, request).error().code(), 0) << type;
      pb::ModuleCommandRequest command;
      command.set_module("sink");
      command.set_command("nothing");
      *command.mutable_arg() = request.arg();
      EXPECT_NE(call(&Stub::ModuleCommand, command).error().code(), 0) << type;
    }
  }
  expectAlive(1);
}

TEST_F(ControlHostileTest, refusesEveryTruncationOfAMessageWithAnArgument) {
  pb::CreateModuleRequest request;
  request.set_class_name("NoSuchClass");
  request.set_name("m");
  request.mutable_arg()->PackFrom(named("inner"));
  const std::string bytes = request.SerializeAsString();
  for (size_t length = 0; length < bytes.size(); ++length) {
    sendBytes(channel_, "CreateModule", bytes.substr(0, length));
  }
  expectAlive(0);
}

TEST_F(ControlHostileTest, survivesClientsThatLeaveInTheMiddleOfTheirCalls) {
  for (int i = 0; i < 100; ++i) {
    grpc::ChannelArguments own;
    own.SetInt("test.own", i);
    const auto channel =
        grpc::CreateCustomChannel("unix:" + socket_, grpc::InsecureChannelCredentials(), own);
    const auto stub = pb::BESSControl::NewStub(channel);
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + std::chrono::microseconds(i * 20));
    pb::StatsResponse response;
    stub->GetStats(&context, {}, &response);
  }
  expectAlive(0);
}

}  // namespace
}  // namespace bess
