// How trace values become the words of a record, and their text.
//
// A number is one word. A string is a word with its length (at most kMaxStringBytes), then its
// bytes in whole words, the last one filled with zeroes.
#pragma once

#include <algorithm>
#include <charconv>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

#include "Base/Flit/Flit.h"

namespace Flit {

template <class T>
concept NumberArg = std::is_integral_v<T> || std::is_enum_v<T>;

template <class T>
concept StringArg = std::is_convertible_v<const T&, std::string_view>;

// Bounded strings and others that show themselves as a view.
template <class T>
concept ViewArg = !StringArg<T> && requires(const T& t) {
  { t.view() } -> std::convertible_to<std::string_view>;
};

template <class T>
concept Arg = NumberArg<T> || StringArg<T> || ViewArg<T>;

template <Arg T>
constexpr ArgKind argKind() {
  if constexpr (std::is_enum_v<T>) {
    return argKind<std::underlying_type_t<T>>();
  } else if constexpr (!NumberArg<T>) {
    return ArgKind::kStr;
  } else if constexpr (std::is_signed_v<T> && !std::is_same_v<T, char>) {
    return ArgKind::kI64;
  } else {
    return sizeof(T) <= sizeof(uint32_t) ? ArgKind::kU32 : ArgKind::kU64;
  }
}

inline constexpr size_t kMaxStringWords = 1 + kMaxStringBytes / sizeof(uint64_t);

constexpr size_t maxWords(ArgKind kind) {
  return kind == ArgKind::kStr ? kMaxStringWords : 1;
}

template <Arg T>
constexpr std::string_view argView(const T& value) {
  if constexpr (ViewArg<T>) {
    return value.view();
  } else if constexpr (std::is_convertible_v<const T&, const char*>) {
    const char* text = value;
    return text == nullptr ? std::string_view("(null)") : std::string_view(text);
  } else {
    return value;
  }
}

template <NumberArg T>
constexpr uint64_t numberBits(T value) {
  if constexpr (std::is_same_v<T, char>) {
    return static_cast<unsigned char>(value);
  } else if constexpr (argKind<T>() == ArgKind::kI64) {
    return static_cast<uint64_t>(static_cast<int64_t>(value));
  } else {
    return static_cast<uint64_t>(value);
  }
}

// Returns: the number of words written at `to`.
inline unsigned encodeString(uint64_t* to, std::string_view text) noexcept {
  const size_t bytes = std::min(text.size(), kMaxStringBytes);
  const size_t words = (bytes + sizeof(uint64_t) - 1) / sizeof(uint64_t);
  to[0] = bytes;
  if (words != 0) {
    to[words] = 0;
    std::memcpy(to + 1, text.data(), bytes);
  }
  return static_cast<unsigned>(1 + words);
}

template <Arg T>
inline unsigned encodeArg(uint64_t* to, const T& value) noexcept {
  if constexpr (NumberArg<T>) {
    *to = numberBits(value);
    return 1;
  } else {
    return encodeString(to, argView(value));
  }
}

template <std::integral T>
void appendNumber(std::string& to, T value) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof(digits), value).ptr;
  to.append(digits, end);
}

template <Arg T>
void appendText(std::string& to, const T& value) {
  if constexpr (!NumberArg<T>) {
    to.append(argView(value));
  } else if constexpr (argKind<T>() == ArgKind::kI64) {
    appendNumber(to, static_cast<int64_t>(numberBits(value)));
  } else {
    appendNumber(to, numberBits(value));
  }
}

}  // namespace Flit
