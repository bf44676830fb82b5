// L3::VrfName: the name of a VRF.
//
// Errors     : more than 100 bytes throw Orp::RangeException "Orp::String::bytes > maxLength() not
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

namespace L3 {

class VrfName {
 public:
  static constexpr size_t kMaxBytes = 100;

  VrfName() = default;
  explicit VrfName(std::string_view name) : name_(name) {}

  static VrfName defaultVrf() { return VrfName("default"); }

  bool isDefault() const noexcept { return view() == "default"; }
  std::string str() const { return std::string(view()); }
  std::string_view view() const noexcept { return name_.view(); }

  friend bool operator==(const VrfName& a, const VrfName& b) noexcept {
    return a.view() == b.view();
  }
  friend std::strong_ordering operator<=>(const VrfName& a, const VrfName& b) noexcept {
    return a.view() <=> b.view();
  }
  friend std::ostream& operator<<(std::ostream& out, const VrfName& name) {
    return out << name.view();
  }

 private:
  Orp::String<kMaxBytes> name_;
};

}  // namespace L3

template <>
struct std::hash<L3::VrfName> {
  size_t operator()(const L3::VrfName& name) const noexcept {
    return std::hash<std::string_view>()(name.view());
  }
};
