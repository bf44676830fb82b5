#include "Routing/Multicast/Notify/NotifyTestSupport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace NotifyTest {
namespace {

constexpr const char* kNamespaces = "/var/run/netns";

void require(bool done, const std::string& what) {
  if (!done) {
    throw std::system_error(errno, std::generic_category(), what);
  }
}

std::string freshName() {
  static std::atomic<unsigned> number{0};
  return "notify-test-" + std::to_string(getpid()) + '-' + std::to_string(number++);
}

std::string pathOf(const std::string& name) {
  return std::string(kNamespaces) + '/' + name;
}

void makeFile(const std::string& path) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  require(fd >= 0, path);
  close(fd);
}

Heard parse(const uint8_t* bytes, size_t length) {
  Heard heard;
  heard.datagramBytes = length;
  nlmsghdr header{};
  if (length < NLMSG_LENGTH(sizeof(rtgenmsg))) {
    throw std::runtime_error("a datagram is too short");
  }
  std::memcpy(&header, bytes, sizeof(header));
  heard.type = header.nlmsg_type;
  heard.flags = header.nlmsg_flags;
  heard.nlmsgLen = header.nlmsg_len;
  heard.family = bytes[NLMSG_HDRLEN];
  size_t at = NLMSG_HDRLEN + NLMSG_ALIGN(sizeof(rtgenmsg));
  while (at < length) {
    rtattr attribute{};
    if (length - at < sizeof(attribute)) {
      throw std::runtime_error("something trails the attributes");
    }
    std::memcpy(&attribute, bytes + at, sizeof(attribute));
    if (attribute.rta_len < sizeof(attribute) || attribute.rta_len > length - at) {
      throw std::runtime_error("an attribute's length does not fit");
    }
    heard.order.push_back(attribute.rta_type);
    heard.values[attribute.rta_type] =
        Bytes(bytes + at + sizeof(attribute), bytes + at + attribute.rta_len);
    const size_t end = at + RTA_ALIGN(attribute.rta_len);
    for (at += attribute.rta_len; at < end; ++at) {
      if (at >= length || bytes[at] != 0) {
        throw std::runtime_error("padding is missing or not zero");
      }
    }
  }
  return heard;
}

}  // namespace

uint32_t Heard::u32(uint16_t attribute) const {
  const Bytes& value = values.at(attribute);
  uint32_t number = 0;
  if (value.size() != sizeof(number)) {
    throw std::runtime_error("not a u32");
  }
  std::memcpy(&number, value.data(), sizeof(number));
  return number;
}

uint64_t Heard::u64(uint16_t attribute) const {
  const Bytes& value = values.at(attribute);
  uint64_t number = 0;
  if (value.size() != sizeof(number)) {
    throw std::runtime_error("not a u64");
  }
  std::memcpy(&number, value.data(), sizeof(number));
  return number;
}

std::string Heard::address(uint16_t attribute) const {
  const Bytes& value = values.at(attribute);
  if (value.size() != 4 && value.size() != 16) {
    throw std::runtime_error("not an address");
  }
  char text[INET6_ADDRSTRLEN];
  return inet_ntop(value.size() == 4 ? AF_INET : AF_INET6, value.data(), text, sizeof(text));
}

KernelEar::KernelEar(std::vector<unsigned> groups)
    : fd_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)), buffer_(1 << 17) {
  require(fd_ >= 0, "socket");
  sockaddr_nl local{};  // a socket without a port hears no multicast
  local.nl_family = AF_NETLINK;
  require(bind(fd_, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) == 0, "bind");
  const int room = 16 << 20;
  require(setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof(room)) == 0, "SO_RCVBUFFORCE");
  for (const unsigned group : groups) {
    require(setsockopt(fd_, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof(group)) == 0,
            "NETLINK_ADD_MEMBERSHIP");
  }
}

std::optional<Heard> KernelEar::next() {
  const ssize_t length = recv(fd_, buffer_.data(), buffer_.size(), MSG_DONTWAIT | MSG_TRUNC);
  if (length < 0 && errno == EAGAIN) {
    return std::nullopt;
  }
  require(length >= 0, "recv");  // ENOBUFS too: a test that lost messages proves nothing
  return parse(buffer_.data(), static_cast<size_t>(length));
}

std::vector<Heard> KernelEar::all() {
  std::vector<Heard> heard;
  while (auto one = next()) {
    heard.push_back(std::move(*one));
  }
  return heard;
}

bool enterFreshNamespace() {
  if (geteuid() != 0) {
    std::fprintf(stderr, "not root: no network namespace can be made, nothing can be multicast\n");
    return false;
  }
  require(unshare(CLONE_NEWNET) == 0, "unshare");
  return true;
}

std::string currentNamespace() {
  return std::filesystem::read_symlink("/proc/thread-self/ns/net").string();
}

NamedNamespace::NamedNamespace() : name_(freshName()) {
  std::filesystem::create_directories(kNamespaces);
  makeFile(pathOf(name_));
  int error = 0;
  std::thread([&] {
    if (unshare(CLONE_NEWNET) != 0 ||
        mount("/proc/thread-self/ns/net", pathOf(name_).c_str(), "none", MS_BIND, nullptr) != 0) {
      error = errno;
    }
  }).join();
  if (error != 0) {
    unlink(pathOf(name_).c_str());
    errno = error;
  }
  require(error == 0, "cannot make a network namespace");
}

NamedNamespace::~NamedNamespace() {
  umount2(pathOf(name_).c_str(), MNT_DETACH);
  unlink(pathOf(name_).c_str());
}

FalseNamespace::FalseNamespace(Kind kind) : kind_(kind), name_(freshName()) {
  std::filesystem::create_directories(kNamespaces);
  const std::string path = pathOf(name_);
  switch (kind_) {
    case Kind::kFile:
      makeFile(path);
      break;
    case Kind::kDirectory:
      require(mkdir(path.c_str(), 0700) == 0, path);
      break;
    case Kind::kFifo:
      require(mkfifo(path.c_str(), 0600) == 0, path);
      break;
    case Kind::kMountNamespace:
      require(symlink("/proc/self/ns/mnt", path.c_str()) == 0, path);
      break;
  }
}

FalseNamespace::~FalseNamespace() {
  const std::string path = pathOf(name_);
  if (kind_ == Kind::kDirectory) {
    rmdir(path.c_str());
  } else {
    unlink(path.c_str());
  }
}

void enterNamespace(const std::string& name) {
  const int fd = open(pathOf(name).c_str(), O_RDONLY | O_CLOEXEC);
  require(fd >= 0, name);
  const int entered = setns(fd, CLONE_NEWNET);
  close(fd);
  require(entered == 0, "setns");
}

size_t openDescriptors() {
  const std::filesystem::directory_iterator descriptors("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(descriptors), end(descriptors)));
}

}  // namespace NotifyTest
