#include "Base/NyToggles/NyToggles.h"

#include <fcntl.h>
#include <glog/logging.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include <nlohmann/json.hpp>

namespace {

constexpr size_t kMaxFileBytes = size_t{1} << 20;

struct Directory {
  std::mutex mutex;
  // Guarded by mutex.
  std::string path;
  std::map<std::pair<std::string, std::string>, bool> asked;  // answers by owner and toggle

  Directory() {
    const char* set = std::getenv("SFE_TOGGLES");  // NOLINT(concurrency-mt-unsafe): nobody sets it
    path = set != nullptr ? set : "/etc/sfe/toggles";
  }
};

Directory& directory() {
  static auto& instance = *new Directory;  // threads may ask after main() has ended
  return instance;
}

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (fd_ >= 0) {
      close(fd_);
    }
  }
  int get() const { return fd_; }

 private:
  const int fd_;
};

[[noreturn]] void failWithErrno() {
  throw std::runtime_error(std::generic_category().message(errno));
}

// Returns: the file's bytes; nothing when there is no such file.
// Errors: std::runtime_error when there is one that cannot be read.
std::optional<std::string> readFile(const std::string& path) {
  // Not blocking: what lies there may be a pipe.
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (file.get() < 0) {
    if (errno == ENOENT || errno == ENOTDIR) {
      return std::nullopt;
    }
    failWithErrno();
  }
  struct stat status {};
  if (fstat(file.get(), &status) != 0) {
    failWithErrno();
  }
  if (!S_ISREG(status.st_mode)) {
    throw std::runtime_error("not a regular file");
  }
  std::string text;
  std::array<char, 4096> piece{};
  for (;;) {
    const ssize_t got = read(file.get(), piece.data(), piece.size());
    if (got == 0) {
      return text;
    }
    if (got < 0 && errno != EINTR) {
      failWithErrno();
    }
    text.append(piece.data(), got > 0 ? static_cast<size_t>(got) : 0);
    if (text.size() > kMaxFileBytes) {
      throw std::runtime_error("larger than " + std::to_string(kMaxFileBytes) + " bytes");
    }
  }
}

// Returns: the toggle's state; nothing when the file does not set it.
// Errors: a std::exception that says why the file cannot be understood.
std::optional<bool> readToggle(const std::string& path, const char* toggle) {
  const std::optional<std::string> text = readFile(path);
  if (!text) {
    return std::nullopt;
  }
  const auto all = nlohmann::json::parse(*text);
  if (!all.is_object()) {
    throw std::runtime_error("not a JSON object");
  }
  const auto at = all.find(toggle);
  if (at == all.end()) {
    return std::nullopt;
  }
  if (!at->is_boolean()) {
    throw std::runtime_error("the value of \"" + std::string(toggle) + "\" is not true or false");
  }
  return at->get<bool>();
}

bool isFileName(std::string_view owner) {
  return !owner.empty() && owner != "." && owner != ".." &&
         owner.find('/') == std::string_view::npos;
}

}  // namespace

namespace {

bool stateOf(const char* toggle, const char* owner, bool defaultState) {
  if (!isFileName(owner)) {
    LOG(WARNING) << "Toggle " << toggle << ": \"" << owner << "\" is not a file name; using the "
                 << "default";
    return defaultState;
  }
  std::string path;
  {
    Directory& toggles = directory();
    const std::lock_guard lock(toggles.mutex);
    path = toggles.path + '/' + owner;
  }
  try {
    return readToggle(path, toggle).value_or(defaultState);
  } catch (const std::exception& problem) {
    LOG(WARNING) << "Toggle " << toggle << ": " << path << ": " << problem.what()
                 << "; using the default, " << std::boolalpha << defaultState;
    return defaultState;
  }
}

}  // namespace

bool getToggleState(const char* toggle, const char* owner, bool defaultState) {
  const bool state = stateOf(toggle, owner, defaultState);
  Directory& toggles = directory();
  const std::lock_guard lock(toggles.mutex);
  toggles.asked[{owner, toggle}] = state;
  return state;
}

std::vector<AskedToggle> askedToggles() {
  Directory& toggles = directory();
  const std::lock_guard lock(toggles.mutex);
  std::vector<AskedToggle> all;
  for (const auto& [key, value] : toggles.asked) {
    all.push_back({key.first, key.second, value});
  }
  return all;
}

void setToggleDirectory(std::string path) {
  Directory& toggles = directory();
  const std::lock_guard lock(toggles.mutex);
  toggles.path = std::move(path);
}
