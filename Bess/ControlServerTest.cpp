// The service from outside: what the transport refuses, what hostile clients can do, health, and
// the end.
#include "Bess/ControlServer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <thread>
#include <vector>

#include "Bess/ControlTestFixture.h"

namespace bess {
namespace {

class ControlServerTest : public ControlTest {
 protected:
  ControlServerOptions on(const std::string& socket, const std::string& listen) const {
    ControlServerOptions options;
    options.socket = directory_.file(socket);
    options.listen = listen;
    return options;
  }

  static constexpr const char* kCreateModule = "/bess.pb.BESSControl/CreateModule";
};

TEST_F(ControlServerTest, takesRequestsUpToItsLimitAndNoneBeyond) {
  pb::ModuleCommandRequest request;
  request.set_module("m");
  request.mutable_arg()->set_value(std::string(ControlServer::kMaxRequestBytes - 1000, 'x'));
  EXPECT_EQ(call(&Stub::ModuleCommand, request).error().code(), ENOENT);
  request.mutable_arg()->set_value(std::string(ControlServer::kMaxRequestBytes, 'x'));
  grpc::ClientContext context;
  pb::CommandResponse response;
  EXPECT_EQ(stub_->ModuleCommand(&context, request, &response).error_code(),
            grpc::StatusCode::RESOURCE_EXHAUSTED);
  expectAlive(0);
}

TEST_F(ControlServerTest, refusesTruncatedAndSenselessRequests) {
  pb::CreateModuleRequest good;
  good.set_class_name("Sink");
  good.set_name("sink");
  const std::string bytes = good.SerializeAsString();
  for (size_t length = 1; length < bytes.size(); ++length) {
    // A cut between two fields is a whole, smaller message: it names a class that is not there, or
    // no name.
    if (sendRaw(kCreateModule, bytes.substr(0, length)).ok()) {
      EXPECT_EQ(length, good.class_name().size() + 2);
      call(&Stub::DestroyModule, named("sink0"));
    }
  }
  for (const std::string& senseless :
       {std::string(100, '\xff'), std::string("\x0a\xff\xff\xff\xff\x0f"),
        std::string("\x0a\x02\xc3\x28")}) {
    EXPECT_FALSE(sendRaw(kCreateModule, senseless).ok());
  }
  expectAlive(0);
}

TEST_F(ControlServerTest, refusesMethodsThatItDoesNotHave) {
  EXPECT_EQ(sendRaw("/bess.pb.BESSControl/Nothing", "").error_code(),
            grpc::StatusCode::UNIMPLEMENTED);
}

TEST_F(ControlServerTest, survivesClientsThatDoNotSpeakItsProtocol) {
  std::vector<int> clients;
  for (const std::string& noise :
       {std::string("GET / HTTP/1.0\r\n\r\n"), std::string(4096, '\0'), std::string()}) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, socket_.c_str(), socket_.size());
    ASSERT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(send(fd, noise.data(), noise.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(noise.size()));
    clients.push_back(fd);
  }
  expectAlive(0);
  for (const int fd : clients) {
    close(fd);
  }
  expectAlive(0);
}

TEST_F(ControlServerTest, servesManyClientsAtOnce) {
  std::vector<std::thread> clients;
  std::atomic<int> answers{0};
  for (int i = 0; i < 8; ++i) {
    clients.emplace_back([this, &answers] {
      const auto stub = pb::BESSControl::NewStub(channel_);
      for (int n = 0; n < 20; ++n) {
        grpc::ClientContext context;
        pb::VersionResponse response;
        answers += stub->GetVersion(&context, {}, &response).ok() ? 1 : 0;
      }
    });
  }
  for (std::thread& client : clients) {
    client.join();
  }
  EXPECT_EQ(answers, 160);
}

TEST_F(ControlServerTest, reportsItsHealth) {
  for (const std::string& service : {std::string(), std::string("bess.pb.BESSControl")}) {
    // HealthCheckRequest{service = 1}, HealthCheckResponse{status = 1}: SERVING is 1.
    const std::string request =
        service.empty() ? "" : "\x0a" + std::string(1, static_cast<char>(service.size())) + service;
    std::string answer;
    EXPECT_TRUE(sendRaw("/grpc.health.v1.Health/Check", request, &answer).ok());
    EXPECT_EQ(answer, "\x08\x01");
  }
}

TEST_F(ControlServerTest, describesItselfByReflection) {
  // ServerReflectionRequest{list_services = 7: ""}; the answer names the services.
  std::string answer;
  EXPECT_TRUE(sendRaw("/grpc.reflection.v1alpha.ServerReflection/ServerReflectionInfo",
                      std::string("\x3a\x00", 2), &answer)
                  .ok());
  EXPECT_NE(answer.find("bess.pb.BESSControl"), std::string::npos);
}

TEST_F(ControlServerTest, refusesCallsOnceTheControlThreadHasEnded) {
  control_.stop();
  grpc::ClientContext context;
  pb::VersionResponse response;
  const grpc::Status status = stub_->GetVersion(&context, {}, &response);
  EXPECT_EQ(status.error_code(), grpc::StatusCode::UNAVAILABLE);
  EXPECT_EQ(status.error_message(), "the daemon is stopping");
}

TEST_F(ControlServerTest, refusesASecondServerOnTheSameSocket) {
  ControlService other(control_, {});
  EXPECT_THROW(ControlServer(&other, options_), ControlSocketError);
  expectAlive(0);
}

TEST_F(ControlServerTest, listensOnTheLoopbackWhenAsked) {
  ControlService other(control_, {});
  const ControlServer server(&other, on("other.sock", "127.0.0.1:0"));
  ASSERT_NE(server.tcpPort(), 0);
  const std::string address = "127.0.0.1:" + std::to_string(server.tcpPort());
  const auto stub =
      pb::BESSControl::NewStub(grpc::CreateChannel(address, grpc::InsecureChannelCredentials()));
  grpc::ClientContext context;
  pb::VersionResponse response;
  EXPECT_TRUE(stub->GetVersion(&context, {}, &response).ok());
  // The port is not shared with a second server.
  ControlService third(control_, {});
  EXPECT_THROW(ControlServer(&third, on("third.sock", address)), ControlSocketError);
}

TEST_F(ControlServerTest, leavesNoSocketBehind) {
  server_.reset();
  EXPECT_TRUE(std::filesystem::is_empty(directory_.file("run")));
}

}  // namespace
}  // namespace bess
