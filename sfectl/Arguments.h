// The forms of single words on the command line: addresses, hardware addresses, gates, module
// endpoints.
//
// Errors     : UsageError, saying which word is wrong and what is expected.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Sfectl {

struct Address {
  std::string bytes;  // network byte order, 4 or 16
  bool isIpv4() const { return bytes.size() == 4; }
  bool isMulticast() const;
  bool isAny() const;
};

// "10.0.0.2" or "2001:db8::1".
Address parseAddress(std::string_view text, std::string_view what);
// As an address of the family that `bytes` has; anything else prints as hexadecimal digits.
std::string addressText(std::string_view bytes);

// "02:00:00:00:00:01" -> 6 bytes.
std::string parseMac(std::string_view text);
std::string macText(std::string_view bytes);

// A decimal number of at most `limit`.
uint32_t parseNumber(std::string_view text, std::string_view what, uint32_t limit);

struct Endpoint {
  std::string name;
  uint32_t gate;
};
inline constexpr uint32_t kMaxGate = 8191;
// "NAME" or "NAME:GATE".
Endpoint parseEndpoint(std::string_view text, uint32_t defaultGate);

// The id of an interface name such as "Ethernet3/1" or "Vlan100".
uint64_t parseIntf(std::string_view text, std::string_view what);
std::string intfText(uint64_t id);

}  // namespace Sfectl
