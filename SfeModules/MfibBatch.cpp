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
  ForwardingPass pass(ctx, now, map, tables(), nullptr);
  BatchWork room;
  PacketWork& work = arrive(room.packets(), pkt, reinjected, pass);
  hash(work, nullptr);
  const uint64_t arrangement = mfib_->arrangement();
  locate(work);
  lookUp(work, nullptr, arrangement);
  findCounters(&work, &work + 1);
  return decideAll(&work, &work + 1) != 0;
}

// A batch goes through the steps that wait for memory together: what one packet needs is fetched
// while the others are looked at.
void Mfib::ProcessBatch(Context* ctx, bess::PacketBatch* batch) {
  OutputBatchMap map(1);
  ForwardingPass pass(ctx, Clock::now(), map, tables(), this);
  BatchWork room;
  PacketWork* const begin = room.packets();
  PacketWork* const end = begin + batch->cnt();
  for (bess::Packet* pkt : *batch) {
    __builtin_prefetch(pkt->metadata<char*>());
    __builtin_prefetch(pkt->headData());
  }
  PacketWork* work = begin;
  PacketWork* previous = nullptr;
  for (bess::Packet* pkt : *batch) {
    hash(arrive(work, pkt, false, pass), previous);
    previous = work++;
  }
  const uint64_t arrangement = mfib_->arrangement();
  for (work = begin; work != end; ++work) {
    locate(*work);
  }
  for (work = begin, previous = nullptr; work != end; previous = work++) {
    lookUp(*work, previous, arrangement);
  }
  const uint64_t departures = mrouteCounterTable_->departures();
  bool recalled = true;
  for (work = begin, previous = nullptr; work != end; previous = work++) {
    recalled &= recallCounters(*work, previous, departures);
  }
  if (!recalled) {
    findCounters(begin, end);
  }
  decideAll(begin, end);
}

// `room`: for a PacketWork.
inline Mfib::PacketWork& Mfib::arrive(void* room,
                                      bess::Packet* pkt,
                                      bool reinjected,
                                      ForwardingPass& pass) const {
  PacketWork& work = *new (room) PacketWork(pass, pkt, reinjected);
  work.data = pkt->headData<const char*>();
  work.inIntf = metadataOf(pkt).inIntfOrZero();
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
  mfib_->prefetch(work.routeHash);
}

inline void Mfib::locate(PacketWork& work) const {
  if (work.search == Search::kOwn) {
    work.located = mfib_->locate(work.routeHash);
  }
}

// Finds the (S,G) route.
inline void Mfib::lookUp(PacketWork& work, const PacketWork* previous, uint64_t arrangement) const {
  if (work.search == Search::kAsPrevious) {
    work.sourceGroup = previous->sourceGroup;
    return;
  }
  if (work.search != Search::kOwn) {
    return;
  }
  const std::shared_ptr<MfibPvSet>* route =
      mfib_->find(work.headers.key, work.routeHash, work.located, arrangement);
  if (route != nullptr) {
    work.sourceGroup = route->get();
    work.sourceGroup->prefetch();
  }
}

// Takes the counters of an (S,G) route from its memo. Returns: false when they are not there.
inline bool Mfib::recallCounters(PacketWork& work,
                                 const PacketWork* previous,
                                 uint64_t departures) const {
  if (work.sourceGroup == nullptr) {
    return true;
  }
  if (work.search == Search::kAsPrevious) {
    work.routeCounters = previous->routeCounters;
    return true;
  }
  work.sourceGroup->prefetchFurtherWays();
  work.routeCounters = work.sourceGroup->counters.get(departures);
  __builtin_prefetch(work.routeCounters, 1);
  return work.routeCounters != nullptr;
}

// Looks up the counters that no memo knows: entries leave the table with every publication.
void Mfib::findCounters(PacketWork* begin, PacketWork* end) const {
  const uint64_t departures = mrouteCounterTable_->departures();
  std::array<uint32_t, bess::PacketBatch::kMaxBurst> hashes;
  std::array<const MrouteCounters::Node*, bess::PacketBatch::kMaxBurst> located;
  const auto wanted = [](const PacketWork& work) {
    return work.sourceGroup != nullptr && work.routeCounters == nullptr;
  };
  for (PacketWork* work = begin; work != end; ++work) {
    if (wanted(*work)) {
      hashes[work - begin] = mrouteCounterTable_->nyHash(work->headers.key);
      mrouteCounterTable_->prefetch(hashes[work - begin]);
    }
  }
  const uint64_t arrangement = mrouteCounterTable_->arrangement();
  for (PacketWork* work = begin; work != end; ++work) {
    if (wanted(*work)) {
      located[work - begin] = mrouteCounterTable_->locate(hashes[work - begin]);
    }
  }
  for (PacketWork* work = begin; work != end; ++work) {
    if (!wanted(*work)) {
      continue;
    }
    const size_t i = work - begin;
    const std::shared_ptr<MrouteCounterEntry>* found =
        mrouteCounterTable_->find(work->headers.key, hashes[i], located[i], arrangement);
    if (found != nullptr) {
      work->routeCounters = found->get();
      work->sourceGroup->counters.put(departures, work->routeCounters);
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
