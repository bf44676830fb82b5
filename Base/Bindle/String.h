// Bindle::String: the standard string over the slab allocator, and the way from and to std::string.
#pragma once

#include <string>
#include <string_view>

#include "Base/Bindle/Allocator.h"

namespace Bindle {

using String = std::basic_string<char, std::char_traits<char>, Allocator<char>>;

inline String fromStd(std::string_view text) {
  return String(text);
}
inline std::string toStd(const String& text) {
  return {text.data(), text.size()};
}

}  // namespace Bindle
