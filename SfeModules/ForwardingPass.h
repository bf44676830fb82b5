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
//       that outgoing packets were appended to, also before this pass.
//   (3) a dropped packet is freed when the pass ends, or before when its memory is needed.
#pragma once

#include <glog/logging.h>

#include <array>
#include <cstdint>

#include "Bess/Context.h"
#include "Bess/Module.h"
#include "Bess/PacketStock.h"
#include "Bess/Task.h"
#include "Nynet/IntfId.h"
#include "Nynet/VlanIntfId.h"
#include "SfeModules/CounterEntries.h"
#include "SfeModules/MfibTypes.h"
#include "SfeModules/NyUrcuHt.h"
#include "SfeModules/PacketFates.h"

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
    uint32_t gate;             // a gate_idx_t, or kNoGate
    uint32_t bytes;            // appended in this pass
    bess::PacketBatch* batch;  // null until a packet is appended
    IntfCounterEntry* counters;
    int before;       // packets in the batch that other passes have appended
    uint16_t vlanId;  // of the interface, 0 when it has none

    bool is(Nynet::IntfId id, uint16_t itsGate) const {
      return ((intf ^ id.value()) | (gate ^ itsGate)) == 0;
    }
  };

  // What a pass knows of its module.
  struct Tables {
    const IntfSet& multicastIntfs;
    IntfCounters& intfCounters;
    const PacketFates& fates;
  };

  // `sender`: null for a pass that leaves its batches in the map.
  ForwardingPass(Context* ctx,
                 TimePoint now,
                 OutputBatchMap& map,
                 const Tables& tables,
                 Module* sender,
                 size_t packets)
      : ctx_(ctx),
        now_(now),
        map_(map),
        sender_(sender),
        multicastIntfs_(tables.multicastIntfs),
        intfCounters_(tables.intfCounters),
        fates_(tables.fates),
        stock_(packets) {
    outs_[kNowhere].intf = 0;
    outs_[kNowhere].gate = kNoGate;
  }
  ~ForwardingPass() {
    settle(incoming_);
    settle(route_);
    for (size_t i = kFirst; i < kFirst + opened_; ++i) {
      settle(outs_[i]);
    }
    if (spareUsed_) {
      settle(outs_[kSpare]);
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

  bess::PacketStock& stock() { return stock_; }

  void countForwarded() { ++forwarded_; }
  void countCopied(size_t copies) { copied_ += copies; }

  // Returns: the record of (interface, gate), good until the next call.
  Outgoing& outgoing(Nynet::IntfId oif, uint16_t gate) {
    if (Outgoing& out = outs_[places_[slotOf(oif, gate)]]; out.is(oif, gate)) [[likely]] {
      return out;
    }
    return findOrOpen(oif, gate);
  }

  // Sends a packet with the others of this pass that leave the same way.
  [[gnu::always_inline]] void append(Outgoing& out, bess::Packet* pkt) {
    if (out.batch == nullptr) [[unlikely]] {
      openBatch(out);
    }
    out.bytes += pkt->totalLen();
    CHECK(!out.batch->full()) << "( unsigned )outBatch->cnt() <= bess::PacketBatch::kMaxBurst";
    out.batch->add(pkt);
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
  static constexpr size_t kSlots = 128;  // more ways out than that share the spare one
  static constexpr size_t kProbes = 4;
  // The records: one that is no way out, those of the slots, the spare one.
  static constexpr size_t kNowhere = 0;
  static constexpr size_t kFirst = 1;
  static constexpr size_t kSpare = kFirst + kSlots;
  static constexpr uint32_t kNoGate = UINT32_MAX;

  struct Route {
    MrouteCounterEntry* counters = nullptr;
    uint32_t packets = 0;
    uint32_t bytes = 0;
  };

  // Multiplicative hashing: the numbers of interfaces differ in few bits, anywhere.
  static size_t slotOf(Nynet::IntfId oif, uint16_t gate) {
    constexpr uint64_t kGoldenRatio = 0x9e3779b97f4a7c15;
    return ((oif.value() + gate) * kGoldenRatio) >> 57;
  }
  static_assert(kSlots == size_t{1} << (64 - 57));

  [[gnu::noinline]] void open(Incoming& in, uint64_t intf) {
    settle(in);
    in = {.intf = intf,
          .multicast = multicastIntfs_.contains(intf),
          .counters = &countingEntry(intfCounters_, intf)};
  }

  Outgoing& open(Outgoing& out, Nynet::IntfId oif, uint16_t gate) {
    out = {.intf = oif.value(),
           .gate = gate,
           .bytes = 0,
           .batch = nullptr,
           .counters = &countingEntry(intfCounters_, oif.value()),
           .before = 0,
           .vlanId = Nynet::VlanIntfId::vlanId(oif)};
    return out;
  }

  [[gnu::noinline]] Outgoing& findOrOpen(Nynet::IntfId oif, uint16_t gate) {
    size_t slot = slotOf(oif, gate);
    for (size_t probe = 0; probe < kProbes; ++probe) {
      if (places_[slot] == kNowhere) {
        places_[slot] = static_cast<uint8_t>(kFirst + opened_++);
        return open(outs_[places_[slot]], oif, gate);
      }
      if (Outgoing& out = outs_[places_[slot]]; out.is(oif, gate)) {
        return out;
      }
      slot = (slot + 1) % kSlots;
    }
    return spare(oif, gate);
  }

  Outgoing& spare(Nynet::IntfId oif, uint16_t gate) {
    Outgoing& out = outs_[kSpare];
    if (spareUsed_) {
      if (out.is(oif, gate)) {
        return out;
      }
      settle(out);
    }
    spareUsed_ = true;
    return open(out, oif, gate);
  }

  // The spare record does not remember its batches.
  [[gnu::noinline]] void openBatch(Outgoing& out) {
    if (sender_ != nullptr && &out != &outs_[kSpare]) {
      out.batch = ctx_->task->AllocPacketBatch();
      return;
    }
    bess::PacketBatch*& batch = map_[IntfGateKey{out.intf, static_cast<uint16_t>(out.gate)}];
    if (batch == nullptr) {
      batch = ctx_->task->AllocPacketBatch();
    }
    out.batch = batch;
    out.before = batch->cnt();
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
      IntfCounterEntry& counters = revive(*out.counters);
      counters.pktsOut += static_cast<uint32_t>(out.batch->cnt() - out.before);
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
  const PacketFates& fates_;

  bess::PacketStock stock_;
  Incoming incoming_;
  Route route_;
  bess::PacketBatch* deadBatch_ = nullptr;
  uint64_t forwarded_ = 0;
  uint64_t copied_ = 0;
  size_t opened_ = 0;
  bool spareUsed_ = false;
  std::array<uint8_t, kSlots> places_{};   // by slot: the index in outs_, kNowhere when it is free
  std::array<Outgoing, kSpare + 1> outs_;  // of the slots' records, opened_ are in use
};

}  // namespace SfeModules
