// The packets that the benchmarks send, and the words that make one template the packet of many
// flows.
//
// Units      : `bytes` is the length of the packet as the module gets it: with its Ethernet header
//              except in mode kIpv4Bare.
// Formats    : RFC 791, RFC 8200, RFC 768, RFC 7761 section 4.9 (Register).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace bench {

// Address family and header mode of an instance.
enum class Mode : uint8_t {
  kIpv4,      // IPv4 in Ethernet frames
  kIpv4Bare,  // IPv4 without an Ethernet header
  kIpv6,      // IPv6 in Ethernet frames
};
const char* modeName(Mode mode);

// Where a template differs from flow to flow.
struct Flow {
  uint32_t word = 0;      // the last four bytes of an address, in the packet's byte order
  uint16_t checksum = 0;  // of the IPv4 header that goes with it
};

struct Frame {
  std::string bytes;
  size_t wordOffset = 0;
  size_t checksumOffset = 0;  // 0: this header has none
};

// Source 10.0.0.2 or 2001:db8::2; flows differ in the group.
Frame multicastFrame(Mode mode, unsigned bytes);
// The same with one group, 239.0.0.1; flows differ in the source.
Frame manySourcesFrame(Mode mode, unsigned bytes);
// A multicast packet of `bytes` in a PIM Register message. Requires: kIpv4 or kIpv6.
Frame registerFrame(Mode mode, unsigned bytes);

// Flow number n of a frame: group 239.0.0.0 + n or ff15::n, or source 11.0.0.0 + n or
// 2001:db8::n.
Flow flowOf(const Frame& frame, uint32_t number);

// Flows `first` .. `first + count - 1` in a random order that is the same in every run.
std::vector<Flow> shuffledFlows(const Frame& frame, uint32_t first, uint32_t count);

// The addresses of a flow of multicastFrame() as a route command takes them.
std::string sourceBytes(Mode mode);
std::string groupBytes(Mode mode, uint32_t number);

}  // namespace bench
