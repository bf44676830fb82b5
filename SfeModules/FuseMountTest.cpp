// The file system as the kernel shows it: a daemon process mounts it in a mount namespace of the
// test's own, and the test reads it with ordinary file calls.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "Base/Gemlog/Gemlog.h"
#include "SfeModules/Fuse.h"

namespace {

const std::string kMountPoint = "/BessProc";
constexpr unsigned kReportedSize = 100;
constexpr size_t kTextLength = 300000;  // several reads of the kernel's largest size
constexpr std::chrono::seconds kPatience{60};

std::string longText() {
  std::string text;
  while (text.size() < kTextLength) {
    text += "line " + std::to_string(text.size()) + "\n";
  }
  text.resize(kTextLength);
  return text;
}

enum Command : char { kRemoveLong = 'r', kCheckTrace = 't', kExit = 'q' };

// The life of the daemon process; answers every command with one byte, 1 when it went well.
[[noreturn]] void runDaemon(int commands, int answers) {
  std::array<char, 4096> before{};
  std::array<char, 4096> now{};
  const bool knowsWhere = getcwd(before.data(), before.size()) != nullptr;
  Gemlog::Capture trace;
  fuseUpdateBufferSize(kReportedSize);
  fuseRegister("/Long", longText);
  fuseRegister("/Mroute4_default", [] { return std::string("Source: 10.0.0.1\n"); });
  fuseInit();
  fuseInit();
  fuseDeInit();
  char command = 0;
  while (::read(commands, &command, 1) == 1) {
    char answer = 1;
    if (command == kRemoveLong) {
      fuseDeRegister("/Long");
    } else if (command == kCheckTrace) {
      answer = trace.contains("void fuseInit(): FUSE thread already exists") &&
               trace.contains("Fuse thread ") && trace.contains(" is starting.") && knowsWhere &&
               getcwd(now.data(), now.size()) != nullptr && before == now;
    } else {
      std::exit(0);
    }
    if (::write(answers, &answer, 1) != 1) {
      break;
    }
  }
  std::exit(1);
}

class Daemon {
 public:
  Daemon() {
    std::array<int, 2> commands{};
    std::array<int, 2> answers{};
    if (pipe(commands.data()) != 0 || pipe(answers.data()) != 0) {
      std::abort();
    }
    pid_ = fork();
    if (pid_ == 0) {
      close(commands[1]);
      close(answers[0]);
      runDaemon(commands[0], answers[1]);
    }
    close(commands[0]);
    close(answers[1]);
    commands_ = commands[1];
    answers_ = answers[0];
  }
  ~Daemon() {
    close(commands_);
    close(answers_);
  }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  bool tell(Command command) {
    char what = command;
    char answer = 0;
    return ::write(commands_, &what, 1) == 1 && ::read(answers_, &answer, 1) == 1 && answer == 1;
  }

  // Returns: the wait status.
  int exitNormally() {
    char what = kExit;
    EXPECT_EQ(1, ::write(commands_, &what, 1));
    return wait();
  }
  int terminate() {
    EXPECT_EQ(0, kill(pid_, SIGTERM));
    return wait();
  }

 private:
  int wait() const {
    int status = -1;
    EXPECT_EQ(pid_, waitpid(pid_, &status, 0));
    return status;
  }

  pid_t pid_ = 0;
  int commands_ = -1;
  int answers_ = -1;
};

bool isMounted() {
  std::ifstream mounts("/proc/self/mountinfo");
  std::string line;
  while (std::getline(mounts, line)) {
    if (line.find(" " + kMountPoint + " ") != line.npos && line.find("fuse") != line.npos) {
      return true;
    }
  }
  return false;
}

// Waits for the kernel to tell that the table of mounts changed. Returns: false on time-out.
bool waitForMount(bool mounted) {
  const int fd = ::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
  const auto end = std::chrono::steady_clock::now() + kPatience;
  bool done = isMounted() == mounted;
  while (!done && std::chrono::steady_clock::now() < end) {
    pollfd changed = {fd, POLLPRI, 0};
    poll(&changed, 1, 1000);
    done = isMounted() == mounted;
  }
  close(fd);
  return done;
}

std::string contents(const std::string& path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

std::map<std::string, mode_t> entries() {
  std::map<std::string, mode_t> found;
  DIR* directory = opendir(kMountPoint.c_str());
  if (directory == nullptr) {
    return found;
  }
  while (const dirent* entry = readdir(directory)) {
    const std::string name = entry->d_name;
    struct stat attributes {};
    if (name != "." && name != ".." && stat((kMountPoint + "/" + name).c_str(), &attributes) == 0) {
      found[name] = attributes.st_mode;
      EXPECT_EQ(static_cast<off_t>(kReportedSize), attributes.st_size);
    }
  }
  closedir(directory);
  return found;
}

// Runs `body` in a process of its own with a private table of mounts.
template <class Body>
void inPrivateMounts(Body body) {
  const pid_t child = fork();
  if (child == 0) {
    EXPECT_EQ(0, unshare(CLONE_NEWNS)) << std::strerror(errno);
    EXPECT_EQ(0, mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr)) << std::strerror(errno);
    if (!testing::Test::HasFailure()) {
      body();
    }
    std::fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = -1;
  EXPECT_EQ(child, waitpid(child, &status, 0));
  EXPECT_EQ(0, status) << "the failures are above";
}

class FuseMountTest : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "needs root for a mount namespace";
    }
    const int fd = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (fd < 0) {
      GTEST_SKIP() << "needs /dev/fuse: " << std::strerror(errno);
    }
    close(fd);
    if (access("/bin/fusermount", X_OK) != 0 && access("/usr/bin/fusermount", X_OK) != 0) {
      GTEST_SKIP() << "needs fusermount";
    }
  }
};

void readEverything(Daemon& daemon) {
  const std::map<std::string, mode_t> expected = {{"Long", S_IFREG | 0444},
                                                  {"Mroute4_default", S_IFREG | 0444}};
  EXPECT_EQ(expected, entries());
  struct stat root {};
  EXPECT_EQ(0, stat(kMountPoint.c_str(), &root));
  EXPECT_EQ(static_cast<mode_t>(S_IFDIR | 0755), root.st_mode);
  EXPECT_EQ("Source: 10.0.0.1\n", contents(kMountPoint + "/Mroute4_default"));
  EXPECT_EQ(longText(), contents(kMountPoint + "/Long"));
  EXPECT_EQ(-1, ::open((kMountPoint + "/Long").c_str(), O_RDWR | O_CLOEXEC));
  EXPECT_EQ(EACCES, errno);
  EXPECT_EQ(-1, unlink((kMountPoint + "/Long").c_str()));
  EXPECT_TRUE(daemon.tell(kCheckTrace));
}

void removeWhileReading(Daemon& daemon) {
  const int fd = ::open((kMountPoint + "/Long").c_str(), O_RDONLY | O_CLOEXEC);
  std::array<char, 1000> buffer{};
  EXPECT_EQ(static_cast<ssize_t>(buffer.size()), ::read(fd, buffer.data(), buffer.size()));
  EXPECT_TRUE(daemon.tell(kRemoveLong));
  EXPECT_EQ(-1, ::read(fd, buffer.data(), buffer.size()));
  EXPECT_EQ(ENOENT, errno);
  close(fd);
  EXPECT_EQ(1U, entries().size());
}

TEST_F(FuseMountTest, servesItsFilesUntilTheProcessExits) {
  inPrivateMounts([] {
    Daemon daemon;
    if (!waitForMount(true)) {
      ADD_FAILURE() << "not mounted";
      return;
    }
    readEverything(daemon);
    removeWhileReading(daemon);
    EXPECT_EQ(0, daemon.exitNormally());
    EXPECT_TRUE(waitForMount(false));
  });
}

TEST_F(FuseMountTest, leavesSignalsTheirMeaning) {
  inPrivateMounts([] {
    Daemon daemon;
    EXPECT_TRUE(waitForMount(true));
    EXPECT_EQ(2U, entries().size());  // the loop that would take the signals is running
    const int status = daemon.terminate();
    EXPECT_TRUE(WIFSIGNALED(status)) << status;
    EXPECT_EQ(SIGTERM, WTERMSIG(status));
    EXPECT_TRUE(waitForMount(false));
  });
}

TEST_F(FuseMountTest, keepsTheLibraryOnceItsThreadRuns) {
  inPrivateMounts([] {
    void* plugin = dlopen(FUSE_TEST_PLUGIN, RTLD_NOW | RTLD_LOCAL);
    if (plugin == nullptr) {
      ADD_FAILURE() << dlerror();
      return;
    }
    auto* start = reinterpret_cast<void (*)()>(dlsym(plugin, "startStateFiles"));
    start();
    EXPECT_EQ(0, dlclose(plugin));
    EXPECT_NE(nullptr, dlopen(FUSE_TEST_PLUGIN, RTLD_NOW | RTLD_NOLOAD));
  });
}

}  // namespace
