#include "SfeModules/Testing/PacketBuilder.h"

#include <arpa/inet.h>

#include <cstdio>
#include <stdexcept>

namespace SfeModules::frames {

namespace {

constexpr unsigned kMinIhl = 5;
constexpr size_t kChecksumAt = 10;

void put16(Bytes& bytes, unsigned value) {
  bytes.push_back(static_cast<uint8_t>(value >> 8));
  bytes.push_back(static_cast<uint8_t>(value));
}

Bytes address(const std::string& text) {
  const bool ipv6 = text.find(':') != std::string::npos;
  Bytes bytes(ipv6 ? 16 : 4);
  if (inet_pton(ipv6 ? AF_INET6 : AF_INET, text.c_str(), bytes.data()) != 1) {
    throw std::invalid_argument("no address: " + text);
  }
  return bytes;
}

// End-of-options bytes are zero; the option before them is of a kind that nobody looks at.
Bytes options(size_t count) {
  Bytes bytes(count, 0);
  if (count >= 4) {
    bytes[0] = 0x88;  // stream id, 4 bytes
    bytes[1] = 4;
    bytes[2] = 0x5a;
    bytes[3] = 0xa5;
  }
  return bytes;
}

Bytes ipv4Header(const Ip& ip) {
  Bytes header;
  header.push_back(static_cast<uint8_t>(0x40 | ip.ihl));
  header.push_back(ip.tos);
  put16(header, ip.length.value_or(static_cast<uint16_t>(ip.headerBytes() + ip.payload.size())));
  put16(header, 0x1234);  // identification
  put16(header, 0x4000);  // do not fragment
  header.push_back(ip.ttl);
  header.push_back(ip.protocol);
  put16(header, 0);
  header = header + address(ip.source) + address(ip.group) + options(ip.headerBytes() - kIpv4Bytes);
  const uint16_t checksum = ip.checksum.value_or(ip.ihl < kMinIhl ? 0 : internetChecksum(header));
  header[kChecksumAt] = static_cast<uint8_t>(checksum >> 8);
  header[kChecksumAt + 1] = static_cast<uint8_t>(checksum);
  return header;
}

Bytes ipv6Header(const Ip& ip) {
  Bytes header;
  header.push_back(static_cast<uint8_t>(0x60 | (ip.tos >> 4)));
  header.push_back(static_cast<uint8_t>((ip.tos << 4) | 0x0a));
  put16(header, 0xbcde);  // the rest of the flow label
  put16(header, ip.length.value_or(static_cast<uint16_t>(ip.payload.size())));
  header.push_back(ip.protocol);
  header.push_back(ip.ttl);
  return header + address(ip.source) + address(ip.group);
}

}  // namespace

Bytes operator+(Bytes first, const Bytes& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

Bytes pattern(size_t count, uint8_t seed) {
  Bytes bytes(count);
  uint8_t value = seed;
  for (uint8_t& byte : bytes) {
    byte = value;
    value = static_cast<uint8_t>(value * 5 + 7);
  }
  return bytes;
}

Bytes udp(uint16_t destinationPort, size_t count) {
  Bytes bytes;
  put16(bytes, 40000);
  put16(bytes, destinationPort);
  put16(bytes, static_cast<unsigned>(8 + count));
  put16(bytes, 0);
  return bytes + pattern(count);
}

Bytes pimRegister(uint8_t versionAndType, uint8_t flags) {
  return {versionAndType, 0, 0xde, 0xff, flags, 0, 0, 0};
}

size_t Ip::headerBytes() const {
  if (!isIpv4()) {
    return kIpv6Bytes;
  }
  return ihl > kMinIhl ? ihl * size_t{4} : kIpv4Bytes;
}

Bytes ipPacket(const Ip& ip) {
  return (ip.isIpv4() ? ipv4Header(ip) : ipv6Header(ip)) + ip.payload;
}

uint16_t internetChecksum(const Bytes& bytes) {
  uint64_t sum = 0;
  for (size_t i = 0; i < bytes.size(); ++i) {
    sum += i % 2 == 0 ? unsigned{bytes[i]} << 8 : bytes[i];
  }
  while (sum > 0xffff) {
    sum = (sum & 0xffff) + (sum >> 16);
  }
  return static_cast<uint16_t>(~sum);
}

Bytes mac(const std::string& text) {
  Bytes bytes;
  for (size_t at = 0; at + 2 <= text.size(); at += 3) {
    bytes.push_back(static_cast<uint8_t>(std::stoul(text.substr(at, 2), nullptr, 16)));
  }
  if (bytes.size() != 6) {
    throw std::invalid_argument("no MAC address: " + text);
  }
  return bytes;
}

std::string groupMac(const std::string& group) {
  const Bytes bytes = address(group);
  const size_t last = bytes.size();
  char text[18];
  if (last == 4) {
    std::snprintf(text, sizeof(text), "01:00:5e:%02x:%02x:%02x", bytes[1] & 0x7f, bytes[2],
                  bytes[3]);
  } else {
    std::snprintf(text, sizeof(text), "33:33:%02x:%02x:%02x:%02x", bytes[last - 4], bytes[last - 3],
                  bytes[last - 2], bytes[last - 1]);
  }
  return text;
}

Bytes etherFrame(const std::string& destination,
                 const std::string& source,
                 uint16_t etherType,
                 const Bytes& payload) {
  Bytes frame = mac(destination) + mac(source);
  put16(frame, etherType);
  return frame + payload;
}

}  // namespace SfeModules::frames
