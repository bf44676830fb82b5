// The wire format of a notification: the kernel's multicast cache report, with one attribute more.
//
// Whoever reads the kernel's reports (rtnetlink groups RTNLGRP_IPV4_MROUTE_R, 30, and
// RTNLGRP_IPV6_MROUTE_R, 31; see linux/rtnetlink.h, linux/mroute.h, linux/mroute6.h) reads these.
// One datagram is one message:
//
//   offset bytes field                                                             order
//        0     4 nlmsg_len: all bytes of the message                               host
//        4     2 nlmsg_type = 96, RTM_NEWCACHEREPORT                               host
//        6     2 nlmsg_flags = 0: no request, so the kernel itself ignores it      host
//        8     4 nlmsg_seq = 0
//       12     4 nlmsg_pid = 0
//       16     1 rtgen_family = 128 (RTNL_FAMILY_IPMR, IPv4) or 129 (RTNL_FAMILY_IP6MR, IPv6)
//       17     3 zero
//       20       attributes, in the order below. Each is a u16 length (its 4 header bytes
//                included, its padding not), a u16 type, the value, and zeroes up to the next
//                multiple of 4; both u16 in host order.
//
//   length type attribute         value
//        5    1 MSGTYPE           u8: 1 NOCACHE, 2 WRONGVIF, 3 WHOLEPKT
//        8    2 VIF_ID / MIF_ID   u32, host: the low 32 bits of the interface id
//     8/20    3 SRC_ADDR          the source, network order: 4 bytes (IPv4) or 16 (IPv6)
//     8/20    4 DST_ADDR          the group, the same
//        8    6 TABLE             u32, host: 253, RT_TABLE_DEFAULT; IPv4 only
//       12   64 kAttrIntfId       u64, host: the whole interface id. Outside the kernel's
//                                 numbers, so a reader that does not know it skips it
//    4 + n    5 PKT               WHOLEPKT only: the packet from its IP header on, n <= 65531
//                                 bytes (a longer one is cut: the length has 16 bits)
//
// A NOCACHE or WRONGVIF message is 72 (IPv4) or 88 (IPv6) bytes; a WHOLEPKT as many, plus 4, plus n
// rounded up to 4.
// Threads    : pure functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "Nynet/Address.h"

namespace Routing::Multicast::Notify {

inline constexpr uint32_t kGroupIpv4 = 30;  // RTNLGRP_IPV4_MROUTE_R
inline constexpr uint32_t kGroupIpv6 = 31;  // RTNLGRP_IPV6_MROUTE_R

inline constexpr uint8_t kKindNoCache = 1;     // IGMPMSG_NOCACHE
inline constexpr uint8_t kKindWrongVif = 2;    // IGMPMSG_WRONGVIF
inline constexpr uint8_t kKindWholePkt = 3;    // IGMPMSG_WHOLEPKT
inline constexpr uint8_t kKindWrVifWhole = 4;  // IGMPMSG_WRVIFWHOLE: sent by the kernel alone

constexpr bool carriesPkt(uint8_t kind) noexcept {
  return kind == kKindWholePkt || kind == kKindWrVifWhole;
}

inline constexpr uint16_t kAttrIntfId = 64;
inline constexpr uint32_t kDefaultTable = 253;  // RT_TABLE_DEFAULT

inline constexpr size_t kMaxPktBytes = 65531;
// Room for encodeHead(): an IPv6 WHOLEPKT up to and with the header of PKT.
inline constexpr size_t kMaxHeadBytes = 96;
// No message is longer than this.
inline constexpr size_t kMaxMessageBytes = kMaxHeadBytes + kMaxPktBytes + 1;

struct CacheReport {
  Nynet::AddressFamily af = Nynet::AddressFamily::kUnspec;
  uint8_t kind = 0;
  uint32_t vifId = 0;
  Nynet::IpGenAddr source;
  Nynet::IpGenAddr group;
  std::span<const std::byte> pkt;  // not owned; empty but for the kinds that carry a whole packet
  std::optional<uint64_t> intfId;  // absent in the kernel's own reports
  std::optional<uint32_t> table;   // IPv4 only
};

// Returns: how many bytes of a packet of `pktBytes` a message carries.
constexpr size_t carriedPktBytes(size_t pktBytes) noexcept {
  return pktBytes < kMaxPktBytes ? pktBytes : kMaxPktBytes;
}
// Returns: the zero bytes that follow the packet.
constexpr size_t pktPadding(size_t carriedBytes) noexcept {
  return (4 - carriedBytes % 4) % 4;
}

// Writes all of a message but the bytes of its packet and their padding, which the caller sends
// behind it: nothing for a kind without a packet, else the first carriedPktBytes() bytes of
// report.pkt and pktPadding() zeroes. nlmsg_len counts them. report.vifId and report.table are
// written as given. Requires: `out` is 4-byte aligned and has kMaxHeadBytes. Returns: the bytes
// written; 0 when source or group is not of family report.af, or that is neither
//          IPv4 nor IPv6.
size_t encodeHead(std::span<std::byte, kMaxHeadBytes> out, const CacheReport& report) noexcept;

// Reads the first message of `message`. Believes no length before it is checked; any alignment will
// do.
// Returns: nothing for anything that is not a complete cache report: another type or family, a
//          length that does not fit, an attribute of the wrong size, one of attributes 1 to 4
//          missing. Attributes of other types are skipped; of several of one type the last one
//          counts. `pkt` points into `message`.
std::optional<CacheReport> decode(std::span<const std::byte> message) noexcept;

}  // namespace Routing::Multicast::Notify
