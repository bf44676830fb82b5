#include "Bess/ControlSocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <utility>

namespace bess {
namespace {

constexpr const char* kDirectoryTemplate = "/.sfeXXXXXX";
constexpr size_t kMaxPath = sizeof(sockaddr_un::sun_path) - 1;

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) {
      close(fd_);
    }
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

[[noreturn]] void fail(const std::string& what, int error) {
  throw ControlSocketError(what + ": " + std::strerror(error));
}

std::string parentOf(const std::string& path) {
  const std::string parent = std::filesystem::path(path).parent_path().string();
  return parent.empty() ? "." : parent;
}

// The errno of connecting to a Unix socket; 0 when a process answers.
int tryConnect(const std::string& path) {
  const Fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size());
  if (fd.get() < 0 ||
      connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    return errno;
  }
  return 0;
}

bool isLoopback(const std::string& host) {
  in_addr v4{};
  in6_addr v6{};
  if (inet_pton(AF_INET, host.c_str(), &v4) == 1) {
    return (ntohl(v4.s_addr) >> 24) == IN_LOOPBACKNET;
  }
  return inet_pton(AF_INET6, host.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6);
}

bool isAddress(const std::string& host) {
  in6_addr address{};
  return inet_pton(AF_INET, host.c_str(), &address) == 1 ||
         inet_pton(AF_INET6, host.c_str(), &address) == 1;
}

gid_t groupId(const std::string& name) {
  errno = 0;
  const group* found = getgrnam(name.c_str());  // NOLINT(concurrency-mt-unsafe): at start
  if (found == nullptr) {
    throw ControlSocketError("there is no group '" + name + "' on this machine" +
                             (errno == 0 ? "" : std::string(": ") + std::strerror(errno)));
  }
  return found->gr_gid;
}

}  // namespace

std::string listenAddress(const std::string& text, bool tls) {
  const size_t colon = text.rfind(':');
  const std::string portText = colon == std::string::npos ? "" : text.substr(colon + 1);
  std::string host = text.substr(0, colon);
  if (host.size() > 1 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  }
  uint16_t port = 0;
  const char* end = portText.data() + portText.size();
  const auto [stop, error] = std::from_chars(portText.data(), end, port);
  if (portText.empty() || host.empty() || error != std::errc() || stop != end) {
    throw ControlSocketError("'" + text + "' is not HOST:PORT, such as 127.0.0.1:10514");
  }
  if (host == "localhost") {
    host = "127.0.0.1";
  }
  if (!tls && !isLoopback(host)) {
    throw ControlSocketError(
        "refusing to listen on '" + text +
        "': without TLS calls are neither encrypted nor authenticated, so only loopback "
        "addresses (127.0.0.1, [::1]) are allowed; give --tls-cert, --tls-key and --tls-ca");
  }
  if (!isAddress(host)) {
    throw ControlSocketError("cannot listen on '" + text +
                             "': HOST is an IP address, such as 0.0.0.0 or [::]");
  }
  const bool v6 = host.find(':') != std::string::npos;
  return (v6 ? "[" + host + "]" : host) + ":" + portText;
}

ControlSocket::ControlSocket(std::string path, const std::string& group)
    : path_(std::move(path)), group_(group) {
  const std::string parent = parentOf(path_);
  const size_t longest =
      std::max(path_.size(), parent.size() + std::strlen(kDirectoryTemplate) + 2);
  if (path_.empty() || path_.find('\0') != std::string::npos || longest > kMaxPath) {
    throw ControlSocketError("socket path '" + path_ + "' is empty or too long; at most " +
                             std::to_string(kMaxPath) + " characters fit into an address");
  }
  if (!group_.empty()) {
    gid_ = groupId(group_);
  }
  std::error_code error;
  std::filesystem::create_directories(parent, error);
  if (error) {
    fail("cannot create directory " + parent, error.value());
  }
  std::string directory = parent + kDirectoryTemplate;
  if (mkdtemp(directory.data()) == nullptr) {
    fail("cannot create a socket in " + parent, errno);
  }
  directory_ = directory;
}

ControlSocket::~ControlSocket() {
  struct stat found {};
  if (inode_ != 0 && lstat(path_.c_str(), &found) == 0 && found.st_ino == inode_) {
    unlink(path_.c_str());
  }
  unlink(bindPath().c_str());
  rmdir(directory_.c_str());
}

void ControlSocket::publish() {
  const std::string parent = parentOf(path_);
  // Two daemons that start at once look and replace one after the other.
  const Fd lock(open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (lock.get() < 0 || flock(lock.get(), LOCK_EX) != 0) {
    fail("cannot lock directory " + parent, errno);
  }
  requireStale();
  admitGroup();
  struct stat made {};
  if (lstat(bindPath().c_str(), &made) != 0 || rename(bindPath().c_str(), path_.c_str()) != 0) {
    fail("cannot create socket " + path_, errno);
  }
  inode_ = made.st_ino;
  // Nothing of it stays behind when the process is killed but the socket itself.
  rmdir(directory_.c_str());
}

void ControlSocket::admitGroup() const {
  const std::string path = bindPath();
  // The group first: between the two steps nobody else gets in.
  if (gid_ && lchown(path.c_str(), static_cast<uid_t>(-1), *gid_) != 0) {
    fail("cannot give socket " + path_ + " to group '" + group_ + "'", errno);
  }
  const mode_t forGroup = gid_ ? S_IRGRP | S_IWGRP : 0;
  if (chmod(path.c_str(), S_IRUSR | S_IWUSR | forGroup) != 0) {
    fail("cannot create socket " + path_, errno);
  }
}

void ControlSocket::requireStale() const {
  struct stat found {};
  if (lstat(path_.c_str(), &found) != 0) {
    if (errno == ENOENT) {
      return;
    }
    fail("cannot look at " + path_, errno);
  }
  if (!S_ISSOCK(found.st_mode)) {
    throw ControlSocketError(path_ + " exists and is not a socket; remove it or choose another");
  }
  const int error = tryConnect(path_);
  if (error == 0 || error == EAGAIN) {
    throw ControlSocketError("another daemon answers on " + path_ +
                             "; stop it or choose another socket");
  }
  if (error != ECONNREFUSED) {
    fail("cannot tell whether another daemon uses " + path_, error);
  }
}

}  // namespace bess
