// Orp::String<N>: a string of at most N bytes, held in place.
//
// Errors     : longer input throws RangeException and leaves the target as it was. The owner of a
// string may name
//              the text of that exception; else it is kStringTooLong.
// Cost       : never allocates; a copy is a copy of the object.
// Invariants : bytes() <= maxLength(); c_str() ends in a NUL that is not counted. Any byte may be
// held.
#pragma once

#include <algorithm>
#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "Base/Orp/RangeException.h"

namespace Orp {

inline constexpr const char* kStringTooLong = "Orp::String::bytes > maxLength() not allowed";

template <size_t N>
class String {
 public:
  constexpr String() noexcept = default;

  // Errors: RangeException(tooLong) when `text` has more than N bytes.
  explicit String(std::string_view text, const char* tooLong = kStringTooLong) {
    assign(text, tooLong);
  }

  String& operator=(std::string_view text) {
    assign(text);
    return *this;
  }

  void assign(std::string_view text, const char* tooLong = kStringTooLong) {
    if (text.size() > N) {
      throw RangeException(tooLong);
    }
    std::copy(text.begin(), text.end(), data_.begin());  // `text` may be a part of data_
    bytes_ = static_cast<uint32_t>(text.size());
    data_[bytes_] = '\0';
  }

  void clear() noexcept {
    bytes_ = 0;
    data_[0] = '\0';
  }

  size_t bytes() const noexcept { return bytes_; }
  static constexpr size_t maxLength() noexcept { return N; }
  bool empty() const noexcept { return bytes_ == 0; }
  const char* c_str() const noexcept { return data_.data(); }
  std::string_view view() const noexcept { return {data_.data(), bytes_}; }
  std::string str() const { return std::string(view()); }

 private:
  uint32_t bytes_ = 0;
  std::array<char, N + 1> data_{};
};

template <size_t N, size_t M>
bool operator==(const String<N>& a, const String<M>& b) noexcept {
  return a.view() == b.view();
}
template <size_t N>
bool operator==(const String<N>& a, std::string_view b) noexcept {
  return a.view() == b;
}
template <size_t N, size_t M>
std::strong_ordering operator<=>(const String<N>& a, const String<M>& b) noexcept {
  return a.view() <=> b.view();
}
template <size_t N>
std::ostream& operator<<(std::ostream& out, const String<N>& text) {
  return out << text.view();
}

}  // namespace Orp

template <size_t N>
struct std::hash<Orp::String<N>> {
  size_t operator()(const Orp::String<N>& text) const noexcept {
    return std::hash<std::string_view>()(text.view());
  }
};
