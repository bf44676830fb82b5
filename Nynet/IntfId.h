// Nynet::IntfId: the 64-bit id of an interface, computed from its name and back.
//
// The id is a pure function of the name, so every process computes the same id without asking
// anyone. Layout (bit 63 is the most significant one; bits not named are zero):
//
//   bits 63..56  kind: 1 Ethernet, 2 Vlan, 3 Loopback, 4 Register, 5 Tunnel
//   Ethernet     bits 35..20 port; bits 19..12 lane + 1 (0: no lane); bits 11..0 VLAN (0: none)
//   Vlan         bits 11..0 VLAN
//   the others   bits 31..0 number
//
//   name                 range                                    example
//   Ethernet<port>       port 0..65535                            Ethernet3
//   Ethernet<port>/<l>   lane 0..254                              Ethernet3/1
//   Ethernet..<.vlan>    a VLAN of a port, 1..4094                Ethernet3.100, Ethernet3/1.100
//   Vlan<vlan>           1..4094                                  Vlan100
//   Loopback<n>, Register<n>, Tunnel<n>   0..4294967295           Loopback0, Register0, Tunnel5
//   None                 the id 0
//   Invalid              the id with all bits set
//   Intf0x<16 digits>    an id without a name of its own, in      Intf0x0600000000000001
//                        lower-case hexadecimal
//
// Threads    : a value; no shared state.
// Cost       : appendTo() is a few comparisons and integer-to-text conversions, no stream.
//              parse() does not allocate; fromName() only to refuse.
// Invariants :
//   (1) every 64-bit value has exactly one name, and parse(name) gives that value.
//   (2) parse() accepts no other text: what it accepts is what stringValue() gives back (no leading
//       zeros, signs, blanks, other cases).
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

namespace Nynet {

class IntfId {
 public:
  enum class Kind : uint8_t { kEthernet = 1, kVlan = 2, kLoopback = 3, kRegister = 4, kTunnel = 5 };

  // "No interface".
  constexpr IntfId() noexcept = default;
  constexpr explicit IntfId(uint64_t value) noexcept : value_(value) {}

  static constexpr IntfId invalid() noexcept { return IntfId(~uint64_t{0}); }

  // Errors: std::invalid_argument that names the text, what is wrong with it, and the valid forms.
  static IntfId fromName(std::string_view name);
  // Returns: nothing when `name` is not the name of an interface.
  static std::optional<IntfId> parse(std::string_view name) noexcept;

  constexpr uint64_t value() const noexcept { return value_; }
  constexpr bool isNone() const noexcept { return value_ == 0; }
  constexpr bool isInvalid() const noexcept { return *this == invalid(); }

  std::string stringValue() const;
  void appendTo(std::string& out) const;

  friend constexpr bool operator==(IntfId, IntfId) noexcept = default;
  friend constexpr std::strong_ordering operator<=>(IntfId, IntfId) noexcept = default;

 private:
  uint64_t value_ = 0;
};

std::ostream& operator<<(std::ostream& out, IntfId id);

}  // namespace Nynet

template <>
struct std::hash<Nynet::IntfId> {
  size_t operator()(Nynet::IntfId id) const noexcept { return std::hash<uint64_t>()(id.value()); }
};
