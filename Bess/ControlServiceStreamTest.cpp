// The stream of module commands: order, refusals, pauses, clients that leave or never read.
#include <gtest/gtest.h>

#include <map>
#include <thread>
#include <vector>

#include "Bess/ControlService.h"
#include "Bess/ControlTestFixture.h"
#include "Bess/ModuleBuilder.h"
#include "Bess/Worker.h"

namespace bess {
namespace {

// Answers with what it was given, and with whether the workers stood still meanwhile.
class Streamed final : public Module {
 public:
  CommandResponse run(const pb::NameRequest& arg) {
    if (arg.name() == "refuse") {
      return CommandFailure(EPERM, "refused");
    }
    if (arg.name() == "throw") {
      throw std::system_error(EIO, std::generic_category(), "it broke");
    }
    pb::NameRequest answer;
    answer.set_name((workersPaused() ? "paused " : "running ") + arg.name());
    runs_++;
    return CommandSuccess(answer);
  }
  static std::atomic<int> runs_;
};
std::atomic<int> Streamed::runs_{0};

const ModuleRegistration<Streamed> kStreamedClass(
    {.name = "Streamed",
     .help = "Answers",
     .commands = {makeCommand<&Streamed::run>("safe", "NameRequest", GenericCommand::kThreadSafe),
                  makeCommand<&Streamed::run>("unsafe", "NameRequest")}});

class ControlServiceStreamTest : public ControlTest {
 protected:
  using Stream = grpc::ClientReaderWriter<pb::ModuleCommandRequest, pb::CommandResponse>;

  ControlServiceStreamTest() {
    pb::CreateModuleRequest request;
    request.set_class_name("Streamed");
    request.set_name("one");
    EXPECT_EQ(call(&Stub::CreateModule, request).error().errmsg(), "");
    Streamed::runs_ = 0;
  }

  static pb::ModuleCommandRequest command(const std::string& name, const std::string& arg) {
    pb::ModuleCommandRequest request;
    request.set_module("one");
    request.set_command(name);
    request.mutable_arg()->PackFrom(named(arg));
    return request;
  }

  std::unique_ptr<Stream> open(grpc::ClientContext& context) {
    context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(60));
    return stub_->ModuleCommandStream(&context);
  }

  // The answers to all of them, which are sent before the first answer is read.
  std::vector<std::string> run(const std::vector<pb::ModuleCommandRequest>& commands) {
    grpc::ClientContext context;
    auto stream = open(context);
    std::thread writer([&] {
      for (const auto& request : commands) {
        stream->Write(request);
      }
      stream->WritesDone();
    });
    std::vector<std::string> answers;
    for (pb::CommandResponse response; stream->Read(&response);) {
      pb::NameRequest text;
      response.data().UnpackTo(&text);
      answers.push_back(response.has_error() ? std::to_string(response.error().code())
                                             : text.name());
    }
    writer.join();
    const grpc::Status status = stream->Finish();
    EXPECT_TRUE(status.ok()) << status.error_message();
    return answers;
  }
};

TEST_F(ControlServiceStreamTest, answersInOrder) {
  std::vector<pb::ModuleCommandRequest> commands;
  for (int i = 0; i < 5000; ++i) {
    commands.push_back(command("safe", std::to_string(i)));
  }
  const auto answers = run(commands);
  ASSERT_EQ(answers.size(), commands.size());
  for (int i = 0; i < 5000; ++i) {
    ASSERT_EQ(answers[i], "running " + std::to_string(i));
  }
  EXPECT_TRUE(run({}).empty());
}

TEST_F(ControlServiceStreamTest, goesOnAfterARefusedCommand) {
  auto elsewhere = command("safe", "x");
  elsewhere.set_module("two");
  auto senseless = command("safe", "x");
  senseless.mutable_arg()->set_value("\xff\xff");
  EXPECT_EQ(run({command("safe", "a"),
                 command("safe", "refuse"),
                 command("safe", "throw"),
                 command("nothing", "x"),
                 elsewhere,
                 {},
                 senseless,
                 command("safe", "b")}),
            (std::vector<std::string>{"running a", std::to_string(EPERM), std::to_string(EIO),
                                      std::to_string(ENOENT), std::to_string(ENOENT),
                                      std::to_string(ENOENT), "running ", "running b"}));
}

TEST_F(ControlServiceStreamTest, pausesForItselfOnly) {
  EXPECT_EQ(call(&Stub::AddWorker, pb::AddWorkerRequest()).error().code(), 0);
  EXPECT_EQ(run({command("safe", "a"), command("unsafe", "b"), command("safe", "c")}),
            (std::vector<std::string>{"running a", "paused b", "running c"}));
}

TEST_F(ControlServiceStreamTest, answersEachCommandWhenItIsWaitedFor) {
  grpc::ClientContext context;
  auto stream = open(context);
  pb::CommandResponse response;
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(stream->Write(command("safe", std::to_string(i))));
    ASSERT_TRUE(stream->Read(&response));
  }
  stream->WritesDone();
  EXPECT_FALSE(stream->Read(&response));
  EXPECT_TRUE(stream->Finish().ok());
}

TEST_F(ControlServiceStreamTest, servesOthersMeanwhile) {
  grpc::ClientContext context;
  auto stream = open(context);
  ASSERT_TRUE(stream->Write(command("safe", "a")));
  expectAlive(1);
  EXPECT_EQ(run({command("safe", "b")}).size(), 1u);
  context.TryCancel();
  EXPECT_EQ(stream->Finish().error_code(), grpc::StatusCode::CANCELLED);
}

TEST_F(ControlServiceStreamTest, slowsDownAClientThatReadsNothing) {
  grpc::ClientContext context;
  auto stream = open(context);
  std::atomic<int> written{0};
  std::thread writer([&] {
    const auto request = command("safe", std::string(1000, 'x'));
    while (stream->Write(request)) {
      written++;
    }
  });
  // It comes to rest: nothing more is taken once every buffer on the way is full.
  int before = -1;
  while (before != written || written == 0) {
    before = written;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
  }
  EXPECT_LT(written, 1000000);
  expectAlive(1);
  context.TryCancel();
  writer.join();
  EXPECT_EQ(stream->Finish().error_code(), grpc::StatusCode::CANCELLED);
  expectAlive(1);
}

TEST_F(ControlServiceStreamTest, refusesMoreStreamsThanItServes) {
  std::vector<std::unique_ptr<grpc::ClientContext>> contexts;
  std::vector<std::unique_ptr<Stream>> streams;
  pb::CommandResponse response;
  for (int i = 0; i < ControlService::kMaxStreams; ++i) {
    contexts.push_back(std::make_unique<grpc::ClientContext>());
    streams.push_back(open(*contexts.back()));
    ASSERT_TRUE(streams.back()->Write(command("safe", "a")));
    ASSERT_TRUE(streams.back()->Read(&response));
  }
  grpc::ClientContext context;
  auto refused = open(context);
  EXPECT_FALSE(refused->Read(&response));
  EXPECT_EQ(refused->Finish().error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
  expectAlive(1);
  for (auto& stream : streams) {
    stream->WritesDone();
    EXPECT_TRUE(stream->Finish().ok());
  }
}

TEST_F(ControlServiceStreamTest, endsWithTheServer) {
  grpc::ClientContext context;
  auto stream = open(context);
  ASSERT_TRUE(stream->Write(command("safe", "a")));
  pb::CommandResponse response;
  ASSERT_TRUE(stream->Read(&response));
  server_.reset();
  EXPECT_FALSE(stream->Read(&response));
  EXPECT_FALSE(stream->Finish().ok());
}

TEST_F(ControlServiceStreamTest, endsWithTheControlThread) {
  control_.stop();
  grpc::ClientContext context;
  auto stream = open(context);
  stream->Write(command("safe", "a"));
  pb::CommandResponse response;
  EXPECT_FALSE(stream->Read(&response));
  EXPECT_FALSE(stream->Finish().ok());
}

}  // namespace
}  // namespace bess
