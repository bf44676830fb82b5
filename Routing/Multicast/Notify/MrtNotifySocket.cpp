#include "Routing/Multicast/Notify/MrtNotifySocket.h"

#include <linux/netlink.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <span>
#include <utility>

#include "Nynet/Pkt.h"
#include "Routing/Multicast/Notify/CacheReport.h"

namespace Routing::Multicast::Notify {
namespace {

constexpr uint32_t groupMask(uint32_t group) {
  return 1U << (group - 1);
}

std::span<const std::byte> bytesOf(const Nynet::Pkt* pkt) {
  if (pkt == nullptr || !pkt->hasHeadData()) {
    return {};
  }
  return std::as_bytes(std::span(pkt->headData(), pkt->headDataLength()));
}

CacheReport reportOf(Nynet::AddressFamily af, const Nynet::MrtMessage& message, uint64_t intfId) {
  CacheReport report;
  report.af = af;
  report.kind = message.kind();
  report.vifId = static_cast<uint32_t>(intfId);
  report.source = message.source();
  report.group = message.group();
  if (carriesPkt(report.kind)) {
    report.pkt = bytesOf(message.attachedPkt());
  }
  report.intfId = intfId;
  report.table = kDefaultTable;
  return report;
}

}  // namespace

MrtNotifySocketPam::~MrtNotifySocketPam() = default;

MrtNotifyNetlinkSocketPam::MrtNotifyNetlinkSocketPam(std::string owner,
                                                     const Nynet::NamespaceName& ns,
                                                     bool openOnEnable)
    : owner_(std::move(owner)), namespace_(ns), openOnEnable_(openOnEnable) {
  if (!openOnEnable_) {
    socket_ = NetlinkSocket::open(namespace_, owner_);
  }
}

MrtNotifyNetlinkSocketPam::~MrtNotifyNetlinkSocketPam() = default;

void MrtNotifyNetlinkSocketPam::enableTxIs(bool enable) {
  const std::lock_guard lock(switchMutex_);
  if (enable == enableTx()) {
    return;
  }
  if (enable) {
    if (openOnEnable_) {
      socket_ = NetlinkSocket::open(namespace_, owner_);
    }
    state_.fetch_or(kEnabled, std::memory_order_release);  // publishes socket_
    return;
  }
  state_.fetch_and(~kEnabled, std::memory_order_relaxed);
  waitForSenders();
  if (openOnEnable_) {
    socket_.close();
  }
}

// The counter goes up before the switch is looked at: either this thread sees transmission switched
// off, or the one that switches it off sees this thread and waits. Acquires socket_.
bool MrtNotifyNetlinkSocketPam::enterSend() noexcept {
  if (!enableTx()) {
    return false;  // without a count, so that those who wait for zero get there
  }
  if ((state_.fetch_add(1, std::memory_order_acquire) & kEnabled) != 0) {
    return true;
  }
  leaveSend();
  return false;
}

void MrtNotifyNetlinkSocketPam::leaveSend() noexcept {
  // The last one out while transmission is off wakes the thread that waits for it.
  if (state_.fetch_sub(1, std::memory_order_release) == 1) {
    state_.notify_all();
  }
}

void MrtNotifyNetlinkSocketPam::waitForSenders() noexcept {
  // A thread that enters now leaves at once without a send, so the count reaches zero.
  for (uint32_t inside = state_.load(std::memory_order_acquire); inside != 0;
       inside = state_.load(std::memory_order_acquire)) {
    state_.wait(inside, std::memory_order_acquire);
  }
}

void MrtNotifyNetlinkSocketPam::txMrtNotificationWithIntfId(
    const Orp::Ptr<Nynet::MrtMessage>& message,
    uint64_t intfId) noexcept {
  if (!enterSend()) {
    return;
  }
  std::atomic<uint64_t>& outcome = send(*message, intfId) ? txCount_ : txErrors_;
  outcome.fetch_add(1, std::memory_order_relaxed);
  leaveSend();
}

// Requires: between enterSend() and leaveSend().
bool MrtNotifyNetlinkSocketPam::send(const Nynet::MrtMessage& message, uint64_t intfId) noexcept {
  const CacheReport report = reportOf(af(), message, intfId);
  alignas(nlmsghdr) std::array<std::byte, kMaxHeadBytes> head{};
  const size_t headBytes = encodeHead(head, report);
  if (headBytes == 0) {
    return false;
  }
  static constexpr std::array<std::byte, 3> kZeroes{};
  const size_t pktBytes = carriedPktBytes(report.pkt.size());
  std::array<iovec, 3> pieces = {{{head.data(), headBytes},
                                  {const_cast<std::byte*>(report.pkt.data()), pktBytes},
                                  {const_cast<std::byte*>(kZeroes.data()), pktPadding(pktBytes)}}};
  sockaddr_nl listeners{};
  listeners.nl_family = AF_NETLINK;
  listeners.nl_groups =
      groupMask(report.af == Nynet::AddressFamily::kIpv4 ? kGroupIpv4 : kGroupIpv6);
  msghdr datagram{};
  datagram.msg_name = &listeners;
  datagram.msg_namelen = sizeof(listeners);
  datagram.msg_iov = pieces.data();
  datagram.msg_iovlen = pieces.size();
  return sendmsg(socket_.fd(), &datagram, MSG_DONTWAIT) >= 0;
}

}  // namespace Routing::Multicast::Notify
