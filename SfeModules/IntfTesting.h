// Frames for the tests of the edge modules.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Bess/Testing/ModuleHarness.h"

namespace SfeModules::testing {

inline const std::string kOwnMac("\x02\x00\x00\x00\x00\x01", 6);
inline const std::string kOtherMac("\x02\x00\x00\x00\x00\x99", 6);
inline const std::string kGroupMac("\x01\x00\x5e\x01\x01\x01", 6);
inline const std::string kBroadcastMac("\xff\xff\xff\xff\xff\xff", 6);

inline std::string u16(unsigned value) {
  return {static_cast<char>(value >> 8), static_cast<char>(value)};
}

inline std::string ethernet(const std::string& destination, unsigned type, std::string_view rest) {
  return destination + kOtherMac + u16(type) + std::string(rest);
}

inline std::string tagged(const std::string& destination,
                          unsigned tci,
                          unsigned type,
                          std::string_view rest) {
  return ethernet(destination, 0x8100, u16(tci) + u16(type) + std::string(rest));
}

struct Ipv4 {
  std::string group = std::string("\xef\x01\x01\x01", 4);
  unsigned protocol = 17;
  unsigned fragment = 0;
  std::string options = {};  // a multiple of 4 bytes

  std::string with(std::string_view payload) const {
    std::string ip(1, static_cast<char>(0x45 + options.size() / 4));
    ip += std::string(1, '\0') + u16(static_cast<unsigned>(20 + options.size() + payload.size()));
    ip += u16(1) + u16(fragment) + "\x10" + static_cast<char>(protocol) + u16(0);
    ip += std::string("\x0a\x00\x00\x02", 4) + group + options;
    return ip + std::string(payload);
  }
};

struct Ipv6 {
  std::string group = std::string("\xff\x1e", 2) + std::string(13, '\0') + "\x01";
  unsigned next = 17;

  std::string with(std::string_view payload) const {
    std::string ip("\x60\x00\x00\x00", 4);
    ip += u16(static_cast<unsigned>(payload.size())) + static_cast<char>(next) + "\x10";
    ip += std::string("\x20\x01", 2) + std::string(13, '\0') + "\x02" + group;
    return ip + std::string(payload);
  }
};

// A packet whose bytes lie in segments of at most `size` bytes.
inline bess::PacketPtr segmented(std::string_view bytes, size_t size) {
  rte_mbuf* first = nullptr;
  for (size_t at = 0; at < bytes.size(); at += size) {
    rte_mbuf* mbuf = bess::PacketPool::defaultPool()->alloc()->mbuf();
    std::string_view part = bytes.substr(at, size);
    memcpy(rte_pktmbuf_append(mbuf, static_cast<uint16_t>(part.size())), part.data(), part.size());
    if (first == nullptr) {
      first = mbuf;
    } else {
      rte_pktmbuf_chain(first, mbuf);
    }
  }
  return bess::PacketPtr(bess::Packet::from(first));
}

}  // namespace SfeModules::testing
