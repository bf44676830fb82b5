// Nynet::IpGenPrefix: an address and the number of its leading bits that count.
//
// The address is kept as given: bits behind the length are not cleared.
// Threads    : a value; no shared state.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>

#include "Nynet/Address.h"

namespace Nynet {

class IpGenPrefix {
 public:
  constexpr IpGenPrefix() noexcept = default;
  // `length` in bits.
  constexpr IpGenPrefix(const IpGenAddr& address, uint8_t length) noexcept
      : address_(address), length_(length) {}

  constexpr const IpGenAddr& address() const noexcept { return address_; }
  constexpr AddressFamily af() const noexcept { return address_.af(); }
  constexpr uint8_t length() const noexcept { return length_; }

  // Returns: "10.0.0.1/32".
  std::string stringValue() const;

  friend constexpr bool operator==(const IpGenPrefix&, const IpGenPrefix&) noexcept = default;
  friend constexpr std::strong_ordering operator<=>(const IpGenPrefix&,
                                                    const IpGenPrefix&) noexcept = default;

 private:
  IpGenAddr address_;
  uint8_t length_ = 0;
};

std::ostream& operator<<(std::ostream& out, const IpGenPrefix& prefix);

}  // namespace Nynet

template <>
struct std::hash<Nynet::IpGenPrefix> {
  size_t operator()(const Nynet::IpGenPrefix& prefix) const noexcept;
};
