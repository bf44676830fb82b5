// The module's shared vocabulary: route key, route entry, counter entries, address helpers.
//
// Ownership  : a route entry and a counter entry are held by std::shared_ptr in their tables.
// Invariants :
//   (1) a key is built from a zero-filled record: every one of its 32 bytes is defined, so keys are
//   compared and hashed
//       as raw bytes.
//   (2) a route entry never changes after it was put into the route table, but for its memos.
#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "Base/Bindle/UnorderedMapTransient.h"
#include "Base/Orp/Hash.h"
#include "Base/Orp/TextWriter.h"
#include "Bess/Packet.h"
#include "Bess/PacketBatch.h"
#include "Nynet/Address.h"
#include "Nynet/IntfId.h"
#include "Nynet/Prefix.h"
#include "Routing/Multicast/Fib/IpGenRouteKey.h"
#include "SfeModules/Clock.h"

namespace SfeModules {

inline constexpr uint32_t kAfIpv4 = 1;  // any other value of an instance's address family is IPv6
inline constexpr uint32_t kIpv4AddrLen = 4;
inline constexpr uint32_t kIpv6AddrLen = 16;
inline constexpr size_t kMacLen = 6;

using AddrBytes = std::array<uint8_t, 16>;  // network byte order; an IPv4 address fills the first
                                            // 4, the rest is 0
using MacAddr = std::array<uint8_t, kMacLen>;

// Key of the route table and of every table that is kept per route. An all-zero source is the (*,G)
// route.
struct MfibKey {
  AddrBytes source{};
  AddrBytes group{};

  // Requires: `addrLen` (4 or 16) bytes at both pointers.
  static MfibKey of(const uint8_t* source, const uint8_t* group, uint32_t addrLen) {
    MfibKey key;
    std::memcpy(key.source.data(), source, addrLen);
    std::memcpy(key.group.data(), group, addrLen);
    return key;
  }

  // The same for IPv4, in place and in whole words: what reads it next does not wait for smaller
  // stores.
  void ipv4Is(const uint8_t* sourceBytes, const uint8_t* groupBytes) {
    put(source, sourceBytes);
    put(group, groupBytes);
  }

  friend bool operator==(const MfibKey& a, const MfibKey& b) {
    return ((word(a.source, 0) ^ word(b.source, 0)) | (word(a.source, 1) ^ word(b.source, 1)) |
            (word(a.group, 0) ^ word(b.group, 0)) | (word(a.group, 1) ^ word(b.group, 1))) == 0;
  }

 private:
  static uint64_t word(const AddrBytes& bytes, size_t index) {
    uint64_t word;  // NOLINT(cppcoreguidelines-init-variables): set in the next line
    std::memcpy(&word, bytes.data() + index * sizeof(word), sizeof(word));
    return word;
  }

  static void put(AddrBytes& to, const uint8_t* ipv4) {
    std::array<uint32_t, 4> words{};
    std::memcpy(words.data(), ipv4, kIpv4AddrLen);
    std::memcpy(to.data(), words.data(), sizeof(words));
  }
};
static_assert(sizeof(MfibKey) == 32);

// An interface id beside a key: the interface that a packet arrived on.
struct Mfib_U64 {
  uint64_t value = 0;
};

struct MrouteCounterEntry;

// Where a counter entry was found last, that of a route or of an interface.
//
// Threads    : workers, any number at once. RCU: see NyRcuHt::departures().
template <class Entry>
class CountersMemo {
 public:
  // `departures`: the counter table's number, read in this read side. Returns: the entry, null when
  // it has to be looked for.
  Entry* get(uint64_t departures) const {
    if (seenAt_.load(std::memory_order_acquire) != departures) {
      return nullptr;
    }
    Entry* entry = entry_.load(std::memory_order_acquire);
    return seenAt_.load(std::memory_order_relaxed) == departures ? entry : nullptr;
  }

  // `departures`: as it was before the entry was looked for. A note only gives way to a later one:
  // the number never comes back, so get() cannot take another number's entry for its own.
  void put(uint64_t departures, Entry* entry) {
    uint64_t seen = seenAt_.load(std::memory_order_relaxed);
    if (seen < departures && seenAt_.compare_exchange_strong(seen, kChanging)) {
      entry_.store(entry, std::memory_order_release);
      seenAt_.store(departures, std::memory_order_release);
    }
  }

 private:
  static constexpr uint64_t kNever = 0;
  static constexpr uint64_t kChanging = UINT64_MAX;

  std::atomic<uint64_t> seenAt_{kNever};
  std::atomic<Entry*> entry_{nullptr};
};

// Until when a route has nothing to tell of one wrong interface: the first one that it met.
//
// Threads    : any number at once; who comes late may shorten the time, never lengthen it.
class QuietMemo {
 public:
  bool holds(uint64_t intf, TimePoint now) const {
    return intf_.load(std::memory_order_relaxed) == intf &&
           now.time_since_epoch().count() <= until_.load(std::memory_order_relaxed);
  }

  // Requires: alerts of that interface are due after `until` at the earliest.
  void put(uint64_t intf, TimePoint until) {
    uint64_t owner = kNobody;
    if (intf != kNobody &&
        (intf_.compare_exchange_strong(owner, intf, std::memory_order_relaxed) || owner == intf)) {
      until_.store(until.time_since_epoch().count(), std::memory_order_relaxed);
    }
  }

 private:
  static constexpr uint64_t kNobody = UINT64_MAX;

  std::atomic<uint64_t> intf_{kNobody};
  std::atomic<TimePoint::rep> until_{0};
};

// The forwarding entry of one route. Its outgoing interfaces are behind it in the same memory, the
// numbers of its ways out first.
//
// Layout     : what the packet path mostly reads is one cache line, from `counters` to the numbers
// of the
//              first sixteen ways out; of an entry with more than about 300 it may be two.
struct MfibPvSet {
  static constexpr uint32_t kWaysBeside = 16;

  // Returns: an entry with room for so many outgoing interfaces, all zero.
  static std::shared_ptr<MfibPvSet> make(uint32_t oifCount);

  // Fetches what the packet path reads. Always inline: to the compiler a function that only
  // prefetches does nothing, and a call of it may go.
  [[gnu::always_inline]] void prefetch() const { __builtin_prefetch(&counters); }
  // The next line, where there are many ways out. Requires: prefetched.
  [[gnu::always_inline]] void prefetchFurtherWays() const {
    if (numOifs > kWaysBeside) {
      __builtin_prefetch(oifWays() + kWaysBeside);
    }
  }

  // For each outgoing interface, the number of its way out (WayNumbers), 0 when it has none.
  // Requires: there are outgoing interfaces.
  uint8_t* oifWays() { return reinterpret_cast<uint8_t*>(this + 1); }
  const uint8_t* oifWays() const { return reinterpret_cast<const uint8_t*>(this + 1); }

  // All of them as a value. Of more than kWaysBeside it is the empty one.
  struct WayNumbersOf {
    uint32_t count = 0;
    std::array<uint64_t, 2> words{};

    friend bool operator==(const WayNumbersOf& a, const WayNumbersOf& b) {
      return a.count == b.count && ((a.words[0] ^ b.words[0]) | (a.words[1] ^ b.words[1])) == 0;
    }
  };
  WayNumbersOf wayNumbers() const {
    WayNumbersOf numbers;
    if (numOifs - 1 < kWaysBeside) {
      numbers.count = numOifs;
      std::memcpy(numbers.words.data(), oifWays(), sizeof(uint64_t));
      if (numOifs > sizeof(uint64_t)) {
        std::memcpy(&numbers.words[1], oifWays() + sizeof(uint64_t), sizeof(uint64_t));
      }
    }
    return numbers;
  }

  // The outgoing interfaces, numOifs of them, and their gates: oifGates()[i] reaches oifs()[i].
  // Returns: null without interfaces.
  Nynet::IntfId* oifs() { return behindWays<Nynet::IntfId>(0); }
  const Nynet::IntfId* oifs() const { return behindWays<const Nynet::IntfId>(0); }
  uint32_t* oifGates() { return behindWays<uint32_t>(numOifs * sizeof(Nynet::IntfId)); }
  const uint32_t* oifGates() const {
    return behindWays<const uint32_t>(numOifs * sizeof(Nynet::IntfId));
  }

  // Of the memory behind an entry, what the numbers of so many ways out take.
  static constexpr size_t wayBytes(uint32_t oifCount) {
    constexpr size_t kAlign = alignof(Nynet::IntfId);
    return (size_t{oifCount} + kAlign - 1) / kAlign * kAlign;
  }

  mutable QuietMemo quiet;
  Nynet::IntfId iifFrr;    // stored and shown; the packet path does not use it
  Nynet::IntfId notify;    // likewise
  Nynet::IntfId fastdrop;  // likewise
  mutable CountersMemo<MrouteCounterEntry> counters;  // of the route's own (S,G)
  TimePoint createTime = Clock::now();
  Nynet::IntfId iif;
  uint32_t numOifs = 0;
  MacAddr dstMac{};
  bool iifRegister = false;
  bool oifRegister = false;
  bool toCpu = false;  // stored and shown, as above

 private:
  template <class T>
  T* behindWays(size_t offset) const {
    const uint8_t* at = oifWays() + wayBytes(numOifs) + offset;
    return numOifs == 0 ? nullptr : reinterpret_cast<T*>(const_cast<uint8_t*>(at));
  }
};

// A counter that several workers add to: the instructions of a plain `+= n`, with its lost updates
// under contention, and no data race.
class Counter32 {
 public:
  Counter32& operator+=(uint32_t amount) {
    value_.store(value_.load(std::memory_order_relaxed) + amount, std::memory_order_relaxed);
    return *this;
  }
  Counter32& operator=(uint32_t value) {
    value_.store(value, std::memory_order_relaxed);
    return *this;
  }
  // NOLINTNEXTLINE(google-explicit-constructor): reads like the field that it is
  operator uint32_t() const { return value_.load(std::memory_order_relaxed); }

 private:
  std::atomic<uint32_t> value_{0};
};

// Life of a counter entry, as publication sees it.
enum CounterState : uint32_t {
  kCounterNew = 0,
  kCounterWithdrawn = 1,  // publication deletes the shared record
  kCounterRevived = 2,    // counted into after a withdrawal: the shared record restarts from zero
};

// What was counted for an interface since the last publication.
struct IntfCounterEntry {
  Counter32 pktsIn;
  Counter32 pktsOut;
  Counter32 bytesIn;
  Counter32 bytesOut;
  Counter32 pktsQueued;  // a change: +1 when held, -1 when freed; wraps below zero
  Counter32 pktsDropped;
  Counter32 state;

  std::array<uint32_t, 6> counts() const {
    return {pktsIn, pktsOut, bytesIn, bytesOut, pktsQueued, pktsDropped};
  }
};

// What was counted for a route since the last publication.
struct MrouteCounterEntry {
  Counter32 state;  // with what is counted for every packet in one cache line
  Counter32 pktsIn;
  Counter32 bytesIn;
  Counter32 wrongVif;
  Counter32 pktsQueued;  // a change, as above
  Counter32 pktsDropped;

  std::array<uint32_t, 5> counts() const {
    return {pktsIn, bytesIn, wrongVif, pktsQueued, pktsDropped};
  }
};

// Every fetch of an entry for counting revives a withdrawn one.
template <class Entry>
Entry& revive(Entry& entry) {
  if (entry.state == kCounterWithdrawn) {
    entry.state = kCounterRevived;
  }
  return entry;
}

// Key of the map from (outgoing interface, output gate) to the batch that is being filled for it.
struct IntfGateKey {
  uint64_t intfId = 0;
  uint16_t gate = 0;

  friend bool operator==(const IntfGateKey&, const IntfGateKey&) = default;
};

struct IntfGateKeyHash {
  size_t operator()(const IntfGateKey& key) const noexcept {
    Orp::Hash hash;
    hash.hashMix(key.intfId);
    hash.hashMix(key.gate);
    return hash.result();
  }
};

using OutputBatchMap =
    Bindle::UnorderedMapTransient<IntfGateKey, bess::PacketBatch*, IntfGateKeyHash>;

// The IPv4 address of the four bytes as they stand. Requires: 4 (16) readable bytes.
Nynet::IpAddr nynetIpAddr(const unsigned char* bytes);
Nynet::Ip6Addr nynetIp6Addr(const unsigned char* bytes);

// A host prefix: /32 over the first 4 bytes when `af` is 1, else /128 over 16 bytes.
Nynet::IpGenPrefix nynetIpGenPrefix(unsigned int af, const unsigned char* bytes);

// The key of the shared counter tables: source prefix first, group prefix second.
Routing::Multicast::Fib::IpGenRouteKey ipGenRouteKey(Nynet::IpGenPrefix first,
                                                     Nynet::IpGenPrefix second);

// The same for a route key of an instance of family `af`.
Routing::Multicast::Fib::IpGenRouteKey ipGenRouteKey(unsigned int af, const MfibKey& key);

// The multicast MAC address of a group: RFC 1112 section 6.4 for `af` 1, RFC 2464 section 7
// otherwise.
MacAddr multicastMac(unsigned int af, const AddrBytes& group);

// Text of an address as the state file shows it: dotted decimal for `af` 1; eight groups of four
// hexadecimal digits for `af` 2; 16 decimal numbers without separators for any other value.
// Requires: 4 (else 16) readable bytes.
std::string addrArrayToStr(const unsigned char* addr, unsigned int af);

// The same without a temporary.
void writeAddr(Orp::TextWriter& text, const unsigned char* addr, unsigned int af);

}  // namespace SfeModules
