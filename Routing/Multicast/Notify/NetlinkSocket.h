// An rtnetlink socket inside a network namespace, owned by one handle.
//
// Threads    : any; one handle belongs to one thread at a time.
// Errors     : open() throws Orp::SystemException with the errno of what failed: 2 for a namespace
//              that does not exist, 22 for a name that cannot be one's and for a file that is not a
//              namespace.
// Invariants : the namespace of the thread that calls open() does not change, not even for a
//              moment: a thread of its own enters the other one and ends there.
#pragma once

#include <string>
#include <utility>

#include "Nynet/NamespaceName.h"

namespace Routing::Multicast::Notify {

class NetlinkSocket {
 public:
  NetlinkSocket() noexcept = default;
  NetlinkSocket(NetlinkSocket&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  NetlinkSocket& operator=(NetlinkSocket&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  NetlinkSocket(const NetlinkSocket&) = delete;
  NetlinkSocket& operator=(const NetlinkSocket&) = delete;
  ~NetlinkSocket() { close(); }

  // Returns: a socket of protocol NETLINK_ROUTE, bound to a port of the system's choice and to no
  //          group.
  // `owner` stands in the texts of errors.
  static NetlinkSocket open(const Nynet::NamespaceName& ns, const std::string& owner);

  void close() noexcept;
  bool isOpen() const noexcept { return fd_ >= 0; }
  int fd() const noexcept { return fd_; }

 private:
  explicit NetlinkSocket(int fd) noexcept : fd_(fd) {}

  int fd_ = -1;
};

}  // namespace Routing::Multicast::Notify
