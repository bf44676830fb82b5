// Nynet::NamespaceName: the name of a network namespace, as `ip netns` knows it.
//
// "default" is the namespace that the process runs in; any other name is a file of /var/run/netns.
// Errors     : more than 150 bytes throw Orp::RangeException "Orp::String::bytes > 150 not
//              allowed".
// Threads    : a value; no shared state.
#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "Base/Orp/String.h"

namespace Nynet {

class NamespaceName {
 public:
  static constexpr size_t kMaxBytes = 150;

  // Empty: the name of no namespace.
  NamespaceName() = default;
  explicit NamespaceName(std::string_view name)
      : name_(name, "Orp::String::bytes > 150 not allowed") {}

  static NamespaceName defaultNamespace() { return NamespaceName("default"); }

  bool isDefault() const noexcept { return view() == "default"; }
  bool empty() const noexcept { return name_.bytes() == 0; }
  std::string str() const { return std::string(view()); }
  std::string_view view() const noexcept { return name_.view(); }
  const Orp::String<kMaxBytes>& string() const noexcept { return name_; }

  friend bool operator==(const NamespaceName& a, const NamespaceName& b) noexcept {
    return a.view() == b.view();
  }
  friend std::strong_ordering operator<=>(const NamespaceName& a, const NamespaceName& b) noexcept {
    return a.view() <=> b.view();
  }
  friend std::ostream& operator<<(std::ostream& out, const NamespaceName& name) {
    return out << name.view();
  }

 private:
  Orp::String<kMaxBytes> name_;
};

}  // namespace Nynet

template <>
struct std::hash<Nynet::NamespaceName> {
  size_t operator()(const Nynet::NamespaceName& name) const noexcept {
    return std::hash<std::string_view>()(name.view());
  }
};
