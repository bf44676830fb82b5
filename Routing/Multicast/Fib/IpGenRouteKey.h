// Routing::Multicast::Fib::IpGenRouteKey: source and group of a multicast route, both as prefixes.
//
// What the shared-memory counter tables are indexed by; a plain value that may be copied as bytes.
// Threads    : a value; no shared state.
#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>

#include "Nynet/Prefix.h"

namespace Routing::Multicast::Fib {

class IpGenRouteKey {
 public:
  constexpr IpGenRouteKey() noexcept = default;
  constexpr IpGenRouteKey(const Nynet::IpGenPrefix& source,
                          const Nynet::IpGenPrefix& group) noexcept
      : source_(source), group_(group) {}

  constexpr const Nynet::IpGenPrefix& source() const noexcept { return source_; }
  constexpr const Nynet::IpGenPrefix& group() const noexcept { return group_; }
  constexpr const Nynet::IpGenPrefix& first() const noexcept { return source_; }
  constexpr const Nynet::IpGenPrefix& second() const noexcept { return group_; }

  // Returns: "(10.0.0.2/32,239.1.1.1/32)".
  std::string stringValue() const;

  friend constexpr bool operator==(const IpGenRouteKey&, const IpGenRouteKey&) noexcept = default;
  friend constexpr std::strong_ordering operator<=>(const IpGenRouteKey&,
                                                    const IpGenRouteKey&) noexcept = default;

 private:
  Nynet::IpGenPrefix source_;
  Nynet::IpGenPrefix group_;
};

std::ostream& operator<<(std::ostream& out, const IpGenRouteKey& key);

}  // namespace Routing::Multicast::Fib

template <>
struct std::hash<Routing::Multicast::Fib::IpGenRouteKey> {
  size_t operator()(const Routing::Multicast::Fib::IpGenRouteKey& key) const noexcept;
};
