// The stream of module commands: order, refusals, pauses, clients that leave or never read.
#include <gtest/gtest.h>

#include <functional>
#include <future>
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
    if (arg.name() == "meanwhile") {
      meanwhile_();
    }
    pb::NameRequest answer;
    answer.set_name((workersPaused() ? "paused " : "running ") + arg.name());
    runs_++;
    return CommandSuccess(answer);
  }
  static std::atomic<int> runs_;
  static std::function<void()> meanwhile_;
};
std::atomic<int> Streamed::runs_{0};
std::function<void()> Streamed::meanwhile_;

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

  static std::string textOf(const pb::CommandResponse& response) {
    pb::NameRequest text;
    response.data().UnpackTo(&text);
    return response.has_error() ? std::to_string(response.error().code()) : text.name();
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
      answers.push_back(textOf(response));
    }
    writer.join();
    const grpc::Status status = stream->Finish();
    EXPECT_TRUE(status.ok()) << status.error_message();
    return answers;
  }
};

// Returns when a writer that has begun writes no more: every buffer on the way is full.
void awaitRest(const std::atomic<int>& written) {
  int before = -1;
  while (before != written || written == 0) {
    before = written;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
  }
}

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

// Commands in messages of several.
class ControlServiceBatchTest : public ControlServiceStreamTest {
 protected:
  using Batches = grpc::ClientReaderWriter<pb::ModuleCommandBatch, pb::CommandResponseBatch>;
  using Answers = std::vector<std::vector<std::string>>;

  static pb::ModuleCommandBatch batch(const std::vector<pb::ModuleCommandRequest>& commands,
                                      bool untilRefused = false) {
    pb::ModuleCommandBatch message;
    for (const auto& command : commands) {
      *message.add_commands() = command;
    }
    message.set_until_refused(untilRefused);
    return message;
  }

  std::unique_ptr<Batches> openBatches(grpc::ClientContext& context) {
    context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(60));
    return stub_->ModuleCommandBatchStream(&context);
  }

  // The answers to all of them, message by message.
  Answers runBatches(const std::vector<pb::ModuleCommandBatch>& messages) {
    grpc::ClientContext context;
    auto stream = openBatches(context);
    std::thread writer([&] {
      for (const auto& message : messages) {
        stream->Write(message);
      }
      stream->WritesDone();
    });
    Answers answers;
    for (pb::CommandResponseBatch response; stream->Read(&response);) {
      answers.emplace_back();
      for (const pb::CommandResponse& one : response.responses()) {
        answers.back().push_back(textOf(one));
      }
    }
    writer.join();
    const grpc::Status status = stream->Finish();
    EXPECT_TRUE(status.ok()) << status.error_message();
    return answers;
  }
};

TEST_F(ControlServiceBatchTest, answersInOrder) {
  // More commands than run in one turn of the control thread, and messages of every size.
  std::vector<pb::ModuleCommandBatch> messages;
  Answers expected;
  int number = 0;
  for (const int size : {1, 300, 2, 0, 255, 256, 257, 1000, 1, 1, 1}) {
    std::vector<pb::ModuleCommandRequest> commands;
    expected.emplace_back();
    for (int i = 0; i < size; ++i, ++number) {
      commands.push_back(command("safe", std::to_string(number)));
      expected.back().push_back("running " + std::to_string(number));
    }
    messages.push_back(batch(commands));
  }
  EXPECT_EQ(runBatches(messages), expected);
  EXPECT_EQ(Streamed::runs_, number);
  EXPECT_TRUE(runBatches({}).empty());
}

TEST_F(ControlServiceBatchTest, goesOnAfterARefusedCommand) {
  auto elsewhere = command("safe", "x");
  elsewhere.set_module("two");
  EXPECT_EQ(runBatches({batch({command("safe", "a"),
                               command("safe", "refuse"),
                               elsewhere,
                               {},
                               command("safe", "throw"),
                               command("safe", "b")}),
                        batch({command("unsafe", "c")})}),
            (Answers{{"running a", std::to_string(EPERM), std::to_string(ENOENT),
                      std::to_string(ENOENT), std::to_string(EIO), "running b"},
                     {"paused c"}}));
}

TEST_F(ControlServiceBatchTest, endsWithARefusedCommandWhenAskedTo) {
  EXPECT_EQ(
      runBatches(
          {batch({command("safe", "a"), command("safe", "refuse")}),
           batch({command("safe", "b"), command("safe", "refuse"), command("safe", "c")}, true),
           batch({command("safe", "d")}), batch({command("safe", "e")}, true)}),
      (Answers{
          {"running a", std::to_string(EPERM)}, {"running b", std::to_string(EPERM)}, {}, {}}));
  EXPECT_EQ(Streamed::runs_, 2);
}

TEST_F(ControlServiceBatchTest, servesOthersBetweenTheTurnsOfAMessage) {
  // What is asked for while the first command runs has its turn before the last one.
  int runsBefore = 0;
  Streamed::meanwhile_ = [&] { control_.post([&] { runsBefore = Streamed::runs_; }); };
  std::vector<pb::ModuleCommandRequest> commands(5000, command("safe", "a"));
  commands[0] = command("safe", "meanwhile");
  EXPECT_EQ(runBatches({batch(commands)})[0].size(), 5000u);
  Streamed::meanwhile_ = nullptr;
  EXPECT_GT(runsBefore, 0);
  EXPECT_LT(runsBefore, 1000);
}

TEST_F(ControlServiceBatchTest, slowsDownAClientThatReadsNothing) {
  grpc::ClientContext context;
  auto stream = openBatches(context);
  const auto message =
      batch(std::vector<pb::ModuleCommandRequest>(100, command("safe", std::string(1000, 'x'))));
  std::atomic<int> written{0};
  std::thread writer([&] {
    while (stream->Write(message)) {
      written++;
    }
  });
  awaitRest(written);
  expectAlive(1);
  context.TryCancel();
  writer.join();
  EXPECT_EQ(stream->Finish().error_code(), grpc::StatusCode::CANCELLED);
  expectAlive(1);
}

// Commands that wait are bounded in bytes too: 256 of this size would be 230 MB.
TEST_F(ControlServiceStreamTest, holdsFewLargeCommandsThatHaveNotRun) {
  std::promise<void> go;
  control_.post([held = go.get_future().share()] { held.wait(); });
  grpc::ClientContext context;
  auto stream = open(context);
  std::atomic<int> written{0};
  std::thread writer([&] {
    const auto request = command("safe", std::string(900'000, 'x'));
    while (stream->Write(request)) {
      written++;
    }
  });
  awaitRest(written);
  EXPECT_LT(written, 20);
  context.TryCancel();
  writer.join();
  go.set_value();
  EXPECT_EQ(stream->Finish().error_code(), grpc::StatusCode::CANCELLED);
  expectAlive(1);
}

TEST_F(ControlServiceBatchTest, refusesAMessageThatIsTooLarge) {
  grpc::ClientContext context;
  auto stream = openBatches(context);
  const std::string text(100'000, 'x');
  stream->Write(batch(std::vector<pb::ModuleCommandRequest>(
      ControlServer::kMaxRequestBytes / text.size() + 1, command("safe", text))));
  pb::CommandResponseBatch answers;
  EXPECT_FALSE(stream->Read(&answers));
  EXPECT_FALSE(stream->Finish().ok());
  EXPECT_EQ(Streamed::runs_, 0);
  expectAlive(1);
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
  awaitRest(written);
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
  EXPECT_EQ(call(&Stub::DestroyModule, named("one")).error().code(), 0);
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
