// The standard health service, asked over the daemon's sockets.
#include "Bess/ControlHealth.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

#include "Bess/ControlTestFixture.h"

namespace bess {
namespace {

using grpc::health::v1::Health;

class ControlHealthTest : public ControlTest {
 protected:
  using Response = ControlHealth::Response;

  // A client that watches, and its call.
  struct Watcher {
    Watcher(Health::Stub& stub, const std::string& service) {
      ControlHealth::Request request;
      request.set_service(service);
      context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(30));
      reader = stub.Watch(&context, request);
    }
    // Returns: what the server says next; UNKNOWN when it has ended the call.
    Response::ServingStatus next() {
      Response response;
      return reader->Read(&response) ? response.status() : Response::UNKNOWN;
    }
    grpc::ClientContext context;
    std::unique_ptr<grpc::ClientReader<Response>> reader;
  };

  std::unique_ptr<Watcher> watch(const std::string& service = "") {
    return std::make_unique<Watcher>(*health_, service);
  }

  static grpc::Status check(Health::Stub& stub, const std::string& service, Response* response) {
    ControlHealth::Request request;
    request.set_service(service);
    grpc::ClientContext context;
    return stub.Check(&context, request, response);
  }

  const std::unique_ptr<Health::Stub> health_ = Health::NewStub(channel_);
};

TEST_F(ControlHealthTest, answersOnEachSocket) {
  for (const std::string& socket : {socket_, readSocket_}) {
    const auto stub =
        Health::NewStub(grpc::CreateChannel("unix:" + socket, grpc::InsecureChannelCredentials()));
    for (const char* service : {"", "bess.pb.BESSControl"}) {
      Response response;
      EXPECT_TRUE(check(*stub, service, &response).ok());
      EXPECT_EQ(response.status(), Response::SERVING) << socket << service;
    }
  }
}

TEST_F(ControlHealthTest, knowsNoOtherService) {
  Response response;
  EXPECT_EQ(check(*health_, "bess.pb.Other", &response).error_code(), grpc::StatusCode::NOT_FOUND);
  EXPECT_EQ(watch("bess.pb.Other")->next(), Response::SERVICE_UNKNOWN);
}

TEST_F(ControlHealthTest, tellsWhoWatchesThatItStops) {
  const auto watcher = watch();
  EXPECT_EQ(watcher->next(), Response::SERVING);
  const auto start = std::chrono::steady_clock::now();
  std::thread stop([this] { server_.reset(); });
  EXPECT_EQ(watcher->next(), Response::NOT_SERVING);
  EXPECT_EQ(watcher->next(), Response::UNKNOWN);
  EXPECT_EQ(watcher->reader->Finish().error_code(), grpc::StatusCode::UNAVAILABLE);
  stop.join();
  // Nobody who watches makes it wait as long as it has patience with calls.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

TEST_F(ControlHealthTest, letsAFewWatchAtATime) {
  std::vector<std::unique_ptr<Watcher>> watchers;
  for (int i = 0; i < ControlHealth::kMaxWatches; ++i) {
    watchers.push_back(watch());
    EXPECT_EQ(watchers.back()->next(), Response::SERVING);
  }
  const auto refused = watch();
  EXPECT_EQ(refused->next(), Response::UNKNOWN);
  EXPECT_EQ(refused->reader->Finish().error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
  expectAlive(0);
  // One that goes makes room.
  watchers.front()->context.TryCancel();
  watchers.front()->reader->Finish();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (watch()->next() != Response::SERVING) {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline);
  }
}

}  // namespace
}  // namespace bess
