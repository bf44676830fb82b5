// The counters of one interface.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>

#include "Nynet/IntfId.h"
#include "Sfe/Multicast/TableLayout.h"

namespace Sfe::Multicast {

struct IntfCounter {
 public:
  using Key = Nynet::IntfId;
  static constexpr RecordShape kShape{RecordKind::kIntf, 1, 6};
  static constexpr const char* kTypeName = "Sfe::Multicast::IntfCounterTable";
  static constexpr const char* kCollection = "intf";

  // The record that a table returns for a key that it does not hold: no interface, all zero.
  IntfCounter() = default;
  explicit IntfCounter(Nynet::IntfId intfId) : intfId_(intfId) {}

  Nynet::IntfId intfId() const { return intfId_; }
  uint64_t pktsIn() const { return counters_[0]; }
  uint64_t pktsOut() const { return counters_[1]; }
  uint64_t bytesIn() const { return counters_[2]; }
  uint64_t bytesOut() const { return counters_[3]; }
  uint64_t pktsQueued() const { return counters_[4]; }
  uint64_t pktsDropped() const { return counters_[5]; }

  void pktsInInc(uint64_t n) { counters_[0] += n; }
  void pktsOutInc(uint64_t n) { counters_[1] += n; }
  void bytesInInc(uint64_t n) { counters_[2] += n; }
  void bytesOutInc(uint64_t n) { counters_[3] += n; }
  void pktsQueuedInc(uint64_t n) { counters_[4] += n; }
  void pktsDroppedInc(uint64_t n) { counters_[5] += n; }

  friend bool operator==(const IntfCounter&, const IntfCounter&) = default;

  // The record as the words of its slot. fromWords refuses what is no record: returns false.
  void toWords(std::span<uint64_t, kShape.recordWords()> words) const;
  static bool fromWords(std::span<const uint64_t, kShape.recordWords()> words, IntfCounter* out);
  static std::string keyText(Nynet::IntfId key) { return key.stringValue(); }

 private:
  Nynet::IntfId intfId_;
  std::array<uint64_t, 6> counters_{};
};

}  // namespace Sfe::Multicast
