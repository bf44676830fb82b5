// A control service with a real server on a Unix socket of its own, and a client of it.
#pragma once

#include <grpcpp/generic/generic_stub.h>
#include <gtest/gtest.h>
#include <rte_mempool.h>
#include <stdlib.h>
#include <urcu-qsbr.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>

#include "Bess/ControlServer.h"
#include "Bess/ControlService.h"
#include "Bess/ControlThread.h"
#include "Bess/ModuleGraph.h"
#include "Bess/PacketPool.h"
#include "Bess/PortRegistry.h"
#include "Bess/Worker.h"

namespace bess {

// A directory that goes with everything in it.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string name = (std::filesystem::temp_directory_path() / "controlXXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
      throw std::system_error(errno, std::generic_category(), name);
    }
    path_ = name;
  }
  ~TemporaryDirectory() { std::filesystem::remove_all(path_); }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  std::string file(const std::string& name) const { return path_ + "/" + name; }
  // How many entries it has.
  size_t entries() const {
    const std::filesystem::directory_iterator all(path_);
    return static_cast<size_t>(std::distance(begin(all), end(all)));
  }

 private:
  std::string path_;
};

class ControlTest : public testing::Test {
 protected:
  using Stub = pb::BESSControl::Stub;

  ControlTest() {
    if (PacketPool::defaultPool() == nullptr) {
      PacketPool::createDefaultPools(2047);
    }
    // The client waits for the control thread, which waits for readers: the client is none
    // meanwhile.
    urcu_qsbr_thread_offline();
    ControlExtensions extensions;
    extensions.version = "1.2.3";
    extensions.pluginDirectory = directory_.file("plugins");
    extensions.shutdown = [this] { shutdowns_++; };
    extensions.counterId = [](const std::string& name) -> uint32_t {
      if (name.empty()) {
        throw std::system_error(EINVAL, std::generic_category(), "a counter needs a name");
      }
      return 7;
    };
    extensions.settings = [this](pb::Settings* settings) {
      settings->set_publish_period_ms(period_);
    };
    extensions.setSettings = [this](const pb::Settings& wanted) {
      if (wanted.has_publish_period_ms() && wanted.publish_period_ms() == 0) {
        throw std::system_error(EINVAL, std::generic_category(), "no period");
      }
      period_ = wanted.has_publish_period_ms() ? wanted.publish_period_ms() : period_;
    };
    extensions.counters = [](pb::CountersResponse* response) {
      response->add_counters()->set_name("events");
    };
    extensions.states = {
        {"own", "Of the program", [](const std::string& arg) { return "own " + arg; }}};
    service_ = std::make_unique<ControlService>(control_, extensions);
    server_ = std::make_unique<ControlServer>(service_.get(), options_);
    channel_ = grpc::CreateChannel("unix:" + socket_, grpc::InsecureChannelCredentials());
    stub_ = pb::BESSControl::NewStub(channel_);
  }

  ~ControlTest() override {
    server_.reset();
    try {
      control_.call([] {
        destroyAllWorkers();
        ModuleGraph::destroyAllModules();
        PortRegistry::global().closeAll();
      });
    } catch (const std::system_error&) {
      // The test ended the control thread, and had nothing left then.
    }
    urcu_qsbr_thread_online();
  }

  // One call that must reach its handler.
  template <class Request, class Response>
  Response call(grpc::Status (Stub::*method)(grpc::ClientContext*, const Request&, Response*),
                const Request& request = Request()) {
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(30));
    Response response;
    const grpc::Status status = (stub_.get()->*method)(&context, request, &response);
    EXPECT_TRUE(status.ok()) << status.error_message();
    return response;
  }

  // Sends bytes as a request of a method, whatever they are.
  grpc::Status sendRaw(const std::string& method,
                       const std::string& bytes,
                       std::string* answer = nullptr) {
    grpc::GenericStub stub(channel_);
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(30));
    grpc::CompletionQueue queue;
    const grpc::Slice slice(bytes);
    const grpc::ByteBuffer request(&slice, 1);
    auto call = stub.PrepareUnaryCall(&context, method, request, &queue);
    call->StartCall();
    grpc::ByteBuffer response;
    grpc::Status status;
    call->Finish(&response, &status, nullptr);
    void* tag = nullptr;
    bool ok = false;
    queue.Next(&tag, &ok);
    grpc::Slice whole;
    if (answer != nullptr && status.ok() && response.DumpToSingleSlice(&whole).ok()) {
      answer->assign(reinterpret_cast<const char*>(whole.begin()), whole.size());
    }
    return status;
  }

  static pb::NameRequest named(const std::string& name) {
    pb::NameRequest request;
    request.set_name(name);
    return request;
  }

  // The daemon still answers, and its graph has that many modules.
  void expectAlive(int modules) { EXPECT_EQ(call(&Stub::ListModules).modules_size(), modules); }

  TemporaryDirectory directory_;
  const std::string socket_ = directory_.file("run/bessd.sock");
  const std::string readSocket_ = directory_.file("run/read.sock");
  const ControlServerOptions options_{.socket = socket_,
                                      .group = "",
                                      .readSocket = readSocket_,
                                      .readGroup = "",
                                      .listen = "",
                                      .tls = {}};
  std::atomic<int> shutdowns_{0};
  uint32_t period_ = 250;  // on the control thread
  ControlThread control_;
  std::unique_ptr<ControlService> service_;
  std::unique_ptr<ControlServer> server_;
  std::shared_ptr<grpc::Channel> channel_;
  std::unique_ptr<Stub> stub_;
};

}  // namespace bess
