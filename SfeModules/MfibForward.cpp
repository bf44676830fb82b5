// The packet path: look-up and the fate of one packet, step by step in the order of the forwarding
// rules.

#include <glog/logging.h>
#include <rte_byteorder.h>
#include <rte_mbuf.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>
#include <exception>
#include <new>

#include "Bess/Task.h"
#include "Nynet/Pkt.h"
#include "Nynet/VlanIntfId.h"
#include "SfeModules/CounterEntries.h"
#include "SfeModules/ForwardRules.h"
#include "SfeModules/Mfib.h"

namespace SfeModules {

namespace {

constexpr uint8_t kTtlOfWildcardAlert = 1;
constexpr uint16_t kIpv4RegisterBytes =
    kIpv4MinLen + kPimRegisterLen;  // taken off on decapsulation
constexpr uint16_t kIpv6RegisterBytes = kIpv6Len + kPimRegisterLen;
constexpr uint32_t kDscpMask = 0xfc;
constexpr uint32_t kEcnMask = 0x03;
constexpr unsigned kQosMarkShift = 4;

// Takes an encapsulation of `bytes` off the front, when the first segment holds it.
void advance(bess::Packet* pkt, uint16_t bytes) {
  if (pkt->headLen() < bytes) {
    return;
  }
  if (pkt->totalLen() < bytes) {
    pkt->mendTotalLen();  // it was held: its total is its last segment's
  }
  pkt->adj(bytes);
}

// Copies `length` bytes from `offset` on, over all segments. What the packet does not hold stays as
// it is in `to`.
void copyOut(bess::Packet* pkt, size_t offset, uint8_t* to, size_t length) {
  for (const rte_mbuf* segment = pkt->mbuf(); segment != nullptr && length > 0;
       segment = segment->next) {
    if (offset >= segment->data_len) {
      offset -= segment->data_len;
      continue;
    }
    const size_t part = std::min<size_t>(length, segment->data_len - offset);
    std::memcpy(to, rte_pktmbuf_mtod_offset(segment, const uint8_t*, offset), part);
    to += part;
    length -= part;
    offset = 0;
  }
}

// The copies of other packets have taken the place of a packet's lines in the nearest cache.
[[gnu::always_inline]] inline void fetchAgain(const bess::Packet& pkt, const char* data) {
  const char* const mbuf = reinterpret_cast<const char*>(&pkt);
  __builtin_prefetch(mbuf);
  __builtin_prefetch(mbuf + RTE_CACHE_LINE_SIZE);
  __builtin_prefetch(pkt.metadata<const char*>());
  __builtin_prefetch(pkt.metadata<const char*>() + RTE_CACHE_LINE_SIZE);
  __builtin_prefetch(data);
}

uint32_t hostOrder(const AddrBytes& ipv4) {
  uint32_t word = 0;
  std::memcpy(&word, ipv4.data(), sizeof(word));
  return rte_be_to_cpu_32(word);
}

}  // namespace

Nynet::IpGenAddr Mfib::addrArrayToGenAddr(const unsigned char* bytes, unsigned int af) {
  return {af == kAfIpv4 ? Nynet::AddressFamily::kIpv4 : Nynet::AddressFamily::kIpv6, bytes};
}

Mfib::LookupResult Mfib::lookup(const MfibKey& key, const Mfib_U64& iif) const {
  const MfibKey search = MfibKey::of(key.source.data(), key.group.data(), addrLen_);
  if (const std::shared_ptr<MfibPvSet>* route = mfib_->find(search); route != nullptr) {
    return {route->get(), Match::kSourceGroup, search};
  }
  return lookupAnySource(search, iif);
}

// The look-up of a key without an (S,G) route.
Mfib::LookupResult Mfib::lookupAnySource(const MfibKey& key, const Mfib_U64& iif) const {
  if (!toggleMfaWcFwdEnabled()) {
    return {nullptr, Match::kNone, key};
  }
  MfibKey search = key;
  search.source = {};
  if (routesByType_[kAnySource].load(std::memory_order_acquire) == 0) {
    return {nullptr, Match::kNone, search};
  }
  const std::shared_ptr<MfibPvSet>* route = mfib_->find(search);
  if (route != nullptr && (*route)->iif.value() == iif.value) {
    return {route->get(), Match::kWildcard, search};
  }
  return {nullptr, Match::kNone, search};
}

size_t Mfib::decideAll(PacketWork* begin, PacketWork* end) {
  size_t kept = 0;
  constexpr ptrdiff_t kAhead = 2;
  for (PacketWork* work = begin; work != end; ++work) {
    if (end - work > kAhead) {
      fetchAgain(*work[kAhead].pkt, work[kAhead].data);
      if (work[kAhead].sourceGroup != nullptr) [[likely]] {
        work[kAhead].sourceGroup->prefetch();
      }
    }
    kept += decide(*work) ? 1 : 0;
  }
  return kept;
}

inline bool Mfib::decide(PacketWork& work) {
  ForwardingPass::Incoming& incoming = work.pass->incoming(work.inIntf);
  if (!work.reinjected) {
    incoming.packets += 1;
    incoming.bytes += work.pkt->totalLen();
  }
  if (work.parsed != Parsed::kOk) [[unlikely]] {
    drop(work, work.parsed == Parsed::kCutOff ? Fate::kDropCutOff : Fate::kDropPim);
    return finish(work);
  }
  const MfibKey& key = work.headers.key;
  if (!isRoutableGroup(key.group, ipv4())) [[unlikely]] {
    return passUnchanged(work);
  }
  if (isLinkLocalGroup(key.group, ipv4())) [[unlikely]] {
    drop(work, Fate::kDropLinkLocal);
    return finish(work);
  }
  if (!admitsFrom(incoming.multicast, work.headers.encap)) [[unlikely]] {
    bessCounterInc(work.ctx()->wid, nonMcastIifCounterId_);
    drop(work, Fate::kDropNonMulticastIntf);
    return finish(work);
  }
  const MfibPvSet* entry = work.sourceGroup;
  if (entry == nullptr && routesByType_[kAnySource].load(std::memory_order_acquire) != 0) {
    entry = findAnySource(work);
  }
  if (entry == nullptr) {
    return handleMissingRoute(work);
  }
  countForRoute(work);
  applyRoute(work, *entry);
  return finish(work);
}

// Returns: the (*,G) route that takes the packet, null when there is none.
const MfibPvSet* Mfib::findAnySource(PacketWork& work) {
  const MfibKey& key = work.headers.key;
  const LookupResult match = lookupAnySource(key, {work.inIntf});
  if (match.status == Match::kWildcard) {
    generateNoCacheAlert(work.ctx(), key, {work.inIntf}, kTtlOfWildcardAlert, work.now());
  }
  return match.entry;
}

// Counted under the packet's own (S,G), also when the (*,G) entry is used.
inline void Mfib::countForRoute(PacketWork& work) {
  if (work.routeCounters != nullptr) [[likely]] {
    revive(*work.routeCounters);
  } else {
    work.routeCounters = &countingEntry(*mrouteCounterTable_, work.headers.key);
  }
  work.pass->countRoute(*work.routeCounters, work.pkt->totalLen());
}

// Not multicast, or link-local IPv6: not ours. It leaves by gate 0 at once, as it came.
bool Mfib::passUnchanged(PacketWork& work) {
  bess::PacketBatch* alone = work.ctx()->task->AllocPacketBatch();
  alone->add(work.pkt);
  fates_.count(work.ctx()->wid, Fate::kPassed);
  RunChooseModule(work.ctx(), 0, alone);
  return false;
}

// Returns: what ProcessPacket returns.
bool Mfib::handleMissingRoute(PacketWork& work) {
  const Mfib_U64 iif{work.inIntf};
  const MfibKey& key = work.headers.key;
  const uint8_t ttl = work.headers.ttl;
  if (alertsOnLastHop(ttl)) {
    generateNoCacheAlert(work.ctx(), key, iif, ttl, work.now());
  }
  const uint32_t maxHeld = noCacheMgr_->maxUnresolvedPktBuffers_.load(std::memory_order_relaxed);
  switch (withoutRoute(ttl, work.reinjected, maxHeld)) {
    case WithoutRoute::kDropTtl:
      drop(work, Fate::kDropTtl);
      return finish(work);
    case WithoutRoute::kDropNoRoute:
      drop(work, Fate::kDropNoRoute);
      return finish(work);
    case WithoutRoute::kNotifyAndDrop:
      generateNoCacheAlert(work.ctx(), key, iif, ttl, work.now());
      drop(work, Fate::kDropNoRoute);
      return finish(work);
    case WithoutRoute::kOfferToTheCache:
      break;
  }
  if (!noCacheMgr_->addEntryIntoCache(key, work.pkt, work.inIntf)) {
    drop(work, Fate::kDropCacheFull);
    return finish(work);
  }
  fates_.count(work.ctx()->wid, Fate::kHeld);
  generateNoCacheAlert(work.ctx(), key, iif, ttl, work.now());
  bess::Packet::Free(work.pkt);  // the cache holds its own copy
  return true;
}

// The interface check, and what follows from it.
inline void Mfib::applyRoute(PacketWork& work, const MfibPvSet& entry) {
  const bool decap = work.headers.decap;
  switch (checkIif(entry, work.inIntf, decap, modeFlag_)) {
    case IifCheck::kNotRegister:
      work.routeCounters->pktsDropped += 1;
      drop(work, Fate::kDropNotRegister);
      return;
    case IifCheck::kWrong:
      considerWrongVif(work, entry);
      work.routeCounters->pktsDropped += 1;
      drop(work, Fate::kDropWrongIntf);
      return;
    case IifCheck::kRight:
      break;
  }
  if (forward(work, entry) == Forwarded::kHandled && looksWrongAfterForwarding(entry, decap)) {
    considerWrongVif(work, entry);
  }
}

void Mfib::considerWrongVif(PacketWork& work, const MfibPvSet& entry) {
  const MfibKey& key = work.headers.key;
  // What an entry remembers is of its own key.
  const MfibPvSet* own = work.sourceGroup;
  if ((own != nullptr && own->quiet.holds(work.inIntf, work.now())) ||
      !canAlertWrongVif(key, {work.inIntf}, entry, work.now(), own)) {
    notifications_.count(work.ctx()->wid, Notification::kWrongVifSuppressed);
    return;
  }
  fillMessage(wrongVifMsg_, work);
  bessCounterInc(work.ctx()->wid, wrongVifCounterId_);
  work.routeCounters->wrongVif += 1;
  try {
    addWrongVifTimestamp(key, work.inIntf, work.now());
  } catch (const std::exception&) {
    return;  // out of memory: without its time an alert would go out for every packet
  }
  notifications_.count(work.ctx()->wid, Notification::kWrongVif);
  notifySocket_->txMrtNotificationWithIntfId(wrongVifMsg_, work.inIntf);
}

// The addresses of the header in use.
void Mfib::fillMessage(const Orp::Ptr<Nynet::MrtMessage>& msg, const PacketWork& work) const {
  const MfibKey& key = work.headers.key;
  if (ipv4()) {
    v4MrtNotifyMessage(msg, hostOrder(key.source), hostOrder(key.group));
  } else {
    v6MrtNotifyMessage(msg, key.source.data(), key.group.data());
  }
}

inline Mfib::Forwarded Mfib::forward(PacketWork& work, const MfibPvSet& entry) {
  if (!ttlAllowsForwarding(work.headers.ttl)) {
    drop(work, Fate::kDropTtl);
    return Forwarded::kTtlExpired;
  }
  if (entry.oifRegister) {
    sendWholePacket(work);
  }
  if (entry.numOifs == 0) {
    work.routeCounters->pktsDropped += 1;
    drop(work, Fate::kDropNoOifs);
    return Forwarded::kHandled;
  }
  rewriteIp(work);
  replicate(work, entry);
  return Forwarded::kHandled;
}

// The control plane gets the whole IP packet; its rate is not limited. A length field that claims
// more than the packet holds gets what is there, and zeroes.
void Mfib::sendWholePacket(PacketWork& work) {
  const HeaderReader reader(work.pkt);
  const size_t ip = work.headers.ipOffset;
  const size_t lengthField =
      ip + (ipv4() ? offsetof(rte_ipv4_hdr, total_length) : offsetof(rte_ipv6_hdr, payload_len));
  unsigned length = (reader.byte(lengthField) << 8U) | reader.byte(lengthField + 1);
  if (!ipv4()) {
    length += kIpv6Len;
  }
  Orp::Ptr<Nynet::Pkt> whole;
  try {
    whole = Nynet::globalPktManager()->newPkt();
    copyOut(work.pkt, ip, whole->newSharedHeadData(length), length);
  } catch (const std::bad_alloc&) {
    return;  // the packet itself goes on
  }
  fillMessage(wholePktMsg_, work);
  wholePktMsg_->pktIs(whole);
  bessCounterInc(work.ctx()->wid, wholePktCounterId_);
  notifications_.count(work.ctx()->wid, Notification::kWholePkt);
  notifySocket_->txMrtNotificationWithIntfId(wholePktMsg_, work.inIntf);
}

// Takes the outer headers of a Register message off.
void Mfib::decapsulate(bess::Packet* pkt) const {
  advance(pkt, ipv4() ? kIpv4RegisterBytes : kIpv6RegisterBytes);
  if (modeFlag_ || !ipv4()) {
    writeEtherType(pkt->headData<uint8_t*>(), ipv4() ? RTE_ETHER_TYPE_IPV4 : RTE_ETHER_TYPE_IPV6);
  }
}

inline void Mfib::rewriteIp(PacketWork& work) const {
  bess::Packet* pkt = work.pkt;
  if (work.headers.decap) [[unlikely]] {
    decapsulate(pkt);
  }
  auto* data = pkt->headData<uint8_t*>();
  if (!ipv4()) {
    decrementByte(data + kEtherLen + offsetof(rte_ipv6_hdr, hop_limits));
    return;
  }
  if (modeFlag_) {
    uint8_t* ip = data + kEtherLen;
    rewriteIpv4Header(ip, ip[offsetof(rte_ipv4_hdr, type_of_service)]);
    return;
  }
  const uint32_t dscp = (metadataOf(pkt).qosMarkOrZero() >> kQosMarkShift) & kDscpMask;
  const uint32_t ecn = data[offsetof(rte_ipv4_hdr, type_of_service)] & kEcnMask;
  rewriteIpv4Header(data, static_cast<uint8_t>(dscp | ecn));
}

// The packet itself goes to the first interface, after its own rewrite; copies made of it go to the
// others.
inline void Mfib::replicate(PacketWork& work, const MfibPvSet& entry) {
  const uint8_t gateSelect = modeFlag_ ? metadataOf(work.pkt).gateSelectOrZero() : uint8_t{0};
  if (entry.numOifs == 1) {
    sendOriginal(work, entry, gateSelect);
    return;
  }
  const bess::PacketCopier::Metadata ofCopies = metadataOfCopies(work, gateSelect);
  sendOriginal(work, entry, gateSelect);
  sendCopies(work, entry, gateSelect, ofCopies);
}

inline void Mfib::sendOriginal(PacketWork& work, const MfibPvSet& entry, uint8_t gateSelect) {
  ForwardingPass::Outgoing& out = work.pass->outgoing(entry, 0);
  ForwardingMetadata& meta = metadataOf(work.pkt);
  if (modeFlag_ || !ipv4()) {
    rewriteLink(work.pkt, entry);
  } else {
    meta.encapHint = kEncapHintIp;
    meta.presence |= kHasEncapHint;
  }
  if (!permitsGate(gateSelect, static_cast<uint16_t>(out.gate))) [[unlikely]] {
    drop(work, Fate::kDropGate);  // it stays the source of the copies
    return;
  }
  meta.vlanId = out.vlanId;
  meta.vrfId = vrfId_;
  meta.outIntf = out.intf;
  meta.presence |= kHasVrfId | kHasOutIntf | kHasVlanId;
  work.pass->countForwarded();
  work.pass->append(out, work.pkt, work.pkt->totalLen());
}

// What the metadata of a packet's copies have in common: all that sendOriginal() sets is
// among it, or is set for each copy.
inline bess::PacketCopier::Metadata Mfib::metadataOfCopies(const PacketWork& work,
                                                           uint8_t gateSelect) const {
  using Meta = ForwardingMetadata;
  static_assert(std::endian::native == std::endian::little);
  const auto both = [](uint32_t low, uint32_t high) { return low | uint64_t{high} << 32; };
  const ForwardingMetadata& own = metadataOf(work.pkt);
  const bool bare = !modeFlag_ && ipv4();

  auto meta = bess::PacketCopier::Metadata::load(&own);
  meta.wordIs<offsetof(Meta, presence)>(
      own.presence | kHasOutIntf | kHasInIntf | kHasVrfId | kHasVlanId | kHasGateSelect |
      kHasCarriedByte | kHasCarriedWord1 | kHasCarriedWord2 | (bare ? kHasEncapHint : 0));
  meta.wordIs<offsetof(Meta, inIntf)>(work.inIntf);
  meta.wordIs<offsetof(Meta, vrfId)>(both(vrfId_, bare ? kEncapHintIp : own.encapHint));
  meta.wordIs<offsetof(Meta, carriedWord1)>(
      both(own.carriedWord1OrZero(), own.carriedWord2OrZero()));
  constexpr size_t kBytes = offsetof(Meta, reserved64);  // two of them, gateSelect, carriedByte
  static_assert(offsetof(Meta, gateSelect) == kBytes + 2);
  static_assert(offsetof(Meta, carriedByte) == kBytes + 3);
  meta.wordIs<kBytes>((meta.word<kBytes>() & ~uint64_t{0xffff0000}) | uint32_t{gateSelect} << 16 |
                      uint32_t{own.carriedByteOrZero()} << 24);
  return meta;
}

inline void Mfib::sendCopies(PacketWork& work,
                             const MfibPvSet& entry,
                             uint8_t gateSelect,
                             const bess::PacketCopier::Metadata& metadata) {
  ForwardingPass& pass = *work.pass;
  for (uint32_t first = 1; first < entry.numOifs;) {
    const ForwardingPass::Ways& ways = pass.ways(entry, first, gateSelect);
    size_t sent = 0;
    do {
      sent += sendCopies(work, metadata, ways.outs.data() + sent, ways.count - sent);
      // What was dropped is memory too, the packet itself excepted.
    } while (sent != ways.count && !work.dropped && pass.freeDropped());
    pass.countCopied(sent);
    if (sent != ways.count) [[unlikely]] {
      fates_.count(work.ctx()->wid, Fate::kCopyFailed, ways.count - sent);
    }
    first = ways.next;
  }
}

// Returns: to how many of the ways out a copy went. With a dry pool, the others go without.
inline size_t Mfib::sendCopies(PacketWork& work,
                               const bess::PacketCopier::Metadata& metadata,
                               ForwardingPass::Outgoing* const* outs,
                               size_t count) {
  const bool linear = work.pkt->isLinear();
  const uint32_t bytes = linear ? work.pkt->headLen() : work.pkt->totalLen();
  const auto send = [&outs, bytes](bess::Packet* copy) {
    ForwardingPass::Outgoing& out = **outs++;
    ForwardingMetadata& meta = metadataOf(copy);
    meta.vlanId = out.vlanId;
    meta.outIntf = out.intf;
    ForwardingPass::appendReady(out, copy, bytes);
  };
  if (linear) [[likely]] {
    return work.pass->copier().copy(work.pkt, metadata, count, send);
  }
  size_t sent = 0;
  for (; sent < count; ++sent) {
    bess::Packet* clone = bess::Packet::clone(work.pkt);
    if (clone == nullptr) {
      break;
    }
    metadata.store(&metadataOf(clone));
    send(clone);
  }
  return sent;
}

inline void Mfib::rewriteLink(bess::Packet* pkt, const MfibPvSet& entry) const {
  auto* ether = pkt->headData<rte_ether_hdr*>();
  const uint64_t bridgeMac = bridgeMac_.load(std::memory_order_relaxed);
  std::memcpy(&ether->dst_addr, entry.dstMac.data(), kMacLen);
  std::memcpy(&ether->src_addr, &bridgeMac, kMacLen);
}

void Mfib::drop(PacketWork& work, Fate reason) {
  fates_.count(work.ctx()->wid, reason);
  work.pass->addToDeadBatch(work.pkt);
  work.dropped = true;
}

inline bool Mfib::finish(PacketWork& work) {
  if (!work.dropped) [[likely]] {
    return true;
  }
  work.pass->incoming(work.inIntf).dropped += 1;
  return false;
}

}  // namespace SfeModules
