// What a received frame is: multicast data of a family, or something for the host.
//
// Nothing here believes a length field: every byte is read through the packet's own bounds, in
// whatever segment it lies, and the walk over IPv6 extension headers is bounded.
//
// Threads    : pure functions.
#pragma once

#include <cstdint>

struct rte_mbuf;

namespace SfeModules {

enum class FrameKind {
  kIpv4Data,
  kIpv6Data,
  kHost,       // anything that is no multicast data: control protocols, unicast, other EtherTypes
  kTruncated,  // a header that decides ends beyond the packet
};

// The link header of a frame, a VLAN tag included.
struct LinkHeader {
  enum class Result {
    kGood,
    kRunt,        // shorter than its link header
    kForeignTag,  // the outer tag is not of IEEE 802.1Q's customer kind
  };
  Result result = Result::kRunt;
  bool tagged = false;
  uint16_t vlan = 0;       // 0: untagged or a priority tag
  uint16_t length = 0;     // where the payload begins
  uint16_t etherType = 0;  // of the payload, host byte order
  uint8_t destination[6] = {};
};

LinkHeader parseLink(const rte_mbuf* mbuf);

// Classifies the payload behind `link`. Multicast data is a packet to a group beyond the link's own
// scope that is no group membership or PIM message, or a PIM Register with data in it, whatever its
// address. A Register is seen only directly behind an IP header without options, in one fragment.
FrameKind classify(const rte_mbuf* mbuf, const LinkHeader& link);

}  // namespace SfeModules
