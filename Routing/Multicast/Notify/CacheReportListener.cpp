#include "Routing/Multicast/Notify/CacheReportListener.h"

#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <span>

#include "Base/Orp/SystemException.h"

#ifndef SOL_NETLINK
#define SOL_NETLINK 270
#endif

namespace Routing::Multicast::Notify {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kReceiveBufferBytes = 4 << 20;  // a burst of some thousand reports

void join(int fd, uint32_t group) {
  if (setsockopt(fd, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof(group)) != 0) {
    throw Orp::SystemException(errno,
                               "cannot join rtnetlink multicast group " + std::to_string(group));
  }
}

CacheReportOwned own(const CacheReport& report) {
  CacheReportOwned owned;
  static_cast<CacheReport&>(owned) = report;
  owned.bytes.assign(report.pkt.begin(), report.pkt.end());
  owned.pkt = owned.bytes;
  return owned;
}

// Returns: what poll() takes; -1 for ever.
int millisecondsUntil(Clock::time_point end, bool forever) {
  if (forever) {
    return -1;
  }
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
  return static_cast<int>(std::max<int64_t>(left.count(), 0));
}

}  // namespace

CacheReportListener::CacheReportListener(const Nynet::NamespaceName& ns)
    : socket_(NetlinkSocket::open(ns, "listener")), buffer_(kMaxMessageBytes) {
  // A bigger buffer is a favour that may be refused: overruns() then tells what was lost.
  setsockopt(fd(), SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBufferBytes, sizeof(kReceiveBufferBytes));
  join(fd(), kGroupIpv4);
  join(fd(), kGroupIpv6);
}

size_t CacheReportListener::receiveDatagram() {
  const ssize_t received = recv(fd(), buffer_.data(), buffer_.size(), MSG_DONTWAIT);
  if (received >= 0) {
    return static_cast<size_t>(received);
  }
  if (errno == ENOBUFS) {
    ++overruns_;
  } else if (errno != EAGAIN && errno != EINTR) {
    throw Orp::SystemException(errno, "cannot receive cache reports");
  }
  return 0;
}

std::optional<CacheReportOwned> CacheReportListener::receive(int timeoutMs) {
  const bool forever = timeoutMs < 0;
  const auto end = Clock::now() + std::chrono::milliseconds(std::max(timeoutMs, 0));
  for (;;) {
    pollfd waiting{fd(), POLLIN, 0};
    const int ready = poll(&waiting, 1, millisecondsUntil(end, forever));
    if (ready == 0 || (ready < 0 && errno == EINTR)) {
      return std::nullopt;
    }
    if (ready < 0) {
      throw Orp::SystemException(errno, "cannot wait for cache reports");
    }
    const size_t bytes = receiveDatagram();
    if (const auto report = decode(std::span(buffer_).first(bytes))) {
      return own(*report);
    }
  }
}

}  // namespace Routing::Multicast::Notify
