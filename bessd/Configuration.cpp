#include "bessd/Configuration.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

namespace Bessd {
namespace {

// What a child gets: the signals as if this daemon had not blocked any.
class Attributes {
 public:
  Attributes() {
    sigset_t none;
    sigset_t fromDaemon;
    sigemptyset(&none);
    sigemptyset(&fromDaemon);
    sigaddset(&fromDaemon, SIGPIPE);
    posix_spawnattr_init(&attributes_);
    posix_spawnattr_setsigmask(&attributes_, &none);
    posix_spawnattr_setsigdefault(&attributes_, &fromDaemon);
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
  ~Attributes() { posix_spawnattr_destroy(&attributes_); }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;
  const posix_spawnattr_t* get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_{};
};

}  // namespace

Configuration::Configuration(std::string client, std::string socket, std::string file)
    : client_(std::move(client)), socket_("unix:" + socket), file_(std::move(file)) {}

Configuration::~Configuration() {
  if (running()) {
    kill(child_, SIGTERM);
    waitpid(child_, nullptr, 0);
  }
}

void Configuration::start() {
  std::array<std::string, 5> words = {client_, "--socket", socket_, "apply", file_};
  std::array<char*, words.size() + 1> argv{};
  for (size_t i = 0; i < words.size(); ++i) {
    argv[i] = words[i].data();
  }
  const Attributes attributes;
  const int error =
      posix_spawn(&child_, client_.c_str(), nullptr, attributes.get(), argv.data(), environ);
  if (error != 0) {
    child_ = 0;
    throw std::system_error(error, std::generic_category(), "cannot run " + client_);
  }
}

std::optional<std::string> Configuration::finished() {
  int status = 0;
  if (!running() || waitpid(child_, &status, WNOHANG) != child_) {
    return std::nullopt;
  }
  child_ = 0;
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
    return "";
  }
  const std::string how = WIFSIGNALED(status)
                              ? std::string("was ended by ") + strsignal(WTERMSIG(status))
                              : "ended with code " + std::to_string(WEXITSTATUS(status));
  return file_ + " is not applied: sfectl apply " + how;
}

std::string Configuration::ownClient() {
  std::error_code error;
  const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
  const auto beside = self.parent_path() / "sfectl";
  return !error && std::filesystem::exists(beside, error) ? beside.string() : SFE_CLIENT;
}

}  // namespace Bessd
