// Cuts a capture that is being written into its header and whole records, as its bytes come in.
//
// Errors     : RuntimeError for bytes that are no capture, or a record longer than any packet.
// Invariants :
//   (1) next() gives the bytes of header and records unchanged and in order; a record that is not
//       all there yet is kept until it is.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Sfectl {

class PcapStream {
 public:
  static constexpr size_t kFileHeaderBytes = 24;
  static constexpr size_t kRecordHeaderBytes = 16;
  static constexpr uint32_t kMaxPacketBytes = 1 << 18;

  void add(std::string_view bytes);
  // The header first, then record by record; nothing when the next one is not complete. The view
  // lives until the next add().
  std::optional<std::string_view> next();
  // Whole records that next() gave.
  uint64_t records() const { return records_; }

 private:
  std::string buffer_;
  size_t at_ = 0;
  bool headerSeen_ = false;
  uint64_t records_ = 0;
};

}  // namespace Sfectl
