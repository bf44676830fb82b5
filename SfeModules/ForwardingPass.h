// One call of the packet path: the batches that leave, and what is counted on the way.
//
// Packets that travel together mostly share their interfaces and often their route. A pass looks
// each of these up once, adds up what is counted for it, and hands the sums over when it ends.
//
// Threads    : one worker's, on its stack; from its construction to its end within one read side.
// Ownership  : the batches are the running task's, the entries their tables'. Dropped packets are
//              the pass's.
// Cost       : outgoing() a few instructions for an interface that was met before in this pass.
// Invariants :
//   (1) a count reaches its entry before the pass has ended.
//   (2) a pass with a sender sends its batches when it ends; without one, the map has every batch
//       that outgoing packets were appended to, also before this pass. With a dry pool there may be
//       empty ones.
//   (3) a dropped packet is freed when the pass ends, or before when its memory is needed.
#pragma once

#include <glog/logging.h>

#include <algorithm>
#include <array>
#include <cstdint>

#include "Bess/Context.h"
#include "Bess/Module.h"
#include "Bess/PacketCopier.h"
#include "Bess/Task.h"
#include "Nynet/IntfId.h"
#include "Nynet/VlanIntfId.h"
#include "SfeModules/CounterEntries.h"
#include "SfeModules/ForwardRules.h"
#include "SfeModules/MfibTypes.h"
#include "SfeModules/NyUrcuHt.h"
#include "SfeModules/PacketFates.h"
#include "SfeModules/WayNumbers.h"

namespace SfeModules {

class ForwardingPass {
 public:
  using IntfSet = NyRcuHt<uint64_t, bool>;
  using IntfCounters = NyRcuHt<uint64_t, std::shared_ptr<IntfCounterEntry>>;

  // An interface that packets come from.
  struct Incoming {
    uint64_t intf = 0;
    bool multicast = false;  // enabled for multicast
    IntfCounterEntry* counters = nullptr;
    uint32_t packets = 0;
    uint32_t bytes = 0;
    uint32_t dropped = 0;
  };

  // An outgoing interface and the gate that leads to it.
  struct alignas(64) Outgoing {
    uint64_t intf;
    uint32_t gate;             // a gate_idx_t
    uint32_t bytes;            // appended in this pass
    bess::Packet** next;       // the place in the batch of the next packet; null without a batch
    bess::Packet** end;        // of the batch's places; likewise
    bess::PacketBatch* batch;  // null until it is needed. It learns of its packets at the end
    IntfCounterEntry* counters;
    uint16_t vlanId;  // of the interface, 0 when it has none
  };

  static constexpr size_t kMaxWays = 64;

  // The ways out of a route's second and further interfaces, one after the other, each with a
  // batch.
  struct Ways {
    const MfibPvSet* route = nullptr;  // null when they are good for no other packet
    MfibPvSet::WayNumbersOf numbers;   // whose routes have the same ways
    uint8_t gateSelect = 0;            // of the packets
    uint32_t first = 0;                // of the route's interfaces
    uint32_t next = 0;                 // the first interface that did not fit
    uint32_t count = 0;
    std::array<Outgoing*, kMaxWays> outs;
  };

  // By the number of a way out, the counters of its interface.
  using WayCounters = std::array<CountersMemo<IntfCounterEntry>, 1 + WayNumbers::kMost>;

  // What a pass knows of its module.
  struct Tables {
    const IntfSet& multicastIntfs;
    IntfCounters& intfCounters;
    const WayNumbers& wayNumbers;
    WayCounters& wayCounters;
    const PacketFates& fates;
  };

  // `sender`: null for a pass that leaves its batches in the map.
  ForwardingPass(Context* ctx,
                 TimePoint now,
                 OutputBatchMap& map,
                 const Tables& tables,
                 Module* sender)
      : ctx_(ctx),
        now_(now),
        map_(map),
        sender_(sender),
        multicastIntfs_(tables.multicastIntfs),
        intfCounters_(tables.intfCounters),
        wayNumbers_(tables.wayNumbers),
        wayCounters_(tables.wayCounters),
        fates_(tables.fates) {
    outs_[kNowhere].batch = nullptr;
  }
  ~ForwardingPass() {
    settle(incoming_);
    settle(route_);
    for (size_t i = kFirst; i < kFirst + opened_; ++i) {
      settle(outs_[i]);
    }
    if (spareUsed_) {
      settle(spare_);
    }
    settle(Fate::kForwarded, forwarded_);
    settle(Fate::kCopied, copied_);
    freeDropped();
    if (sender_ != nullptr) {
      send();
    }
  }
  ForwardingPass(const ForwardingPass&) = delete;
  ForwardingPass& operator=(const ForwardingPass&) = delete;

  Context* ctx() const { return ctx_; }
  TimePoint now() const { return now_; }

  static void sendAll(Module& sender, Context* ctx, const OutputBatchMap& map) {
    for (const auto& [way, batch] : map) {
      sender.RunChooseModule(ctx, way.gate, batch);
    }
  }

  // Returns: the interface's record, good until the next call.
  Incoming& incoming(uint64_t intf) {
    if (incoming_.counters == nullptr || incoming_.intf != intf) [[unlikely]] {
      open(incoming_, intf);
    }
    return incoming_;
  }

  // Counts a packet of a route.
  void countRoute(MrouteCounterEntry& counters, uint32_t bytes) {
    if (route_.counters != &counters) {
      settle(route_);
      route_ = {.counters = &counters};
    }
    route_.packets += 1;
    route_.bytes += bytes;
  }

  bess::PacketCopier& copier() { return copier_; }

  void countForwarded() { ++forwarded_; }
  void countCopied(size_t copies) { copied_ += copies; }

  // Returns: the record of the way out to a route's interface `i`, good until the next call.
  [[gnu::always_inline]] Outgoing& outgoing(const MfibPvSet& route, uint32_t i) {
    const uint8_t place = places_[route.oifWays()[i]];
    return place != kNowhere ? outs_[place] : openWay(route, i);
  }

  // Returns: those ways out from a route's interface `first` on that a packet with `gateSelect` may
  // take, good until the next call of this or of outgoing().
  const Ways& ways(const MfibPvSet& route, uint32_t first, uint8_t gateSelect) {
    if (!leadTheSameWays(route) || ways_.first != first || ways_.gateSelect != gateSelect) {
      ways_.route = &route;
      ways_.numbers = {};
      ways_.first = first;
      ways_.gateSelect = gateSelect;
      ways_.next = std::min<uint32_t>(route.numOifs, first + kMaxWays);
      ways_.count = gateSelect == 0 ? recallWays(route.oifWays() + first, ways_.next - first) : 0;
      if (ways_.count != ways_.next - first) [[unlikely]] {
        findWays(route, first + ways_.count);
      } else {
        ways_.numbers = route.wayNumbers();
      }
    }
    return ways_;
  }

  // Sends a packet of `bytes` with the others of this pass that leave the same way.
  [[gnu::always_inline]] void append(Outgoing& out, bess::Packet* pkt, uint32_t bytes) {
    if (out.batch == nullptr) [[unlikely]] {
      openBatch(out);
    }
    appendReady(out, pkt, bytes);
  }
  // Requires: the way out has its batch.
  [[gnu::always_inline]] static void appendReady(Outgoing& out, bess::Packet* pkt, uint32_t bytes) {
    CHECK(out.next != out.end) << "( unsigned )outBatch->cnt() <= bess::PacketBatch::kMaxBurst";
    *out.next++ = pkt;
    out.bytes += bytes;
  }

  // Takes a dropped packet, which stays as it is until freeDropped() or the pass's end.
  void addToDeadBatch(bess::Packet* pkt) {
    if (deadBatch_ == nullptr) {
      deadBatch_ = ctx_->task->AllocPacketBatch();
    }
    deadBatch_->add(pkt);
  }
  // Returns: false when there was none.
  bool freeDropped() {
    if (deadBatch_ == nullptr || deadBatch_->empty()) {
      return false;
    }
    bess::Packet::Free(deadBatch_);
    return true;
  }

 private:
  // The places of records: none, then those of the ways out in the order in which they were met.
  static constexpr size_t kNowhere = 0;
  static constexpr size_t kFirst = 1;
  static constexpr size_t kMaxOpened = 255;     // more ways out take turns with the spare record
  static constexpr size_t kHashedPlaces = 128;  // of ways without a number
  static constexpr size_t kProbes = 4;

  struct Route {
    MrouteCounterEntry* counters = nullptr;
    uint32_t packets = 0;
    uint32_t bytes = 0;
  };

  [[gnu::noinline]] void open(Incoming& in, uint64_t intf) {
    settle(in);
    in = {.intf = intf,
          .multicast = multicastIntfs_.contains(intf),
          .counters = &countingEntry(intfCounters_, intf)};
  }

  Outgoing& open(Outgoing& out, Nynet::IntfId oif, uint16_t gate, IntfCounterEntry& counters) {
    out = {.intf = oif.value(),
           .gate = gate,
           .bytes = 0,
           .next = nullptr,
           .end = nullptr,
           .batch = nullptr,
           .counters = &counters,
           .vlanId = Nynet::VlanIntfId::vlanId(oif)};
    return out;
  }

  // The record of a way out that the pass has not met, or that has no number.
  [[gnu::noinline]] Outgoing& openWay(const MfibPvSet& route, uint32_t i) {
    const uint8_t number = route.oifWays()[i];
    const bool numbered = number != WayNumbers::kNone;  // then nothing is read of the route's oifs
    const Nynet::IntfId oif =
        numbered ? Nynet::IntfId(wayNumbers_.way(number).intfId) : route.oifs()[i];
    const uint16_t gate =
        numbered ? wayNumbers_.way(number).gate : static_cast<uint16_t>(route.oifGates()[i]);
    uint8_t* const place = numbered ? &places_[number] : hashedPlace(oif, gate);
    if (place == nullptr || (*place == kNowhere && opened_ == kMaxOpened)) {
      return spare(oif, gate);
    }
    if (*place == kNowhere) {
      open(outs_[kFirst + opened_], oif, gate, countersOf(oif, number));
      *place = static_cast<uint8_t>(kFirst + opened_++);
    }
    return outs_[*place];
  }

  IntfCounterEntry& countersOf(Nynet::IntfId oif, uint8_t number) {
    if (number == WayNumbers::kNone) {
      return countingEntry(intfCounters_, oif.value());
    }
    const uint64_t departures = intfCounters_.departures();
    IntfCounterEntry* counters = wayCounters_[number].get(departures);
    if (counters == nullptr) {
      counters = &countingEntry(intfCounters_, oif.value());
      wayCounters_[number].put(departures, counters);
    }
    return revive(*counters);
  }

  // The place of a way out without a number, or one that it may have. Returns: null for none.
  uint8_t* hashedPlace(Nynet::IntfId oif, uint16_t gate) {
    size_t slot = WayNumbers::hash({.intfId = oif.value(), .gate = gate}) % kHashedPlaces;
    for (size_t probe = 0; probe < kProbes; ++probe) {
      uint8_t& place = hashedPlaces_[slot];
      if (place == kNowhere || (outs_[place].intf == oif.value() && outs_[place].gate == gate)) {
        return &place;
      }
      slot = (slot + 1) % kHashedPlaces;
    }
    return nullptr;
  }

  // For ways out that find no other place, one after the other.
  Outgoing& spare(Nynet::IntfId oif, uint16_t gate) {
    Outgoing& out = spare_;
    if (spareUsed_) {
      if (out.intf == oif.value() && out.gate == gate) {
        return out;
      }
      settle(out);
      spareUsed_ = false;
    }
    open(out, oif, gate, countingEntry(intfCounters_, oif.value()));
    spareUsed_ = true;
    return out;
  }

  // The spare record does not remember its batches.
  [[gnu::noinline]] void openBatch(Outgoing& out) {
    if (sender_ != nullptr && &out != &spare_) {
      out.batch = ctx_->task->AllocPacketBatch();
    } else {
      bess::PacketBatch*& batch = map_[IntfGateKey{out.intf, static_cast<uint16_t>(out.gate)}];
      if (batch == nullptr) {
        batch = ctx_->task->AllocPacketBatch();
      }
      out.batch = batch;
    }
    out.next = out.batch->end();
    out.end = out.batch->pkts() + bess::PacketBatch::kMaxBurst;
  }

  // Flows of many groups go to the same receivers.
  bool leadTheSameWays(const MfibPvSet& route) const {
    return ways_.route == &route ||
           (ways_.numbers.count != 0 && ways_.numbers == route.wayNumbers());
  }

  // Returns: how many of the ways with these numbers have a batch, up to the first that has none.
  uint32_t recallWays(const uint8_t* numbers, uint32_t count) {
    uint32_t known = 0;
    for (; known < count; ++known) {
      Outgoing& out = outs_[places_[numbers[known]]];
      if (out.batch == nullptr) [[unlikely]] {
        break;
      }
      ways_.outs[known] = &out;
    }
    return known;
  }

  // The further ones, from the route's interface `i` on.
  [[gnu::noinline]] void findWays(const MfibPvSet& route, uint32_t i) {
    for (; i < ways_.next; ++i) {
      Outgoing& out = outgoing(route, i);
      if (!permitsGate(ways_.gateSelect, static_cast<uint16_t>(out.gate))) {
        continue;
      }
      if (out.batch == nullptr) {
        openBatch(out);
      }
      ways_.outs[ways_.count++] = &out;
      if (&out == &spare_) {
        ways_.route = nullptr;  // the next one takes its place
        ways_.next = i + 1;
      }
    }
  }

  void send() {
    for (size_t i = kFirst; i < kFirst + opened_; ++i) {
      if (outs_[i].batch != nullptr) {
        sender_->RunChooseModule(ctx_, static_cast<gate_idx_t>(outs_[i].gate), outs_[i].batch);
      }
    }
    sendAll(*sender_, ctx_, map_);
  }

  // An entry that was withdrawn since it was found counts again, like one that is found later.
  static void settle(const Incoming& in) {
    if (in.packets + in.dropped != 0) {
      IntfCounterEntry& counters = revive(*in.counters);
      counters.pktsIn += in.packets;
      counters.bytesIn += in.bytes;
      counters.pktsDropped += in.dropped;
    }
  }
  static void settle(const Route& route) {
    if (route.packets != 0) {
      MrouteCounterEntry& counters = revive(*route.counters);
      counters.pktsIn += route.packets;
      counters.bytesIn += route.bytes;
    }
  }
  static void settle(const Outgoing& out) {
    if (out.batch != nullptr) {
      const auto packets = static_cast<uint32_t>(out.next - out.batch->end());
      out.batch->incrCnt(static_cast<int>(packets));
      IntfCounterEntry& counters = revive(*out.counters);
      counters.pktsOut += packets;
      counters.bytesOut += out.bytes;
    }
  }
  void settle(Fate fate, uint64_t packets) const {
    if (packets != 0) {
      fates_.count(ctx_->wid, fate, packets);
    }
  }

  Context* const ctx_;
  const TimePoint now_;
  OutputBatchMap& map_;
  Module* const sender_;
  const IntfSet& multicastIntfs_;
  IntfCounters& intfCounters_;
  const WayNumbers& wayNumbers_;
  WayCounters& wayCounters_;
  const PacketFates& fates_;

  bess::PacketCopier copier_;
  Incoming incoming_;
  Route route_;
  bess::PacketBatch* deadBatch_ = nullptr;
  uint64_t forwarded_ = 0;
  uint64_t copied_ = 0;
  Ways ways_;
  size_t opened_ = 0;
  bool spareUsed_ = false;
  // The place of a way out's record, kNowhere when it has none: by its number, or hashed.
  std::array<uint8_t, kFirst + WayNumbers::kMost> places_{};
  std::array<uint8_t, kHashedPlaces> hashedPlaces_{};
  std::array<Outgoing, kFirst + kMaxOpened> outs_;  // of the ways, opened_ are in use
  Outgoing spare_;
};

}  // namespace SfeModules
