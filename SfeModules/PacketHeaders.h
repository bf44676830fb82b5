// Reading and rewriting the headers of one packet: where they are, what they say, what they become.
//
// Threads    : the worker that owns the packet.
// Errors     : parse() refuses a packet whose first segment does not hold the headers that it
// claims; an offset past the
//              end of the first segment reads as "no match". Nothing outside the first segment is
//              read or written.
// Formats    : RFC 791 (IPv4), RFC 8200 (IPv6), RFC 7761 section 4.9 (PIM Register), RFC 7348
// (VXLAN port).
#pragma once

#include <netinet/in.h>
#include <rte_byteorder.h>
#include <rte_ether.h>
#include <rte_ip.h>
#include <rte_udp.h>

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Bess/Packet.h"
#include "SfeModules/MfibTypes.h"

namespace SfeModules {

inline constexpr size_t kEtherLen = sizeof(rte_ether_hdr);
inline constexpr size_t kIpv4MinLen = sizeof(rte_ipv4_hdr);
inline constexpr size_t kIpv6Len = sizeof(rte_ipv6_hdr);
inline constexpr size_t kPimRegisterLen = 8;  // type, reserved, checksum, then the flag word
inline constexpr size_t kPimFlagsOffset = 4;
inline constexpr uint8_t kPimTypeMask = 0x0f;
inline constexpr uint8_t kPimTypeRegister = 1;
inline constexpr uint8_t kPimNullRegister = 0x40;
inline constexpr uint16_t kVxlanPort = 4789;
// Where the UDP destination port is looked for, whatever the header's length and wherever it
// begins.
inline constexpr size_t kIpv4VxlanPortOffset =
    kEtherLen + kIpv4MinLen + offsetof(rte_udp_hdr, dst_port);
inline constexpr size_t kIpv6VxlanPortOffset =
    kEtherLen + kIpv6Len + offsetof(rte_udp_hdr, dst_port);

// What the forwarding rules need to know of a packet.
struct PacketHeaders {
  uint32_t ipOffset = 0;  // of the header in use, from the packet's data start
  uint8_t ttl = 0;        // IPv4: of the header in use; IPv6: the outer hop limit
  bool encap = false;     // carries a packet: PIM Register or VXLAN
  bool decap = false;     // PIM Register: the header in use is the inner one
  MfibKey key;            // source and group of the header in use
};

enum class Parsed : uint8_t {
  kOk,
  kCutOff,          // a header is not all there
  kPimWithoutData,  // PIM that is no Register with data
};

class HeaderReader {
 public:
  explicit HeaderReader(bess::Packet* packet)
      : data_(packet->headData<const uint8_t*>()), length_(packet->headLen()) {}

  bool holds(size_t offset, size_t bytes) const { return offset + bytes <= length_; }
  const uint8_t* at(size_t offset) const { return data_ + offset; }
  uint8_t byte(size_t offset) const { return data_[offset]; }

  // A 16-bit value in network order at a fixed place; false when it is past the end.
  bool is16(size_t offset, uint16_t value) const {
    return holds(offset, 2) && ((data_[offset] << 8) | data_[offset + 1]) == value;
  }

  // A PIM Register that carries a packet. Requires: kPimRegisterLen bytes at `offset`.
  bool isDataRegister(size_t offset) const {
    return (data_[offset] & kPimTypeMask) == kPimTypeRegister &&
           (data_[offset + kPimFlagsOffset] & kPimNullRegister) == 0;
  }

 private:
  const uint8_t* data_;
  size_t length_;
};

// True when all of the IPv4 header at `offset`, its options included, is there. A header that
// claims to be shorter than the fixed part counts as the fixed part.
inline bool holdsIpv4Header(const HeaderReader& reader, size_t offset) {
  if (!reader.holds(offset, kIpv4MinLen)) {
    return false;
  }
  const size_t claimed = (reader.byte(offset) & 0x0fU) * 4U;
  return reader.holds(offset, claimed);
}

[[gnu::always_inline]] inline Parsed parseIpv4(bess::Packet* packet,
                                               size_t ipOffset,
                                               PacketHeaders& headers) {
  const HeaderReader reader(packet);
  if (!holdsIpv4Header(reader, ipOffset)) {
    return Parsed::kCutOff;
  }
  const uint8_t protocol = reader.byte(ipOffset + offsetof(rte_ipv4_hdr, next_proto_id));
  size_t inUse = ipOffset;
  if (protocol == IPPROTO_PIM) {
    const size_t pim = ipOffset + kIpv4MinLen;
    inUse = pim + kPimRegisterLen;
    if (!reader.holds(pim, kPimRegisterLen)) {
      return Parsed::kCutOff;
    }
    if (!reader.isDataRegister(pim)) {
      return Parsed::kPimWithoutData;
    }
    if (!holdsIpv4Header(reader, inUse)) {
      return Parsed::kCutOff;
    }
    headers.encap = headers.decap = true;
  } else {
    headers.encap = protocol == IPPROTO_UDP && reader.is16(kIpv4VxlanPortOffset, kVxlanPort);
  }
  headers.ipOffset = static_cast<uint32_t>(inUse);
  headers.ttl = reader.byte(inUse + offsetof(rte_ipv4_hdr, time_to_live));
  headers.key.ipv4Is(reader.at(inUse + offsetof(rte_ipv4_hdr, src_addr)),
                     reader.at(inUse + offsetof(rte_ipv4_hdr, dst_addr)));
  return Parsed::kOk;
}

inline Parsed parseIpv6(bess::Packet* packet, PacketHeaders& headers) {
  const HeaderReader reader(packet);
  if (!reader.holds(kEtherLen, kIpv6Len)) {
    return Parsed::kCutOff;
  }
  const uint8_t nextHeader = reader.byte(kEtherLen + offsetof(rte_ipv6_hdr, proto));
  size_t inUse = kEtherLen;
  if (nextHeader == IPPROTO_PIM) {
    const size_t pim = kEtherLen + kIpv6Len;
    inUse = pim + kPimRegisterLen;
    if (!reader.holds(pim, kPimRegisterLen)) {
      return Parsed::kCutOff;
    }
    if (!reader.isDataRegister(pim)) {
      return Parsed::kPimWithoutData;
    }
    if (!reader.holds(inUse, kIpv6Len)) {
      return Parsed::kCutOff;
    }
    headers.encap = headers.decap = true;
  } else {
    headers.encap = nextHeader == IPPROTO_UDP && reader.is16(kIpv6VxlanPortOffset, kVxlanPort);
  }
  headers.ipOffset = static_cast<uint32_t>(inUse);
  headers.ttl = reader.byte(kEtherLen + offsetof(rte_ipv6_hdr, hop_limits));
  headers.key = MfibKey::of(reader.at(inUse + offsetof(rte_ipv6_hdr, src_addr)),
                            reader.at(inUse + offsetof(rte_ipv6_hdr, dst_addr)), kIpv6AddrLen);
  return Parsed::kOk;
}

// A group that routes can exist for: IPv4 class D; IPv6 multicast beyond link-local scope.
inline bool isRoutableGroup(const AddrBytes& group, bool ipv4) {
  if (ipv4) {
    return (group[0] & 0xf0) == 0xe0;
  }
  return group[0] == 0xff && (group[1] & 0x0f) != 2;
}

// The groups that no router forwards: 224.0.0.0/24 (RFC 5771), ff02::/16 with any flags (RFC 4291).
inline bool isLinkLocalGroup(const AddrBytes& group, bool ipv4) {
  if (ipv4) {
    return group[0] == 224 && group[1] == 0 && group[2] == 0;
  }
  return group[0] == 0xff && (group[1] & 0x0f) == 2;
}

// The checksum over IHL x 4 bytes with the field taken as 0; an IHL below 5 writes 0 (RFC 1071).
// Requires: the whole header.
inline void writeIpv4Checksum(uint8_t* header) {
  constexpr size_t kField = offsetof(rte_ipv4_hdr, hdr_checksum);
  const size_t words = (header[0] & 0x0fU) * 2U;
  header[kField] = header[kField + 1] = 0;
  if (words < kIpv4MinLen / 2) {
    return;
  }
  uint32_t sum = 0;
  for (size_t i = 0; i < words; ++i) {
    uint16_t word;  // NOLINT(cppcoreguidelines-init-variables): set in the next line
    std::memcpy(&word, header + 2 * i, sizeof(word));
    sum += word;
  }
  sum = (sum >> 16) + (sum & 0xffff);
  sum += sum >> 16;
  const auto checksum = static_cast<uint16_t>(~sum);
  std::memcpy(header + kField, &checksum, sizeof(checksum));
}

// A sum whose carry is added again: how a checksum adds (RFC 1071 section 2).
template <class Word>
Word addAround(Word a, Word b) {
  Word sum;  // NOLINT(cppcoreguidelines-init-variables): set in the next line
  const bool carry = __builtin_add_overflow(a, b, &sum);
  return static_cast<Word>(sum + (carry ? 1 : 0));
}

// The checksum over words of a header.
inline uint16_t checksumOver(uint64_t first, uint64_t second, uint32_t last) {
  const uint64_t sum = addAround(addAround(first, second), uint64_t{last});
  const uint32_t word = addAround(static_cast<uint32_t>(sum), static_cast<uint32_t>(sum >> 32));
  return static_cast<uint16_t>(
      ~addAround(static_cast<uint16_t>(word), static_cast<uint16_t>(word >> 16)));
}

// Takes one from the TTL, puts `tos` in place and writes the checksum. A header without options is
// read and written in whole words: a byte store before a word's load would hold the load up.
// Requires: the whole header.
inline void rewriteIpv4Header(uint8_t* header, uint8_t tos) {
  static_assert(std::endian::native == std::endian::little);
  constexpr uint8_t kWithoutOptions = RTE_IPV4_VHL_DEF;
  if (header[0] != kWithoutOptions) {
    header[offsetof(rte_ipv4_hdr, type_of_service)] = tos;
    header[offsetof(rte_ipv4_hdr, time_to_live)] -= 1;
    writeIpv4Checksum(header);
    return;
  }
  // The bytes of the header from the first on are the bits of the words from the lowest on.
  constexpr uint64_t kTos = uint64_t{0xff} << 8;
  constexpr uint64_t kTtl = 0xff;
  constexpr uint64_t kChecksum = uint64_t{0xffff} << 16;
  uint64_t first = 0;
  uint64_t second = 0;
  uint32_t last = 0;
  std::memcpy(&first, header, sizeof(first));
  std::memcpy(&second, header + sizeof(first), sizeof(second));
  std::memcpy(&last, header + sizeof(first) + sizeof(second), sizeof(last));
  first = (first & ~kTos) | (uint64_t{tos} << 8);
  second = (second & ~(kTtl | kChecksum)) | ((second - 1) & kTtl);
  second |= uint64_t{checksumOver(first, second, last)} << 16;
  std::memcpy(header, &first, sizeof(first));
  std::memcpy(header + sizeof(first), &second, sizeof(second));
}

inline void decrementByte(uint8_t* at) {
  *at = static_cast<uint8_t>(*at - 1);
}

inline void writeEtherType(uint8_t* frame, uint16_t etherType) {
  frame[kEtherLen - 2] = static_cast<uint8_t>(etherType >> 8);
  frame[kEtherLen - 1] = static_cast<uint8_t>(etherType);
}

}  // namespace SfeModules
