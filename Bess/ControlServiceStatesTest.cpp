// State texts over the socket: whole, in pieces, refused, given up.
#include <gtest/gtest.h>

#include <future>
#include <vector>

#include "Bess/ControlService.h"
#include "Bess/ControlTestFixture.h"
#include "Bess/ModuleBuilder.h"
#include "Bess/Worker.h"

namespace bess {
namespace {

// Shows its argument, a text of a size that the argument says, and where it was built.
class Showing final : public Module {
 public:
  Showing() {
    addState("echo", "Its argument", [](const std::string& arg) { return "arg\n" + arg + "\n"; });
    addState("big", "As many bytes as the argument says", [this](const std::string& arg) {
      built_++;
      return std::string(std::stoul(arg), 'x');
    });
    addState("refused", "Nothing", [](const std::string&) -> std::string {
      throw std::system_error(EINVAL, std::generic_category(), "not so");
    });
    addState("paused", "Whether the workers stand still",
             [](const std::string&) { return std::string(workersPaused() ? "yes" : "no"); });
  }
  void addTwice() {
    addState("echo", "", [](const std::string&) { return std::string(); });
  }
  static int built_;
};
int Showing::built_ = 0;

const ModuleRegistration<Showing> kShowingClass({.name = "Showing", .help = "Shows itself"});

class ControlServiceStatesTest : public ControlTest {
 protected:
  ControlServiceStatesTest() {
    pb::CreateModuleRequest request;
    request.set_class_name("Showing");
    request.set_name("one");
    EXPECT_EQ(call(&Stub::CreateModule, request).error().errmsg(), "");
  }

  static pb::StateRequest state(const std::string& module,
                                const std::string& name,
                                const std::string& arg = "") {
    pb::StateRequest request;
    request.set_module(module);
    request.set_name(name);
    request.set_arg(arg);
    return request;
  }

  struct Answer {
    std::string text;
    pb::Error error;
    size_t pieces = 0;
    size_t largest = 0;
    grpc::StatusCode status = grpc::StatusCode::UNKNOWN;
  };

  Answer get(const pb::StateRequest& request) {
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(30));
    auto reader = stub_->GetState(&context, request);
    Answer answer;
    for (pb::StateChunk chunk; reader->Read(&chunk);) {
      answer.text += chunk.text();
      answer.pieces++;
      answer.largest = std::max(answer.largest, chunk.text().size());
      answer.error.MergeFrom(chunk.error());
    }
    answer.status = reader->Finish().error_code();
    return answer;
  }
};

TEST_F(ControlServiceStatesTest, listsStatesOfAModuleAndOfTheProgram) {
  const auto states = call(&Stub::ListStates, named("one")).states();
  ASSERT_EQ(states.size(), 4);
  EXPECT_EQ(states[0].name(), "echo");
  EXPECT_EQ(states[0].help(), "Its argument");
  const auto own = call(&Stub::ListStates).states();
  ASSERT_EQ(own.size(), 1);
  EXPECT_EQ(own[0].name(), "own");
  EXPECT_EQ(call(&Stub::ListStates, named("two")).error().code(), ENOENT);
}

TEST_F(ControlServiceStatesTest, sendsATextWithItsArgument) {
  const Answer answer = get(state("one", "echo", "some words"));
  EXPECT_EQ(answer.text, "arg\nsome words\n");
  EXPECT_EQ(answer.pieces, 1u);
  EXPECT_EQ(answer.status, grpc::StatusCode::OK);
  EXPECT_EQ(get(state("", "own", "x")).text, "own x");
}

TEST_F(ControlServiceStatesTest, cutsALargeTextAndBuildsItOnce) {
  Showing::built_ = 0;
  const Answer answer = get(state("one", "big", "10000001"));
  EXPECT_EQ(answer.text, std::string(10000001, 'x'));
  EXPECT_GT(answer.pieces, 100u);
  EXPECT_LE(answer.largest, 65536u);
  EXPECT_EQ(Showing::built_, 1);
  EXPECT_EQ(get(state("one", "big", "0")).status, grpc::StatusCode::OK);
  EXPECT_EQ(get(state("one", "big", "65536")).pieces, 1u);
  EXPECT_EQ(get(state("one", "big", "65537")).pieces, 2u);
}

TEST_F(ControlServiceStatesTest, refusesInBand) {
  const Answer noModule = get(state("two", "echo"));
  EXPECT_EQ(noModule.status, grpc::StatusCode::OK);
  EXPECT_EQ(noModule.error.code(), ENOENT);
  const Answer noState = get(state("one", "nothing"));
  EXPECT_EQ(noState.error.code(), ENOENT);
  EXPECT_NE(noState.error.errmsg().find("echo, big, refused, paused"), std::string::npos);
  EXPECT_EQ(get(state("", "nothing")).error.code(), ENOENT);
  const Answer refused = get(state("one", "refused"));
  EXPECT_EQ(refused.error.code(), EINVAL);
  EXPECT_NE(refused.error.errmsg().find("not so"), std::string::npos);
  EXPECT_EQ(get(state("one", "big", "many")).error.code(), EINVAL);
  expectAlive(1);
}

TEST_F(ControlServiceStatesTest, leavesTheWorkersAlone) {
  pb::AddWorkerRequest worker;
  EXPECT_EQ(call(&Stub::AddWorker, worker).error().code(), 0);
  EXPECT_EQ(get(state("one", "paused")).text, "no");
}

TEST_F(ControlServiceStatesTest, buildsNothingForAClientThatGaveUp) {
  Showing::built_ = 0;
  std::promise<void> go;
  control_.post([&go] { go.get_future().wait(); });
  grpc::ClientContext context;
  auto reader = stub_->GetState(&context, state("one", "big", "10"));
  context.TryCancel();
  EXPECT_EQ(reader->Finish().error_code(), grpc::StatusCode::CANCELLED);
  // An answer on the same connection: the server has read what was sent before.
  EXPECT_FALSE(sendRaw("/bess.pb.BESSControl/Nothing", "").ok());
  go.set_value();
  expectAlive(1);
  EXPECT_EQ(Showing::built_, 0);
}

TEST_F(ControlServiceStatesTest, endsWhenTheReaderLeavesInTheMiddle) {
  for (int i = 0; i < ControlService::kMaxStreams + 1; ++i) {
    grpc::ClientContext context;
    auto reader = stub_->GetState(&context, state("one", "big", "16000000"));
    pb::StateChunk chunk;
    EXPECT_TRUE(reader->Read(&chunk));
    context.TryCancel();
    EXPECT_EQ(reader->Finish().error_code(), grpc::StatusCode::CANCELLED);
  }
  expectAlive(1);
}

TEST_F(ControlServiceStatesTest, takesNoNameTwice) {
  control_.call([] {
    auto* module = static_cast<Showing*>(ModuleGraph::findModule("one"));
    EXPECT_THROW(module->addTwice(), std::system_error);
    EXPECT_EQ(module->states().size(), 4u);
  });
}

}  // namespace
}  // namespace bess
