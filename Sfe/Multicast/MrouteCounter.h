// The counters of one multicast route.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>

#include "Routing/Multicast/Fib/IpGenRouteKey.h"
#include "Sfe/Multicast/TableLayout.h"

namespace Sfe::Multicast {

struct MrouteCounter {
 public:
  using Key = Routing::Multicast::Fib::IpGenRouteKey;
  static constexpr RecordShape kShape{RecordKind::kMroute, 5, 5};
  static constexpr const char* kTypeName = "Sfe::Multicast::MrouteCounterTable";
  static constexpr const char* kCollection = "mroute";

  // The record that a table returns for a key that it does not hold: no route, all zero.
  MrouteCounter() = default;
  explicit MrouteCounter(const Key& key) : key_(key) {}

  const Key& key() const { return key_; }
  uint64_t pktsIn() const { return counters_[0]; }
  uint64_t bytesIn() const { return counters_[1]; }
  uint64_t wrongVif() const { return counters_[2]; }
  uint64_t pktsQueued() const { return counters_[3]; }
  uint64_t pktsDropped() const { return counters_[4]; }

  void pktsInInc(uint64_t n) { counters_[0] += n; }
  void bytesInInc(uint64_t n) { counters_[1] += n; }
  void wrongVifInc(uint64_t n) { counters_[2] += n; }
  void pktsQueuedInc(uint64_t n) { counters_[3] += n; }
  void pktsDroppedInc(uint64_t n) { counters_[4] += n; }

  friend bool operator==(const MrouteCounter&, const MrouteCounter&) = default;

  // The record as the words of its slot. fromWords refuses what is no record: returns false.
  void toWords(std::span<uint64_t, kShape.recordWords()> words) const;
  static bool fromWords(std::span<const uint64_t, kShape.recordWords()> words, MrouteCounter* out);
  static std::string keyText(const Key& key) { return key.stringValue(); }

 private:
  Key key_;
  std::array<uint64_t, 5> counters_{};
};

}  // namespace Sfe::Multicast
