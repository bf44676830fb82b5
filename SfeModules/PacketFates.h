// What became of each packet, counted exactly: one counter per fate and worker in the engine's
// event counters.
//
// The interface and route counters may lose increments when several workers count into one entry;
// these never do, so they add up to the packet:
//   packets in + re-injected = passed + forwarded + held + all drops but expired
//   held                     = re-injected + expired + still in the cache
// Threads    : a worker counts into its own row.
// Cost       : one load and one relaxed load and store.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "Sfe/Counters/Counters.h"

namespace SfeModules {

enum class Fate : uint8_t {
  kPassed,                // left by gate 0, unchanged
  kForwarded,             // accepted by its route: the packet or copies of it left
  kHeld,                  // a copy waits for the route
  kReinjected,            // a held packet came back
  kCopied,                // copies made for the second and further interfaces
  kCopyFailed,            // copies that could not be made
  kDropCutOff,            // a header is not all there
  kDropPim,               // PIM that is no Register with data
  kDropLinkLocal,         // a group of the local network control block
  kDropNonMulticastIntf,  // arrived where multicast is not enabled
  kDropTtl,               // TTL or hop limit 1 or 0
  kDropNoRoute,           // no route, and no packet is held for one
  kDropCacheFull,         // no route, and the cache refused the packet
  kDropWrongIntf,         // not the route's incoming interface
  kDropNotRegister,       // a Register for a route that takes none
  kDropNoOifs,            // the route has no outgoing interface
  kDropGate,              // the first interface's gate is not allowed for the packet
  kDropExpired,           // held too long without a route
  kCount,
};

// What was told to the control plane, and what its rate limits held back.
enum class Notification : uint8_t {
  kNoCache,
  kWrongVif,
  kWholePkt,
  kNoCacheSuppressed,
  kWrongVifSuppressed,
  kCount,
};

// The name of an event's counter without the prefix: "drop_ttl", "notify_nocache".
const char* counterName(Fate fate);
const char* counterName(Notification notification);

// One counter for each value of an enumeration that ends with kCount.
template <class Event>
class EventCounts {
 public:
  // Gives each event its counter, named "<prefix>.<event>". Control, before the first packet.
  void nameIs(const std::string& prefix) {
    prefix_ = prefix;
    for (size_t i = 0; i < kEvents; ++i) {
      ids_[i] = counterId(name(static_cast<Event>(i)));
    }
  }

  void count(int wid, Event event, uint64_t times = 1) const {
    bessCounterAdd(wid, ids_[static_cast<size_t>(event)], times);
  }

  uint32_t id(Event event) const { return ids_[static_cast<size_t>(event)]; }
  // The whole name of an event's counter.
  std::string name(Event event) const { return prefix_ + "." + counterName(event); }

 private:
  static constexpr size_t kEvents = static_cast<size_t>(Event::kCount);

  static constexpr std::array<uint32_t, kEvents> filled(uint32_t value) {
    std::array<uint32_t, kEvents> ids{};
    ids.fill(value);
    return ids;
  }

  std::array<uint32_t, kEvents> ids_ = filled(kMaxCounters);  // no row holds that id
  std::string prefix_;
};

using PacketFates = EventCounts<Fate>;
using NotificationCounts = EventCounts<Notification>;

}  // namespace SfeModules
