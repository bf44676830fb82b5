// IPv4 and IPv6 addresses: Nynet::IpAddr, Nynet::Ip6Addr and Nynet::IpGenAddr, which is either.
//
// All of them hold the address in network byte order, the way it stands in a packet.
// Threads    : values; no shared state.
// Invariants : the bytes of an IpGenAddr behind its family's length are zero, so equal addresses
//              are equal bytes.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>

namespace Nynet {

enum class AddressFamily : uint8_t { kUnspec = 0, kIpv4 = 1, kIpv6 = 2 };

// Returns: the bytes of an address: 4, 16, and 0 for kUnspec.
constexpr size_t addressLength(AddressFamily af) noexcept {
  return af == AddressFamily::kIpv4 ? 4 : af == AddressFamily::kIpv6 ? 16 : 0;
}

class IpAddr {
 public:
  constexpr IpAddr() noexcept = default;
  // `value`: the four bytes in network byte order.
  constexpr explicit IpAddr(uint32_t value) noexcept : value_(value) {}

  constexpr uint32_t value() const noexcept { return value_; }

  friend constexpr bool operator==(IpAddr, IpAddr) noexcept = default;

 private:
  uint32_t value_ = 0;
};

class Ip6Addr {
 public:
  static constexpr size_t kBytes = 16;

  constexpr Ip6Addr() noexcept = default;

  // Requires: 16 readable bytes at `bytes`, in network byte order, of any alignment.
  void copyFromBuffer(const uint8_t* bytes) noexcept;

  constexpr const std::array<uint8_t, kBytes>& bytes() const noexcept { return bytes_; }

  friend constexpr bool operator==(const Ip6Addr&, const Ip6Addr&) noexcept = default;

 private:
  std::array<uint8_t, kBytes> bytes_{};
};

class IpGenAddr {
 public:
  static constexpr size_t kBytes = 16;

  // No address, of no family.
  constexpr IpGenAddr() noexcept = default;
  explicit IpGenAddr(IpAddr addr) noexcept;
  explicit IpGenAddr(const Ip6Addr& addr) noexcept;
  // Requires: addressLength(af) readable bytes at `bytes`, in network byte order.
  IpGenAddr(AddressFamily af, const uint8_t* bytes) noexcept;

  constexpr AddressFamily af() const noexcept { return af_; }
  // All 16 bytes; those behind length() are zero.
  constexpr const uint8_t* bytes() const noexcept { return bytes_.data(); }
  constexpr size_t length() const noexcept { return addressLength(af_); }

  // 224.0.0.0/24 (RFC 5771) or IPv6 multicast of link-local scope, ff?2::/16 (RFC 4291).
  constexpr bool isLinkLocalMulticast() const noexcept {
    switch (af_) {
      case AddressFamily::kIpv4:
        return bytes_[0] == 224 && bytes_[1] == 0 && bytes_[2] == 0;
      case AddressFamily::kIpv6:
        return bytes_[0] == 0xff && (bytes_[1] & 0x0f) == 0x02;
      case AddressFamily::kUnspec:
        break;
    }
    return false;
  }

  // Returns: "10.0.0.1", "ff3e::1"; empty for no address.
  std::string stringValue() const;

  friend constexpr bool operator==(const IpGenAddr&, const IpGenAddr&) noexcept = default;
  friend constexpr std::strong_ordering operator<=>(const IpGenAddr&,
                                                    const IpGenAddr&) noexcept = default;

 private:
  std::array<uint8_t, kBytes> bytes_{};
  AddressFamily af_ = AddressFamily::kUnspec;
};

std::ostream& operator<<(std::ostream& out, const IpGenAddr& addr);

}  // namespace Nynet

template <>
struct std::hash<Nynet::IpGenAddr> {
  size_t operator()(const Nynet::IpGenAddr& addr) const noexcept;
};
