// A counter table between two processes, one of which may be killed at any moment.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "Base/Orp/SystemException.h"
#include "Sfe/Multicast/CounterTableReader.h"
#include "Sfe/Multicast/TableTesting.h"

namespace Sfe::Multicast {
namespace {

using namespace Testing;

// The tool in a process of its own, killed at the latest when this goes.
class Tool {
 public:
  explicit Tool(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), TABLE_TOOL);
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
      argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
      throw std::runtime_error("no pipe");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    const int error = posix_spawn(&pid_, TABLE_TOOL, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    output_ = ends[0];
    if (error != 0) {
      throw std::runtime_error("cannot start " TABLE_TOOL);
    }
  }
  ~Tool() {
    kill();
    close(output_);
  }
  Tool(const Tool&) = delete;
  Tool& operator=(const Tool&) = delete;

  // Waits for its line, or for its end.
  bool isReady() const {
    char first = 0;
    return ::read(output_, &first, 1) == 1;
  }

  bool hasEnded() const {
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT);
    return info.si_pid != 0;
  }

  int exitStatus() {
    int status = -1;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  void kill() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      exitStatus();
    }
  }

  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  int output_ = -1;
};

class CounterTableProcessTest : public TableTest {
 protected:
  static constexpr uint32_t kCapacity = 64;  // the tool's
  const std::string path_ = defaultPath<IntfCounterTable>();
};

TEST_F(CounterTableProcessTest, isReadByAnotherProcessWhileItIsWritten) {
  const auto table = mountTable<IntfCounterTable>(systemName_, kCapacity);
  Tool reader({"read", systemName_, path_});
  for (uint64_t n = 1;; ++n) {
    table->intfIs(uniformRecord(intfId(n % 8), n));
    rcu_.quiescent();
    if (n % 64 == 0 && reader.hasEnded()) {
      break;
    }
  }
  EXPECT_EQ(reader.exitStatus(), 0);
}

TEST_F(CounterTableProcessTest, staysReadableAfterItsWriterWasKilled) {
  for (int round = 0; round < 10; ++round) {
    Tool writer({"write", systemName_});
    ASSERT_TRUE(writer.isReady());
    const IntfCounterReader reader(systemName_, path_);
    EXPECT_EQ(reader.writerPid(), static_cast<uint32_t>(writer.pid()));
    EXPECT_TRUE(reader.writerAlive());
    writer.kill();
    EXPECT_FALSE(reader.writerAlive());
    std::vector<uint32_t> unreadable;
    const std::vector<IntfCounter> records = reader.snapshot(&unreadable);
    EXPECT_EQ(records.size() + unreadable.size(), 8u);
    EXPECT_LE(unreadable.size(), 1u);
    for (const IntfCounter& record : records) {
      EXPECT_TRUE(isUniform(record));
    }
  }
  mountTable<IntfCounterTable>(systemName_, kCapacity);  // and unmounted again
}

TEST_F(CounterTableProcessTest, losesOnlyTheRecordThatItsWriterDiedIn) {
  Tool writer({"die", systemName_});
  ASSERT_TRUE(writer.isReady());
  writer.kill();
  {
    const IntfCounterReader reader(systemName_, path_);
    std::vector<uint32_t> unreadable;
    const std::vector<IntfCounter> records = reader.snapshot(&unreadable);
    EXPECT_EQ(records, std::vector<IntfCounter>{uniformRecord(intfId(1), 1)});
    EXPECT_EQ(unreadable.size(), 1u);
  }
  const auto table = mountTable<IntfCounterTable>(systemName_, kCapacity);
  EXPECT_EQ(table->intf(intfId(1)), uniformRecord(intfId(1), 1));
  EXPECT_EQ(table->intf(intfId(2)), IntfCounter());
  EXPECT_EQ(table->corruptions(), 1u);
  table->intfIs(uniformRecord(intfId(2), 4));
  EXPECT_EQ(table->intf(intfId(2)), uniformRecord(intfId(2), 4));
}

TEST_F(CounterTableProcessTest, hasOneWritingProcess) {
  Tool writer({"write", systemName_});
  ASSERT_TRUE(writer.isReady());
  EXPECT_THROW(mountTable<IntfCounterTable>(systemName_, kCapacity), Orp::SystemException);
  writer.kill();
  const auto table = mountTable<IntfCounterTable>(systemName_, kCapacity);
  EXPECT_EQ(table->size() + table->corruptions(), 8u);
}

}  // namespace
}  // namespace Sfe::Multicast
