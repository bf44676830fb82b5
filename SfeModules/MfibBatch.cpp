// The packet path's way through a batch: everything that waits for memory is asked for ahead.

#include <array>
#include <new>

#include "SfeModules/ForwardingPass.h"
#include "SfeModules/Mfib.h"

namespace SfeModules {

bool Mfib::ProcessPacket(Context* ctx,
                         bess::Packet* pkt,
                         bool reinjected,
                         OutputBatchMap& map,
                         TimePoint now) {
  ForwardingPass pass(ctx, now, map, *multicastIntfTable_, *intfCounterTable_, fates_);
  BatchWork room;
  PacketWork& work = arrive(room.packets.data(), pkt, reinjected, pass);
  hash(work, nullptr);
  lookUp(work, nullptr);
  return decide(work);
}

// A batch goes through the steps that wait for memory together: what one packet needs is fetched
// while the others are looked at.
void Mfib::ProcessBatch(Context* ctx, bess::PacketBatch* batch) {
  OutputBatchMap map(1);
  {
    ForwardingPass pass(ctx, Clock::now(), map, *multicastIntfTable_, *intfCounterTable_, fates_);
    BatchWork room;
    const auto begin = room.packets.begin();
    const auto end = begin + batch->cnt();
    for (bess::Packet* pkt : *batch) {
      __builtin_prefetch(pkt->metadata<char*>());
      __builtin_prefetch(pkt->headData());
    }
    auto* work = begin;
    const PacketWork* previous = nullptr;
    for (bess::Packet* pkt : *batch) {
      hash(arrive(work, pkt, false, pass), previous);
      previous = work++;
    }
    for (work = begin; work != end; ++work) {
      locate(*work);
    }
    previous = nullptr;
    for (work = begin; work != end; previous = work++) {
      lookUp(*work, previous);
    }
    for (work = begin; work != end; ++work) {
      decide(*work);
    }
  }
  flush(ctx, map);
}

// `room`: for a PacketWork.
inline Mfib::PacketWork& Mfib::arrive(void* room,
                                      bess::Packet* pkt,
                                      bool reinjected,
                                      ForwardingPass& pass) const {
  PacketWork& work = *new (room) PacketWork{.pass = &pass,
                                            .pkt = pkt,
                                            .inIntf = metadataOf(pkt).inIntfOrZero(),
                                            .reinjected = reinjected};
  work.parsed = parse(work);
  return work;
}

// `previous`: the packet before, often of the same route.
inline void Mfib::hash(PacketWork& work, const PacketWork* previous) const {
  const MfibKey& key = work.headers.key;
  if (work.parsed != Parsed::kOk || !isRoutableGroup(key.group, ipv4())) {
    return;
  }
  if (previous != nullptr && previous->search != Search::kNone && previous->headers.key == key) {
    work.search = Search::kAsPrevious;
    return;
  }
  work.search = Search::kOwn;
  work.routeHash = mfib_->nyHash(key);
  // Tables that were made in the same second have the same seed.
  work.counterHash = mrouteCounterTable_->seed() == mfib_->seed() ? work.routeHash
                                                                  : mrouteCounterTable_->nyHash(key);
  mfib_->prefetchSet(work.routeHash);
  mrouteCounterTable_->prefetchSet(work.counterHash);
}

inline void Mfib::locate(const PacketWork& work) const {
  if (work.search == Search::kOwn) {
    mfib_->prefetchNode(work.routeHash);
    mrouteCounterTable_->prefetchNode(work.counterHash);
  }
}

// Finds the (S,G) route and its counters.
inline void Mfib::lookUp(PacketWork& work, const PacketWork* previous) const {
  const MfibKey& key = work.headers.key;
  if (work.search == Search::kAsPrevious) {
    work.sourceGroup = previous->sourceGroup;
    work.counters = previous->counters;
  }
  if (work.search != Search::kOwn) {
    return;
  }
  work.sourceGroup = mfib_->find(key, work.routeHash);
  if (work.sourceGroup != nullptr) {
    work.sourceGroup->get()->prefetch();
    work.counters = mrouteCounterTable_->find(key, work.counterHash);
    if (work.counters != nullptr) {
      __builtin_prefetch(work.counters->get(), 1);
    }
  }
}

inline Parsed Mfib::parse(PacketWork& work) const {
  if (ipv4()) {
    return parseIpv4(work.pkt, modeFlag_ ? kEtherLen : 0, work.headers);
  }
  return parseIpv6(work.pkt, work.headers);
}

}  // namespace SfeModules
