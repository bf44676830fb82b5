// Builds the text of a state (State.h) row by row, and reads the argument that asked for it.
//
// Threads    : an object belongs to one thread.
// Errors     : StateArgs throws std::system_error EINVAL with a text for the person who asked.
// Cost       : a field is appended to one buffer; numbers are written without a stream.
#pragma once

#include <array>
#include <charconv>
#include <concepts>
#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace bess {

// The words of an argument: plain ones in their order, and options written NAME=VALUE.
class StateArgs {
 public:
  // Errors: EINVAL for an option that is none of `options` or comes twice, and for another number
  // of plain words than `words`; `usage` says what would be right.
  StateArgs(const std::string& arg,
            size_t words,
            std::initializer_list<std::string_view> options,
            const std::string& usage);

  const std::string& word(size_t index) const { return words_[index]; }
  // Null when it was not given.
  const std::string* option(std::string_view name) const;
  // The option as a number; `absent` when it was not given. Errors: EINVAL outside 0..max.
  unsigned long number(std::string_view name, unsigned long absent, unsigned long max) const;

 private:
  std::vector<std::string> words_;
  std::vector<std::pair<std::string, std::string>> options_;
};

// Builds a text row by row.
class StateTable {
 public:
  explicit StateTable(std::initializer_list<std::string_view> columns, size_t reserve = 0);

  // Control characters become '?'.
  StateTable& field(std::string_view value) {
    separate();
    for (const char c : value) {
      const auto byte = static_cast<unsigned char>(c);
      text_ += byte < 0x20 || byte == 0x7f ? '?' : c;
    }
    return *this;
  }
  template <std::integral Number>
  requires(!std::same_as<Number, bool>) StateTable& field(Number value) {
    separate();
    std::array<char, 24> digits;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled below
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
    text_.append(digits.data(), end);
    return *this;
  }
  // Only a bool: a pointer is none.
  template <std::same_as<bool> Flag>
  StateTable& field(Flag value) {
    return field(std::string_view(value ? "1" : "0"));
  }
  // A field whose text the caller appends itself, without control characters.
  std::string& raw() {
    separate();
    return text_;
  }
  void endRow() {
    text_ += '\n';
    first_ = true;
  }
  template <class... Fields>
  void row(const Fields&... fields) {
    (field(fields), ...);
    endRow();
  }

  std::string take() { return std::move(text_); }

 private:
  void separate() {
    if (!first_) {
      text_ += '\t';
    }
    first_ = false;
  }

  std::string text_;
  bool first_ = true;
};

}  // namespace bess
