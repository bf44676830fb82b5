// Writes text into a string in large pieces: small parts gather in a buffer, so that each costs a
// copy and no check of the string's capacity.
//
// Threads    : a value of one thread. The text is complete after flush() or the destructor.
// Errors     : std::bad_alloc from the string.
#pragma once

#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace Orp {

class TextWriter {
 public:
  // A part is at most this long.
  static constexpr size_t kMaxPart = 1024;

  explicit TextWriter(std::string& out) : out_(out) {}
  ~TextWriter() { flush(); }
  TextWriter(const TextWriter&) = delete;
  TextWriter& operator=(const TextWriter&) = delete;

  // Requires: text.size() <= kMaxPart.
  TextWriter& operator<<(std::string_view text) {
    makeRoom();
    std::memcpy(cursor_, text.data(), text.size());
    cursor_ += text.size();
    return *this;
  }
  TextWriter& operator<<(char c) {
    makeRoom();
    *cursor_++ = c;
    return *this;
  }
  TextWriter& operator<<(uint32_t value) {
    makeRoom();
    cursor_ = std::to_chars(cursor_, cursor_ + kMaxPart, value).ptr;
    return *this;
  }

  void flush() {
    out_.append(buffer_.data(), static_cast<size_t>(cursor_ - buffer_.data()));
    cursor_ = buffer_.data();
  }

 private:
  void makeRoom() {
    if (static_cast<size_t>(buffer_.data() + buffer_.size() - cursor_) < kMaxPart) [[unlikely]] {
      flush();
    }
  }

  std::string& out_;
  std::array<char, 16 * kMaxPart> buffer_;
  char* cursor_ = buffer_.data();
};

}  // namespace Orp
