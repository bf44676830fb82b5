#include "sfectl/PcapStream.h"

#include <cstring>

#include "sfectl/Errors.h"

namespace Sfectl {
namespace {

constexpr uint32_t kMagicNanoseconds = 0xa1b23c4d;  // in our byte order: the daemon's is the same
constexpr size_t kCapturedAt = 8;                   // in a record's header

uint32_t wordAt(std::string_view bytes, size_t at) {
  uint32_t word = 0;
  std::memcpy(&word, bytes.data() + at, sizeof(word));
  return word;
}

}  // namespace

void PcapStream::add(std::string_view bytes) {
  buffer_.erase(0, at_);
  at_ = 0;
  buffer_ += bytes;
}

std::optional<std::string_view> PcapStream::next() {
  const std::string_view left = std::string_view(buffer_).substr(at_);
  size_t size = kFileHeaderBytes;
  if (headerSeen_) {
    if (left.size() < kRecordHeaderBytes) {
      return std::nullopt;
    }
    const uint32_t captured = wordAt(left, kCapturedAt);
    if (captured > kMaxPacketBytes) {
      throw RuntimeError("the daemon's capture has a packet of " + std::to_string(captured) +
                         " bytes");
    }
    size = kRecordHeaderBytes + captured;
  }
  if (left.size() < size) {
    return std::nullopt;
  }
  if (!headerSeen_ && wordAt(left, 0) != kMagicNanoseconds) {
    throw RuntimeError("the daemon's capture does not begin as one");
  }
  records_ += headerSeen_ ? 1 : 0;
  headerSeen_ = true;
  at_ += size;
  return left.substr(0, size);
}

}  // namespace Sfectl
