#include "Routing/Multicast/Notify/CacheReport.h"

#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
// The kernel's headers want the C library's address types to be known.
#include <linux/mroute.h>
#include <linux/mroute6.h>

#include <algorithm>
#include <cstring>

namespace Routing::Multicast::Notify {
namespace {

using Nynet::AddressFamily;

static_assert(kGroupIpv4 == RTNLGRP_IPV4_MROUTE_R && kGroupIpv6 == RTNLGRP_IPV6_MROUTE_R);
static_assert(kKindNoCache == IGMPMSG_NOCACHE && kKindWrongVif == IGMPMSG_WRONGVIF &&
              kKindWholePkt == IGMPMSG_WHOLEPKT && kKindWrVifWhole == IGMPMSG_WRVIFWHOLE);
static_assert(kDefaultTable == RT_TABLE_DEFAULT);
static_assert(kAttrIntfId > IPMRA_CREPORT_MAX && kAttrIntfId > IP6MRA_CREPORT_MAX);
// Both families number the attributes alike.
static_assert(IP6MRA_CREPORT_MSGTYPE == int{IPMRA_CREPORT_MSGTYPE} &&
              IP6MRA_CREPORT_MIF_ID == int{IPMRA_CREPORT_VIF_ID} &&
              IP6MRA_CREPORT_SRC_ADDR == int{IPMRA_CREPORT_SRC_ADDR} &&
              IP6MRA_CREPORT_DST_ADDR == int{IPMRA_CREPORT_DST_ADDR} &&
              IP6MRA_CREPORT_PKT == int{IPMRA_CREPORT_PKT});

constexpr size_t kAttrsOffset = NLMSG_HDRLEN + NLMSG_ALIGN(sizeof(rtgenmsg));

// Reads a T at any alignment. Requires: sizeof(T) bytes at `from`.
template <class T>
T load(const std::byte* from) {
  T value{};
  std::memcpy(&value, from, sizeof(value));
  return value;
}

// The first message of a datagram, walked attribute by attribute.
class AttributeWalk {
 public:
  explicit AttributeWalk(std::span<const std::byte> rest) : rest_(rest) {}

  // Goes to the next attribute. Returns: false at the end, or at a length that does not fit.
  bool next() {
    if (rest_.empty()) {
      return false;
    }
    if (rest_.size() < NLA_HDRLEN) {
      return fail();
    }
    const auto header = load<nlattr>(rest_.data());
    if (header.nla_len < NLA_HDRLEN || header.nla_len > rest_.size()) {
      return fail();
    }
    type_ = header.nla_type & NLA_TYPE_MASK;
    value_ = rest_.subspan(NLA_HDRLEN, header.nla_len - NLA_HDRLEN);
    // The last one's padding may be left away.
    rest_ = rest_.subspan(std::min<size_t>(NLA_ALIGN(header.nla_len), rest_.size()));
    return true;
  }

  bool failed() const { return failed_; }
  unsigned type() const { return type_; }
  std::span<const std::byte> value() const { return value_; }

 private:
  bool fail() {
    failed_ = true;
    return false;
  }

  std::span<const std::byte> rest_;
  std::span<const std::byte> value_;
  unsigned type_ = 0;
  bool failed_ = false;
};

template <class T, class Target>
bool readNumber(std::span<const std::byte> value, Target& target) {
  if (value.size() != sizeof(T)) {
    return false;
  }
  target = load<T>(value.data());
  return true;
}

bool readAddress(AddressFamily af, std::span<const std::byte> value, Nynet::IpGenAddr& target) {
  if (value.size() != Nynet::addressLength(af)) {
    return false;
  }
  target = Nynet::IpGenAddr(af, reinterpret_cast<const uint8_t*>(value.data()));
  return true;
}

// Returns: false when the attribute is one of the report's and has the wrong size.
bool readAttribute(unsigned type, std::span<const std::byte> value, CacheReport& report) {
  switch (type) {
    case IPMRA_CREPORT_MSGTYPE:
      return readNumber<uint8_t>(value, report.kind);
    case IPMRA_CREPORT_VIF_ID:
      return readNumber<uint32_t>(value, report.vifId);
    case IPMRA_CREPORT_SRC_ADDR:
      return readAddress(report.af, value, report.source);
    case IPMRA_CREPORT_DST_ADDR:
      return readAddress(report.af, value, report.group);
    case IPMRA_CREPORT_PKT:
      report.pkt = value;
      return true;
    case IPMRA_CREPORT_TABLE:
      return report.af != AddressFamily::kIpv4 || readNumber<uint32_t>(value, report.table);
    case kAttrIntfId:
      return readNumber<uint64_t>(value, report.intfId);
    default:
      return true;
  }
}

AddressFamily familyOf(uint8_t rtgenFamily) {
  switch (rtgenFamily) {
    case RTNL_FAMILY_IPMR:
      return AddressFamily::kIpv4;
    case RTNL_FAMILY_IP6MR:
      return AddressFamily::kIpv6;
    default:
      return AddressFamily::kUnspec;
  }
}

}  // namespace

size_t encodeHead(std::span<std::byte, kMaxHeadBytes> out, const CacheReport& report) noexcept {
  const size_t addressBytes = Nynet::addressLength(report.af);
  if (addressBytes == 0 || report.source.af() != report.af || report.group.af() != report.af) {
    return 0;
  }
  std::fill(out.begin(), out.end(), std::byte{0});  // headers, flags and paddings
  nlmsghdr* message = mnl_nlmsg_put_header(out.data());
  message->nlmsg_type = RTM_NEWCACHEREPORT;
  auto* family = static_cast<rtgenmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(rtgenmsg)));
  const bool isIpv4 = report.af == AddressFamily::kIpv4;
  family->rtgen_family = isIpv4 ? RTNL_FAMILY_IPMR : RTNL_FAMILY_IP6MR;

  mnl_attr_put_u8(message, IPMRA_CREPORT_MSGTYPE, report.kind);
  mnl_attr_put_u32(message, IPMRA_CREPORT_VIF_ID, report.vifId);
  mnl_attr_put(message, IPMRA_CREPORT_SRC_ADDR, addressBytes, report.source.bytes());
  mnl_attr_put(message, IPMRA_CREPORT_DST_ADDR, addressBytes, report.group.bytes());
  if (isIpv4 && report.table) {
    mnl_attr_put_u32(message, IPMRA_CREPORT_TABLE, *report.table);
  }
  if (report.intfId) {
    mnl_attr_put_u64(message, kAttrIntfId, *report.intfId);
  }
  size_t written = message->nlmsg_len;
  if (carriesPkt(report.kind)) {
    const size_t carried = carriedPktBytes(report.pkt.size());
    const nlattr header{static_cast<uint16_t>(NLA_HDRLEN + carried), IPMRA_CREPORT_PKT};
    std::memcpy(out.data() + written, &header, sizeof(header));
    written += sizeof(header);
    message->nlmsg_len = static_cast<uint32_t>(written + carried + pktPadding(carried));
  }
  return written;
}

std::optional<CacheReport> decode(std::span<const std::byte> message) noexcept {
  if (message.size() < kAttrsOffset) {
    return std::nullopt;
  }
  const auto header = load<nlmsghdr>(message.data());
  if (header.nlmsg_len < kAttrsOffset || header.nlmsg_len > message.size() ||
      header.nlmsg_type != RTM_NEWCACHEREPORT) {
    return std::nullopt;
  }
  CacheReport report;
  report.af = familyOf(load<rtgenmsg>(message.data() + NLMSG_HDRLEN).rtgen_family);
  if (report.af == AddressFamily::kUnspec) {
    return std::nullopt;
  }
  unsigned seen = 0;  // a bit for each of attributes 1 to 4
  AttributeWalk walk(message.subspan(kAttrsOffset, header.nlmsg_len - kAttrsOffset));
  while (walk.next()) {
    if (!readAttribute(walk.type(), walk.value(), report)) {
      return std::nullopt;
    }
    if (walk.type() <= IPMRA_CREPORT_DST_ADDR) {
      seen |= 1U << walk.type();
    }
  }
  constexpr unsigned kNeeded = 1U << IPMRA_CREPORT_MSGTYPE | 1U << IPMRA_CREPORT_VIF_ID |
                               1U << IPMRA_CREPORT_SRC_ADDR | 1U << IPMRA_CREPORT_DST_ADDR;
  if (walk.failed() || (seen & kNeeded) != kNeeded) {
    return std::nullopt;
  }
  if (!carriesPkt(report.kind)) {
    report.pkt = {};  // the kernel leaves meaningless bytes there
  }
  return report;
}

}  // namespace Routing::Multicast::Notify
