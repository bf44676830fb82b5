// CacheReportListener: hears the cache reports of a network namespace, this system's and the
// kernel's own.
//
// Threads    : one at a time.
// Errors     : the constructor throws Orp::SystemException as NetlinkSocket::open() does; errno 1
//              without the right to hear (CAP_NET_ADMIN). receive() throws one when the socket
//              fails.
// Invariants : what arrives is decoded with every length checked; what is not a cache report is
//              passed over.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "Nynet/NamespaceName.h"
#include "Routing/Multicast/Notify/CacheReport.h"
#include "Routing/Multicast/Notify/NetlinkSocket.h"

namespace Routing::Multicast::Notify {

// A report whose packet lives as long as it does. Moved, not copied.
struct CacheReportOwned : CacheReport {
  CacheReportOwned() = default;
  CacheReportOwned(CacheReportOwned&&) = default;
  CacheReportOwned& operator=(CacheReportOwned&&) = default;
  CacheReportOwned(const CacheReportOwned&) = delete;
  CacheReportOwned& operator=(const CacheReportOwned&) = delete;
  ~CacheReportOwned() = default;

  std::vector<std::byte> bytes;  // what `pkt` points into
};

class CacheReportListener {
 public:
  // Joined to the groups of both families when it returns: nothing sent afterwards is missed.
  explicit CacheReportListener(const Nynet::NamespaceName& ns);

  // For poll(); readable when receive(0) has something to look at.
  int fd() const noexcept { return socket_.fd(); }

  // Waits at most `timeoutMs` for the next report; 0 does not wait, a negative value waits without
  // end.
  // Returns: nothing when the time is over, or when a signal ended the wait.
  std::optional<CacheReportOwned> receive(int timeoutMs);

  // Times that the system had to drop reports because nobody took them.
  uint64_t overruns() const noexcept { return overruns_; }

 private:
  // Returns: the next datagram's length; 0 when there is none.
  size_t receiveDatagram();

  NetlinkSocket socket_;
  std::vector<std::byte> buffer_;
  uint64_t overruns_ = 0;
};

}  // namespace Routing::Multicast::Notify
