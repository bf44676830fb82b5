// Builds packets byte by byte, from the formats' descriptions alone: what a test sends in and what
// it expects to come out owe nothing to the code under test.
//
//   Bytes frame = etherFrame("01:00:5e:01:01:01", "02:00:00:00:00:01", 0x0800,
//                            ipPacket({.source = "10.0.0.2", .group = "239.1.1.1"}));
//
// Units      : every number in host order; it is written in network order.
// Errors     : an address that is none throws std::invalid_argument.
// Formats    : IEEE 802.3; RFC 791 and RFC 1071 (IPv4, checksum); RFC 8200 (IPv6); RFC 768 (UDP);
//              RFC 7761 section 4.9.3 (PIM Register); RFC 1112 and RFC 2464 (group MAC addresses).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace SfeModules::frames {

using Bytes = std::vector<uint8_t>;

inline constexpr uint8_t kProtocolTcp = 6;
inline constexpr uint8_t kProtocolUdp = 17;
inline constexpr uint8_t kProtocolPim = 103;
inline constexpr uint16_t kEtherTypeIpv4 = 0x0800;
inline constexpr uint16_t kEtherTypeIpv6 = 0x86dd;
inline constexpr uint16_t kVxlan = 4789;
inline constexpr uint16_t kSomePort = 5000;
inline constexpr size_t kEtherBytes = 14;
inline constexpr size_t kIpv4Bytes = 20;  // without options
inline constexpr size_t kIpv6Bytes = 40;
inline constexpr size_t kRegisterBytes = 8;

Bytes operator+(Bytes first, const Bytes& second);

// `count` bytes that differ from their neighbours; another seed, other bytes.
Bytes pattern(size_t count, uint8_t seed = 1);

// A UDP header (checksum 0) and `count` bytes of data.
Bytes udp(uint16_t destinationPort = kSomePort, size_t count = 32);

// The 8 bytes before the packet that a Register carries: version and type, the flag byte.
Bytes pimRegister(uint8_t versionAndType = 0x21, uint8_t flags = 0);

// An IP packet. An address with a colon makes it IPv6.
struct Ip {
  std::string source;
  std::string group;
  uint8_t ttl = 64;    // IPv6: hop limit
  uint8_t tos = 0x02;  // IPv6: traffic class
  uint8_t protocol = kProtocolUdp;
  unsigned ihl = 5;                       // IPv4: 6 .. 15 adds options, below 5 adds nothing
  std::optional<uint16_t> length = {};    // what the length field says, else the truth
  std::optional<uint16_t> checksum = {};  // IPv4: what the field says, else the right one
  Bytes payload = udp();

  bool isIpv4() const { return source.find(':') == std::string::npos; }
  size_t headerBytes() const;  // as they are in the packet
};

Bytes ipPacket(const Ip& ip);

// The Internet checksum of bytes with their checksum field at zero.
uint16_t internetChecksum(const Bytes& bytes);

// MAC addresses as "01:00:5e:01:01:01".
Bytes mac(const std::string& text);
std::string groupMac(const std::string& group);

Bytes etherFrame(const std::string& destination,
                 const std::string& source,
                 uint16_t etherType,
                 const Bytes& payload);

}  // namespace SfeModules::frames
