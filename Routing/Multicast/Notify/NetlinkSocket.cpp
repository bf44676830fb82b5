#include "Routing/Multicast/Notify/NetlinkSocket.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <thread>

#include "Base/Orp/SystemException.h"

namespace Routing::Multicast::Notify {
namespace {

// Where `ip netns` keeps the namespaces.
constexpr const char* kNamespaceDir = "/var/run/netns/";

// Returns: a bound socket in the calling thread's namespace; -1 with errno set.
int openHere() {
  const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  if (fd < 0) {
    return -1;
  }
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  if (bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0) {
    const int error = errno;
    ::close(fd);
    errno = error;
    return -1;
  }
  return fd;
}

// The same in the namespace of `namespaceFd`. A socket stays in the namespace that it was made in.
// Returns: 0 and the socket in `fd`, or the errno of what failed.
int openInside(int namespaceFd, int& fd) {
  int error = 0;
  std::thread visitor([&] {
    if (setns(namespaceFd, CLONE_NEWNET) != 0 || (fd = openHere()) < 0) {
      error = errno;
    }
  });
  visitor.join();
  return error;
}

// Returns: 0 and the socket in `fd`, or the errno of what failed.
int openNamed(const Nynet::NamespaceName& ns, int& fd) {
  if (ns.empty() || ns.view().find_first_of(std::string_view("/\0", 2)) != std::string_view::npos) {
    return EINVAL;  // would leave the directory, or end early
  }
  const std::string path = kNamespaceDir + ns.str();
  // Not blocking: whatever lies there, a FIFO too, must not hold the caller.
  const int namespaceFd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (namespaceFd < 0) {
    return errno;
  }
  int error = 0;
  try {
    error = openInside(namespaceFd, fd);
  } catch (const std::system_error& noThread) {
    error = noThread.code().value();
  }
  ::close(namespaceFd);
  return error;
}

}  // namespace

NetlinkSocket NetlinkSocket::open(const Nynet::NamespaceName& ns, const std::string& owner) {
  int fd = -1;
  int error = 0;
  if (ns.isDefault()) {
    fd = openHere();
    error = fd < 0 ? errno : 0;
  } else {
    error = openNamed(ns, fd);
  }
  if (error != 0) {
    throw Orp::SystemException(
        error, owner + ": cannot open a netlink socket in network namespace \"" + ns.str() + "\"");
  }
  return NetlinkSocket(fd);
}

void NetlinkSocket::close() noexcept {
  if (fd_ >= 0) {
    ::close(std::exchange(fd_, -1));
  }
}

}  // namespace Routing::Multicast::Notify
