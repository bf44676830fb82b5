// Addresses as people write them: what inet_ntop gives, without its cost.
#pragma once

#include <cstdint>
#include <string>

namespace SfeModules {

// Appends "10.0.0.1" of 4 bytes, or "ff3e::1" (RFC 5952) of 16, in network byte order.
void appendNumericAddr(std::string& text, const uint8_t* bytes, bool ipv4);

std::string numericAddr(const uint8_t* bytes, bool ipv4);

}  // namespace SfeModules
