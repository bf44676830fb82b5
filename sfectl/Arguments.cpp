#include "sfectl/Arguments.h"

#include <arpa/inet.h>

#include <charconv>
#include <cstdio>
#include <stdexcept>

#include "Nynet/IntfId.h"
#include "sfectl/Errors.h"
#include "sfectl/Report.h"

namespace Sfectl {
namespace {

constexpr size_t kMacBytes = 6;

std::string quoted(std::string_view text) {
  return "'" + printable(text) + "'";
}

std::string hexText(std::string_view bytes, const char* separator) {
  std::string result;
  for (const unsigned char byte : bytes) {
    char digits[3];
    std::snprintf(digits, sizeof(digits), "%02x", byte);
    result += result.empty() ? "" : separator;
    result += digits;
  }
  return result;
}

}  // namespace

bool Address::isMulticast() const {
  const auto first = static_cast<unsigned char>(bytes[0]);
  return isIpv4() ? (first & 0xf0) == 0xe0 : first == 0xff;
}

bool Address::isAny() const {
  return bytes.find_first_not_of('\0') == std::string::npos;
}

Address parseAddress(std::string_view text, std::string_view what) {
  const std::string copy(text);
  unsigned char buffer[sizeof(in6_addr)];
  const bool whole = copy.find('\0') == std::string::npos;
  if (whole && inet_pton(AF_INET, copy.c_str(), buffer) == 1) {
    return {std::string(reinterpret_cast<const char*>(buffer), sizeof(in_addr))};
  }
  if (whole && inet_pton(AF_INET6, copy.c_str(), buffer) == 1) {
    return {std::string(reinterpret_cast<const char*>(buffer), sizeof(in6_addr))};
  }
  throw UsageError(std::string(what) + " " + quoted(text) +
                   " is not an address; expected a form like 10.0.0.2 or 2001:db8::1");
}

std::string addressText(std::string_view bytes) {
  char buffer[INET6_ADDRSTRLEN];
  const bool v4 = bytes.size() == sizeof(in_addr);
  if (v4 || bytes.size() == sizeof(in6_addr)) {
    if (inet_ntop(v4 ? AF_INET : AF_INET6, bytes.data(), buffer, sizeof(buffer)) != nullptr) {
      return buffer;
    }
  }
  return "0x" + hexText(bytes, "");
}

std::string parseMac(std::string_view text) {
  std::string bytes;
  bool good = text.size() == kMacBytes * 3 - 1;
  for (size_t i = 0; good && i < kMacBytes; ++i) {
    const std::string_view digits = text.substr(i * 3, 2);
    uint8_t value = 0;
    const auto [end, error] = std::from_chars(digits.begin(), digits.end(), value, 16);
    good = error == std::errc() && end == digits.end() &&
           (i + 1 == kMacBytes || text[i * 3 + 2] == ':');
    bytes.push_back(static_cast<char>(value));
  }
  if (!good) {
    throw UsageError("hardware address " + quoted(text) +
                     " is malformed; expected six pairs of digits like 02:00:00:00:00:01");
  }
  return bytes;
}

std::string macText(std::string_view bytes) {
  return hexText(bytes, ":");
}

uint32_t parseNumber(std::string_view text, std::string_view what, uint32_t limit) {
  uint32_t value = 0;
  const auto [end, error] = std::from_chars(text.begin(), text.end(), value, 10);
  if (error != std::errc() || end != text.end() || value > limit) {
    throw UsageError(std::string(what) + " " + quoted(text) + " is not a number from 0 to " +
                     std::to_string(limit));
  }
  return value;
}

Endpoint parseEndpoint(std::string_view text, uint32_t defaultGate) {
  const size_t colon = text.rfind(':');
  Endpoint result{std::string(text.substr(0, colon)), defaultGate};
  if (colon != std::string_view::npos) {
    result.gate = parseNumber(text.substr(colon + 1), "gate", kMaxGate);
  }
  if (result.name.empty()) {
    throw UsageError(quoted(text) + " names nothing; expected NAME or NAME:GATE");
  }
  return result;
}

uint64_t parseIntf(std::string_view text, std::string_view what) {
  try {
    return Nynet::IntfId::fromName(text).value();
  } catch (const std::invalid_argument& error) {
    throw UsageError(std::string(what) + ": " + printable(error.what()));
  }
}

std::string intfText(uint64_t id) {
  return Nynet::IntfId(id).stringValue();
}

}  // namespace Sfectl
