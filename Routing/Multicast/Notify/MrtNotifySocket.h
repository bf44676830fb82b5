// The notify socket: sends multicast routing notifications to whoever listens in a network
// namespace.
//
// Threads    | operation                          | control | worker |
//            | constructor, afIs, enableTxIs      |   yes   |   -    |
//            | txMrtNotificationWithIntfId        |   yes   |  yes   |
//            | enableTx, txCount, txErrors, af    |   yes   |  yes   |
// Ownership  : counted (Orp::Ptr); a caller holds a reference for as long as a call of his lasts.
// Errors     : enableTxIs(true) throws Orp::SystemException: errno 2 for a namespace that does not
//              exist, 22 for a name or a file that is not one of a namespace, else the errno of the
//              call that failed. Transmission is then off. A failed send is counted and not
//              reported: the packet path has nothing to do about it.
// Cost       : a send is two atomic additions and one sendmsg(MSG_DONTWAIT); no lock, no
//              allocation, no copy of a whole packet's bytes on this side of the system call.
// Invariants :
//   (1) nothing leaves after enableTxIs(false) returned: it waits for the threads inside a send.
//   (2) no send ever uses a descriptor that was closed, or that the system gave to someone else.
//   (3) the namespace of a calling thread never changes.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "Base/Orp/Ptr.h"
#include "Nynet/Address.h"
#include "Nynet/MrtMessage.h"
#include "Nynet/NamespaceName.h"
#include "Routing/Multicast/Notify/NetlinkSocket.h"

namespace Routing::Multicast::Notify {

class MrtNotifySocketPam : public Orp::PtrInterface {
 public:
  // The family of the messages: it chooses the multicast group and the layout. A message with an
  //                             address of another
  // family is not sent and counts as an error. kUnspec until set.
  void afIs(Nynet::AddressFamily af) noexcept { af_.store(af, std::memory_order_relaxed); }
  Nynet::AddressFamily af() const noexcept { return af_.load(std::memory_order_relaxed); }

 protected:
  MrtNotifySocketPam() = default;
  ~MrtNotifySocketPam() override;

 private:
  std::atomic<Nynet::AddressFamily> af_{Nynet::AddressFamily::kUnspec};
};

class MrtNotifyNetlinkSocketPam : public MrtNotifySocketPam {
 public:
  // `owner` names the user of the socket in the texts of errors. `openOnEnable`: enableTxIs(true)
  // opens the socket and enableTxIs(false) closes it; else it is opened here, with the errors of
  // enableTxIs(true), and stays open.
  MrtNotifyNetlinkSocketPam(std::string owner, const Nynet::NamespaceName& ns, bool openOnEnable);

  // Nothing happens when transmission already is what is asked for.
  void enableTxIs(bool enable);
  bool enableTx() const noexcept {
    return (state_.load(std::memory_order_relaxed) & kEnabled) != 0;
  }

  // Sends the calling thread's fields of `message`, with the id of the interface that the packet
  // came in on. While transmission is off nothing happens and nothing is counted.
  void txMrtNotificationWithIntfId(const Orp::Ptr<Nynet::MrtMessage>& message,
                                   uint64_t intfId) noexcept;

  // Messages that the system took, and those that it or this class refused.
  uint64_t txCount() const noexcept { return txCount_.load(std::memory_order_relaxed); }
  uint64_t txErrors() const noexcept { return txErrors_.load(std::memory_order_relaxed); }

 protected:
  ~MrtNotifyNetlinkSocketPam() override;

 private:
  static constexpr uint32_t kEnabled = 1U << 31;

  bool enterSend() noexcept;
  void leaveSend() noexcept;
  void waitForSenders() noexcept;
  bool send(const Nynet::MrtMessage& message, uint64_t intfId) noexcept;

  // Constant after construction.
  const std::string owner_;
  const Nynet::NamespaceName namespace_;
  const bool openOnEnable_;

  // Control threads: one at a time switches.
  std::mutex switchMutex_;
  // Written while transmission is off and no sender is inside; read by senders.
  NetlinkSocket socket_;

  // Every thread: kEnabled, and in the bits below it the number of threads inside a send.
  std::atomic<uint32_t> state_{0};
  std::atomic<uint64_t> txCount_{0};
  std::atomic<uint64_t> txErrors_{0};
};

}  // namespace Routing::Multicast::Notify
