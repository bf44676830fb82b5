// The packet path's way through a batch: everything that waits for memory is asked for ahead.

#include <array>

#include "SfeModules/ForwardingPass.h"
#include "SfeModules/Mfib.h"

namespace SfeModules {

bool Mfib::ProcessPacket(Context* ctx,
                         bess::Packet* pkt,
                         bool reinjected,
                         OutputBatchMap& map,
                         TimePoint now) {
  ForwardingPass pass(ctx, now, map, *multicastIntfTable_, *intfCounterTable_);
  PacketWork work;
  arrive(work, pkt, reinjected, pass);
  hash(work, nullptr);
  lookUp(work, nullptr);
  return decide(work);
}

// A batch goes through the steps that wait for memory together: what one packet needs is fetched
// while the others are looked at.
void Mfib::ProcessBatch(Context* ctx, bess::PacketBatch* batch) {
  OutputBatchMap map(1);
  {
    ForwardingPass pass(ctx, Clock::now(), map, *multicastIntfTable_, *intfCounterTable_);
    std::array<PacketWork, bess::PacketBatch::kMaxBurst> works;
    const auto count = static_cast<size_t>(batch->cnt());
    for (bess::Packet* pkt : *batch) {
      __builtin_prefetch(pkt->metadata<char*>());
      __builtin_prefetch(pkt->headData());
    }
    for (size_t i = 0; i < count; ++i) {
      arrive(works[i], batch->pkts()[i], false, pass);
      hash(works[i], i == 0 ? nullptr : &works[i - 1]);
    }
    for (size_t i = 0; i < count; ++i) {
      locate(works[i]);
    }
    for (size_t i = 0; i < count; ++i) {
      lookUp(works[i], i == 0 ? nullptr : &works[i - 1]);
    }
    for (size_t i = 0; i < count; ++i) {
      decide(works[i]);
    }
  }
  flush(ctx, map);
}

void Mfib::arrive(PacketWork& work,
                  bess::Packet* pkt,
                  bool reinjected,
                  ForwardingPass& pass) const {
  const ForwardingMetadata& arrived = metadataOf(pkt);
  work.pass = &pass;
  work.pkt = pkt;
  work.reinjected = reinjected;
  work.inIntf = arrived.inIntfOrZero();
  work.carriedWord1 = arrived.carriedWord1OrZero();
  work.carriedWord2 = arrived.carriedWord2OrZero();
  work.parsed = parse(work);
}

// `previous`: the packet before, often of the same route.
void Mfib::hash(PacketWork& work, const PacketWork* previous) const {
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
  work.counterHash = mrouteCounterTable_->nyHash(key);
  mfib_->prefetchSet(work.routeHash);
  mrouteCounterTable_->prefetchSet(work.counterHash);
}

void Mfib::locate(const PacketWork& work) const {
  if (work.search == Search::kOwn) {
    mfib_->prefetchNode(work.routeHash);
    mrouteCounterTable_->prefetchNode(work.counterHash);
  }
}

// Finds the (S,G) route and its counters.
void Mfib::lookUp(PacketWork& work, const PacketWork* previous) const {
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

Parsed Mfib::parse(PacketWork& work) const {
  if (ipv4()) {
    return parseIpv4(work.pkt, modeFlag_ ? kEtherLen : 0, work.headers);
  }
  return parseIpv6(work.pkt, work.headers);
}

}  // namespace SfeModules
