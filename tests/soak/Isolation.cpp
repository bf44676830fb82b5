#include "tests/soak/Isolation.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <thread>

#if defined(SFE_WITH_TSAN)
// As SfeModules/TsanSuppressions.cpp, for programs that only load the module, too; and the thread
// of the state file system, which runs until the process ends, may have logged before the
// logging library destroys its lock at exit.
extern "C" const char* __tsan_default_suppressions() {  // NOLINT: the name is TSan's
  return "race:liburcu-cds.so\n"
         "race:liburcu-qsbr.so\n"
         "race:tzset_internal\n"
         "race:pthread_rwlock_destroy\n";
}
#endif

namespace soak {

namespace {

class Isolation : public ::testing::Environment {
 public:
  void SetUp() override {
    // Mounts of the test stay in the test.
    if (geteuid() == 0 && (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0 ||
                           mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)) {
      throw std::runtime_error("cannot make namespaces of the test's own");
    }
    setenv("SYSNAME", systemName().c_str(), 1);
  }
};

const auto* const kIsolation = ::testing::AddGlobalTestEnvironment(new Isolation);

}  // namespace

std::string systemName() {
  return "soak" + std::to_string(getpid());
}

unsigned setting(const char* name, unsigned fallback) {
  const char* text = std::getenv(name);
  char* end = nullptr;
  const unsigned long value = text == nullptr ? 0 : std::strtoul(text, &end, 10);
  return text == nullptr || end == text ? fallback : static_cast<unsigned>(value);
}

bool await(const std::function<bool()>& condition, std::chrono::seconds patience) {
  const auto end = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    const ScopedOffline offline;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace soak
