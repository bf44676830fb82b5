#include "SfeModules/IntfFrame.h"

#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/ip6.h>
#include <rte_byteorder.h>
#include <rte_ether.h>
#include <rte_ip.h>
#include <rte_mbuf.h>

#include <cstring>

namespace SfeModules {
namespace {

constexpr uint16_t kVlanIdMask = 0x0fff;

// The PIM header of RFC 7761, 4.9: a type in the low half of the first byte; a Register's flags
// follow the checksum.
constexpr uint32_t kPimHeaderBytes = 4;
constexpr uint32_t kPimRegisterBytes = 8;
constexpr uint8_t kPimTypeMask = 0x0f;
constexpr uint8_t kPimRegister = 1;
constexpr uint32_t kPimFlagsOffset = 4;
constexpr uint8_t kPimNullRegister = 0x40;

// RFC 3810, 5.2; the older messages are in the system's header.
constexpr uint8_t kMld2Report = 143;

// Bounds the work that one packet can cause.
constexpr int kMaxExtensions = 8;

// `n` bytes at `offset`: in place when they lie in one segment, else in `copy`; null when the
// packet is shorter.
const uint8_t* bytesAt(const rte_mbuf* mbuf, uint32_t offset, uint32_t n, void* copy) {
  return static_cast<const uint8_t*>(rte_pktmbuf_read(mbuf, offset, n, copy));
}

template <class T>
bool readAt(const rte_mbuf* mbuf, uint32_t offset, T* out) {
  const uint8_t* bytes = bytesAt(mbuf, offset, sizeof(T), out);
  if (bytes == nullptr) {
    return false;
  }
  if (bytes != reinterpret_cast<const uint8_t*>(out)) {
    std::memcpy(out, bytes, sizeof(T));
  }
  return true;
}

FrameKind classifyPim(const rte_mbuf* mbuf, uint32_t offset, FrameKind data) {
  uint8_t copy[kPimRegisterBytes];
  const uint8_t* pim = bytesAt(mbuf, offset, kPimHeaderBytes, copy);
  if (pim == nullptr) {
    return FrameKind::kTruncated;
  }
  if ((pim[0] & kPimTypeMask) != kPimRegister) {
    return FrameKind::kHost;
  }
  pim = bytesAt(mbuf, offset, kPimRegisterBytes, copy);
  if (pim == nullptr) {
    return FrameKind::kTruncated;
  }
  return (pim[kPimFlagsOffset] & kPimNullRegister) != 0 ? FrameKind::kHost : data;
}

FrameKind classifyIpv4(const rte_mbuf* mbuf, uint32_t offset) {
  rte_ipv4_hdr ip;
  if (!readAt(mbuf, offset, &ip)) {
    return FrameKind::kTruncated;
  }
  uint32_t headerBytes = (ip.version_ihl & RTE_IPV4_HDR_IHL_MASK) * RTE_IPV4_IHL_MULTIPLIER;
  if (ip.version_ihl >> 4 != IPVERSION || headerBytes < sizeof(ip)) {
    return FrameKind::kHost;
  }
  uint32_t group = rte_be_to_cpu_32(ip.dst_addr);
  bool localBlock = (group & 0xffffff00) == INADDR_UNSPEC_GROUP;  // 224.0.0.0/24
  if (localBlock || ip.next_proto_id == IPPROTO_IGMP) {
    return FrameKind::kHost;
  }
  if (ip.next_proto_id == IPPROTO_PIM) {
    uint16_t fragment = rte_be_to_cpu_16(ip.fragment_offset);
    bool whole = (fragment & (RTE_IPV4_HDR_MF_FLAG | RTE_IPV4_HDR_OFFSET_MASK)) == 0;
    return whole && headerBytes == sizeof(ip)
               ? classifyPim(mbuf, offset + sizeof(ip), FrameKind::kIpv4Data)
               : FrameKind::kHost;
  }
  if (!IN_MULTICAST(group)) {
    return FrameKind::kHost;
  }
  return offset + headerBytes <= rte_pktmbuf_pkt_len(mbuf) ? FrameKind::kIpv4Data
                                                           : FrameKind::kTruncated;
}

bool isListenerMessage(uint8_t type) {
  return (type >= MLD_LISTENER_QUERY && type <= MLD_LISTENER_REDUCTION) || type == kMld2Report;
}

bool isExtension(int header) {
  return header == IPPROTO_HOPOPTS || header == IPPROTO_ROUTING || header == IPPROTO_DSTOPTS ||
         header == IPPROTO_FRAGMENT || header == IPPROTO_AH;
}

// From an extension header's first bytes: each kind counts its length in its own way.
uint32_t extensionLength(int kind, const ip6_ext& header) {
  switch (kind) {
    case IPPROTO_FRAGMENT:
      return sizeof(ip6_frag);
    case IPPROTO_AH:
      return (header.ip6e_len + 2U) * 4;
    default:
      return (header.ip6e_len + 1U) * 8;
  }
}

// A packet to a group: control messages may hide behind extension headers.
FrameKind classifyExtensions(const rte_mbuf* mbuf, uint32_t offset, int next) {
  for (int i = 0; i < kMaxExtensions; ++i) {
    if (next == IPPROTO_PIM) {
      return FrameKind::kHost;
    }
    if (next == IPPROTO_ICMPV6) {
      uint8_t type = 0;
      if (!readAt(mbuf, offset, &type)) {
        return FrameKind::kTruncated;
      }
      return isListenerMessage(type) ? FrameKind::kHost : FrameKind::kIpv6Data;
    }
    if (!isExtension(next)) {
      return FrameKind::kIpv6Data;
    }
    // Every kind of extension header has as many bytes as a fragment header or more.
    ip6_frag header;
    if (!readAt(mbuf, offset, &header)) {
      return FrameKind::kTruncated;
    }
    int kind = next;
    next = header.ip6f_nxt;
    // A later fragment begins somewhere inside the upper protocol.
    if (kind == IPPROTO_FRAGMENT && (header.ip6f_offlg & IP6F_OFF_MASK) != 0) {
      return next == IPPROTO_PIM ? FrameKind::kHost : FrameKind::kIpv6Data;
    }
    offset += extensionLength(kind, {header.ip6f_nxt, header.ip6f_reserved});
  }
  return FrameKind::kHost;
}

FrameKind classifyIpv6(const rte_mbuf* mbuf, uint32_t offset) {
  rte_ipv6_hdr ip;
  if (!readAt(mbuf, offset, &ip)) {
    return FrameKind::kTruncated;
  }
  constexpr uint8_t kLinkLocalScope = 2;
  if (rte_be_to_cpu_32(ip.vtc_flow) >> 28 != 6) {
    return FrameKind::kHost;
  }
  bool group = ip.dst_addr[0] == 0xff;
  if (group && (ip.dst_addr[1] & 0x0f) <= kLinkLocalScope) {
    return FrameKind::kHost;
  }
  uint32_t payload = offset + static_cast<uint32_t>(sizeof(ip));
  if (ip.proto == IPPROTO_PIM) {
    return classifyPim(mbuf, payload, FrameKind::kIpv6Data);
  }
  return group ? classifyExtensions(mbuf, payload, ip.proto) : FrameKind::kHost;
}

}  // namespace

LinkHeader parseLink(const rte_mbuf* mbuf) {
  LinkHeader link;
  rte_ether_hdr ethernet;
  if (!readAt(mbuf, 0, &ethernet)) {
    return link;
  }
  std::memcpy(link.destination, ethernet.dst_addr.addr_bytes, sizeof(link.destination));
  link.length = sizeof(ethernet);
  link.etherType = rte_be_to_cpu_16(ethernet.ether_type);
  if (link.etherType == RTE_ETHER_TYPE_QINQ) {
    link.result = LinkHeader::Result::kForeignTag;
    return link;
  }
  if (link.etherType == RTE_ETHER_TYPE_VLAN) {
    rte_vlan_hdr tag;
    if (!readAt(mbuf, sizeof(ethernet), &tag)) {
      return link;
    }
    link.tagged = true;
    link.vlan = rte_be_to_cpu_16(tag.vlan_tci) & kVlanIdMask;
    link.length += sizeof(tag);
    link.etherType = rte_be_to_cpu_16(tag.eth_proto);
  }
  link.result = LinkHeader::Result::kGood;
  return link;
}

FrameKind classify(const rte_mbuf* mbuf, const LinkHeader& link) {
  switch (link.etherType) {
    case RTE_ETHER_TYPE_IPV4:
      return classifyIpv4(mbuf, link.length);
    case RTE_ETHER_TYPE_IPV6:
      return classifyIpv6(mbuf, link.length);
    default:
      return FrameKind::kHost;
  }
}

}  // namespace SfeModules
