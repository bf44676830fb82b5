// The service as its manager sees it: over a real datagram socket, with real signals.
#include "bessd/Service.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <future>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Bess/ControlThread.h"

namespace Bessd {
namespace {

constexpr int kPatienceSeconds = 30;
constexpr int kWatchdogMs = 400;

// The service manager's end of the socket.
class Manager {
 public:
  Manager() : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string name = "sfe-service-test-" + std::to_string(getpid());
    name.copy(address.sun_path + 1, name.size());  // an abstract name leaves nothing behind
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr*>(&address), length), 0);
    const timeval limit{.tv_sec = kPatienceSeconds, .tv_usec = 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    setenv("NOTIFY_SOCKET", ("@" + name).c_str(), 1);
  }
  ~Manager() {
    unsetenv("NOTIFY_SOCKET");
    close(fd_);
  }
  Manager(const Manager&) = delete;
  Manager& operator=(const Manager&) = delete;

  std::string next() const { return receive(0); }
  // The next message in which that word is.
  std::string next(const std::string& word) const {
    std::string message;
    do {
      message = next();
    } while (!message.empty() && message.find(word) == std::string::npos);
    return message;
  }
  void forgetWhatCame() const {
    while (!receive(MSG_DONTWAIT).empty()) {
    }
  }

 private:
  std::string receive(int flags) const {
    std::array<char, 1024> buffer{};
    const ssize_t size = recv(fd_, buffer.data(), buffer.size(), flags);
    return size < 0 ? "" : std::string(buffer.data(), static_cast<size_t>(size));
  }
  const int fd_;
};

// Blocked before there is a second thread, as in the daemon.
sigset_t blockSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) {
    sigaddset(&signals, number);
  }
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

class ServiceTest : public testing::Test {
 protected:
  ~ServiceTest() override {
    unsetenv("WATCHDOG_USEC");
    stop();
  }

  void start(bool watched = false) {
    if (watched) {
      setenv("WATCHDOG_USEC", std::to_string(kWatchdogMs * 1000).c_str(), 1);
    }
    service_.emplace(options_, signals_, [this] { return workers(); });
    ended_ = std::async(std::launch::async, [this] {
      service_->run([this](std::function<void()> fn) { control_.post(std::move(fn)); });
    });
  }
  void stop() {
    if (ended_.valid()) {
      kill(getpid(), SIGTERM);
      ended_.get();
      control_.call([] {});  // what it posted has run
    }
  }

  std::vector<WorkerStatus> workers() {
    WorkerStatus worker;
    worker.wid = 0;
    worker.running = true;
    worker.tasks = 1;
    worker.stats.rounds = stuck_ ? 1 : ++rounds_ + 1;
    return {worker};
  }

  const sigset_t signals_ = blockSignals();
  Manager manager_;
  Options options_;
  std::atomic<bool> stuck_{false};
  uint64_t rounds_ = 0;
  std::optional<Service> service_;
  ControlThread control_;
  std::future<void> ended_;
};

TEST_F(ServiceTest, saysWhenItIsReadyAndWhenItStops) {
  start();
  EXPECT_EQ(manager_.next(), "READY=1\nSTATUS=ready");
  stop();
  EXPECT_EQ(manager_.next(), "STOPPING=1\nSTATUS=stopping");
}

TEST_F(ServiceTest, reloadsOnHangup) {
  start();
  manager_.next();
  kill(getpid(), SIGHUP);
  const std::string message = manager_.next();
  EXPECT_EQ(message.find("RELOADING=1\nMONOTONIC_USEC="), 0u) << message;
  EXPECT_EQ(manager_.next(), "READY=1\nSTATUS=ready");
}

TEST_F(ServiceTest, runsWithoutAServiceManager) {
  unsetenv("NOTIFY_SOCKET");
  start();
  stop();
}

TEST_F(ServiceTest, isSilentWhenNobodyWatches) {
  start();
  EXPECT_EQ(manager_.next().find("READY=1"), 0u);
  stop();
  EXPECT_EQ(manager_.next().find("STOPPING=1"), 0u);
}

TEST_F(ServiceTest, isAliveAsLongAsTheWorkersMove) {
  start(true);
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(manager_.next("WATCHDOG=1"), "WATCHDOG=1\nSTATUS=1 worker, 1 task");
  }
  // Three halves of the watchdog time lie between four messages.
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(kWatchdogMs));
}

TEST_F(ServiceTest, leavesTheWatchdogAloneWhileAWorkerIsStuck) {
  start(true);
  manager_.next("WATCHDOG=1");
  stuck_ = true;
  manager_.next("worker 0 has made no progress");
  for (int i = 0; i < 3; ++i) {
    const std::string message = manager_.next();
    EXPECT_EQ(message.find("WATCHDOG=1"), std::string::npos) << message;
  }
  stuck_ = false;
  EXPECT_NE(manager_.next("WATCHDOG=1"), "");
}

TEST_F(ServiceTest, leavesTheWatchdogAloneWhileTheControlThreadIsStuck) {
  start(true);
  manager_.next("WATCHDOG=1");
  std::promise<void> release;
  control_.post([&release] { release.get_future().wait(); });
  manager_.next("does not answer");
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(manager_.next(), "STATUS=the control thread does not answer");
  }
  release.set_value();
  EXPECT_NE(manager_.next("WATCHDOG=1"), "");
}

TEST_F(ServiceTest, failsToStartWithAConfigurationThatCannotBeApplied) {
  options_.config = "/nowhere/sfe.yaml";
  start();
  EXPECT_THROW(ended_.get(), std::runtime_error);
}

}  // namespace
}  // namespace Bessd
