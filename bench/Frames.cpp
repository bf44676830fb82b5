#include "bench/Frames.h"

#include <netinet/in.h>
#include <rte_byteorder.h>
#include <rte_ether.h>
#include <rte_ip.h>
#include <rte_udp.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <stdexcept>

namespace bench {

namespace {

constexpr uint32_t kFirstGroup = RTE_IPV4(239, 0, 0, 0);
constexpr uint32_t kFirstSource = RTE_IPV4(11, 0, 0, 0);
constexpr uint8_t kTtl = 64;
constexpr uint16_t kPort = 5000;
constexpr unsigned kSeed = 20260401;
constexpr size_t kRegisterBytes = 8;
constexpr char kRegisterHeader[kRegisterBytes] = {0x21, 0, 0, 0, 0, 0, 0, 0};  // version 2, type 1
constexpr size_t kIpv6Bytes = 16;

bool isIpv6(Mode mode) {
  return mode == Mode::kIpv6;
}

size_t ipBytes(Mode mode) {
  return isIpv6(mode) ? sizeof(rte_ipv6_hdr) : sizeof(rte_ipv4_hdr);
}

size_t linkBytes(Mode mode) {
  return mode == Mode::kIpv4Bare ? 0 : sizeof(rte_ether_hdr);
}

void writeAddress(void* to, const std::string& address) {
  std::memcpy(to, address.data(), address.size());
}

// Fills an IP header for `protocol` over `payload` bytes.
void writeIp(char* at, Mode mode, uint8_t protocol, size_t payload) {
  if (isIpv6(mode)) {
    auto* ip = reinterpret_cast<rte_ipv6_hdr*>(at);
    ip->vtc_flow = rte_cpu_to_be_32(6U << 28U);
    ip->payload_len = rte_cpu_to_be_16(static_cast<uint16_t>(payload));
    ip->proto = protocol;
    ip->hop_limits = kTtl;
    writeAddress(ip->src_addr, sourceBytes(mode));
    writeAddress(ip->dst_addr, groupBytes(mode, 1));
    return;
  }
  auto* ip = reinterpret_cast<rte_ipv4_hdr*>(at);
  ip->version_ihl = RTE_IPV4_VHL_DEF;
  ip->total_length = rte_cpu_to_be_16(static_cast<uint16_t>(payload + sizeof(*ip)));
  ip->time_to_live = kTtl;
  ip->next_proto_id = protocol;
  writeAddress(&ip->src_addr, sourceBytes(mode));
  writeAddress(&ip->dst_addr, groupBytes(mode, 1));
  ip->hdr_checksum = rte_ipv4_cksum(ip);
}

void writeEther(char* at, Mode mode) {
  if (mode == Mode::kIpv4Bare) {
    return;
  }
  auto* ether = reinterpret_cast<rte_ether_hdr*>(at);
  ether->ether_type = rte_cpu_to_be_16(isIpv6(mode) ? RTE_ETHER_TYPE_IPV6 : RTE_ETHER_TYPE_IPV4);
}

// An IP packet with UDP in it, to fill `bytes`.
void writeDatagram(char* at, Mode mode, size_t bytes) {
  const size_t header = ipBytes(mode);
  if (bytes < header + sizeof(rte_udp_hdr)) {
    throw std::invalid_argument("packets of this mode have at least " +
                                std::to_string(linkBytes(mode) + header + sizeof(rte_udp_hdr)) +
                                " bytes");
  }
  writeIp(at, mode, IPPROTO_UDP, bytes - header);
  auto* udp = reinterpret_cast<rte_udp_hdr*>(at + header);
  udp->src_port = udp->dst_port = rte_cpu_to_be_16(kPort);
  udp->dgram_len = rte_cpu_to_be_16(static_cast<uint16_t>(bytes - header));
}

size_t destinationWord(Mode mode) {
  return isIpv6(mode) ? offsetof(rte_ipv6_hdr, dst_addr) + kIpv6Bytes - sizeof(uint32_t)
                      : offsetof(rte_ipv4_hdr, dst_addr);
}

size_t sourceWord(Mode mode) {
  return isIpv6(mode) ? offsetof(rte_ipv6_hdr, src_addr) + kIpv6Bytes - sizeof(uint32_t)
                      : offsetof(rte_ipv4_hdr, src_addr);
}

Frame plainFrame(Mode mode, unsigned bytes, size_t wordInHeader) {
  const size_t link = linkBytes(mode);
  Frame frame;
  frame.bytes.assign(std::max<size_t>(bytes, link), '\0');
  writeEther(frame.bytes.data(), mode);
  writeDatagram(frame.bytes.data() + link, mode, frame.bytes.size() - link);
  frame.wordOffset = link + wordInHeader;
  frame.checksumOffset = isIpv6(mode) ? 0 : link + offsetof(rte_ipv4_hdr, hdr_checksum);
  return frame;
}

}  // namespace

const char* modeName(Mode mode) {
  switch (mode) {
    case Mode::kIpv4:
      return "ipv4";
    case Mode::kIpv4Bare:
      return "ipv4-bare";
    case Mode::kIpv6:
      return "ipv6";
  }
  return "?";
}

Frame multicastFrame(Mode mode, unsigned bytes) {
  return plainFrame(mode, bytes, destinationWord(mode));
}

Frame manySourcesFrame(Mode mode, unsigned bytes) {
  return plainFrame(mode, bytes, sourceWord(mode));
}

Frame registerFrame(Mode mode, unsigned bytes) {
  const size_t link = linkBytes(mode);
  const size_t inner = link + ipBytes(mode) + kRegisterBytes;
  const Frame plain = multicastFrame(mode, bytes);
  Frame frame;
  frame.bytes.assign(inner, '\0');
  frame.bytes += plain.bytes.substr(link);
  writeEther(frame.bytes.data(), mode);
  writeIp(frame.bytes.data() + link, mode, IPPROTO_PIM, frame.bytes.size() - link - ipBytes(mode));
  std::memcpy(frame.bytes.data() + inner - kRegisterBytes, kRegisterHeader, kRegisterBytes);
  frame.wordOffset = plain.wordOffset - link + inner;
  frame.checksumOffset = isIpv6(mode) ? 0 : plain.checksumOffset - link + inner;
  return frame;
}

Flow flowOf(const Frame& frame, uint32_t number) {
  const bool ipv4 = frame.checksumOffset != 0;
  if (!ipv4) {
    return {.word = rte_cpu_to_be_32(number), .checksum = 0};
  }
  rte_ipv4_hdr header;
  const size_t start = frame.checksumOffset - offsetof(rte_ipv4_hdr, hdr_checksum);
  std::memcpy(&header, frame.bytes.data() + start, sizeof(header));
  const bool isGroup = frame.wordOffset - start == offsetof(rte_ipv4_hdr, dst_addr);
  const uint32_t word = rte_cpu_to_be_32((isGroup ? kFirstGroup : kFirstSource) + number);
  (isGroup ? header.dst_addr : header.src_addr) = word;
  header.hdr_checksum = 0;
  return {.word = word, .checksum = rte_ipv4_cksum(&header)};
}

std::vector<Flow> shuffledFlows(const Frame& frame, uint32_t first, uint32_t count) {
  std::vector<Flow> flows;
  flows.reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    flows.push_back(flowOf(frame, first + i));
  }
  std::shuffle(flows.begin(), flows.end(), std::mt19937(kSeed));
  return flows;
}

std::string sourceBytes(Mode mode) {
  if (isIpv6(mode)) {
    return {"\x20\x01\x0d\xb8\0\0\0\0\0\0\0\0\0\0\0\x02", kIpv6Bytes};
  }
  return {"\x0a\0\0\x02", sizeof(uint32_t)};
}

std::string groupBytes(Mode mode, uint32_t number) {
  const uint32_t word = rte_cpu_to_be_32(isIpv6(mode) ? number : kFirstGroup + number);
  std::string bytes;
  if (isIpv6(mode)) {
    bytes.assign("\xff\x15\0\0\0\0\0\0\0\0\0\0", kIpv6Bytes - sizeof(word));
  }
  bytes.append(reinterpret_cast<const char*>(&word), sizeof(word));
  return bytes;
}

}  // namespace bench
