#include "SfeModules/IntfIn.h"

#include <rte_ether.h>
#include <rte_mbuf.h>

#include <algorithm>
#include <cstring>

#include "SfeModules/ForwardingMetadata.h"
#include "SfeModules/PacketBuffer.h"

namespace SfeModules {

IntfIn::IntfIn()
    : IntfEdge({"frame shorter than its link header", "header cut off", "no interface on this port",
                "unknown VLAN", "unicast to another host", "no packet buffer"}) {}

CommandResponse IntfIn::Init(const sfe::pb::IntfInArg& arg) {
  stripIpv4_ = arg.strip_ipv4();
  return CommandSuccess();
}

void IntfIn::process(Context* ctx, bess::Packet* pkt) {
  const rte_mbuf* mbuf = pkt->mbuf();
  LinkHeader link = parseLink(mbuf);
  if (link.result == LinkHeader::Result::kRunt) {
    return drop(ctx, pkt, Drop::kRunt);
  }
  if (link.result == LinkHeader::Result::kForeignTag) {
    return drop(ctx, pkt, Drop::kUnknownVlan);
  }
  const Intf* intf = table_.at(mbuf->port, link.vlan);
  if (intf == nullptr) {
    return drop(ctx, pkt, link.vlan == 0 ? Drop::kUnknownPort : Drop::kUnknownVlan);
  }
  bool unicast = (link.destination[0] & RTE_ETHER_GROUP_ADDR) == 0;
  if (unicast && !std::equal(intf->mac.begin(), intf->mac.end(), link.destination)) {
    return drop(ctx, pkt, Drop::kOtherHost);
  }
  FrameKind kind = classify(mbuf, link);
  if (kind == FrameKind::kTruncated) {
    return drop(ctx, pkt, Drop::kTruncated);
  }
  ForwardingMetadata& metadata = metadataOf(pkt);
  std::memset(&metadata, 0, sizeof(metadata));
  metadata.presence = kHasInIntf;
  metadata.inIntf = intf->id.value();
  if (kind == FrameKind::kHost) {
    return EmitPacket(ctx, pkt, static_cast<gate_idx_t>(intf->gateBase + kHostGate));
  }
  passData(ctx, pkt, link, kind == FrameKind::kIpv4Data, intf->gateBase);
}

void IntfIn::passData(Context* ctx,
                      bess::Packet* pkt,
                      const LinkHeader& link,
                      bool ipv4,
                      gate_idx_t gateBase) {
  bool strip = ipv4 && stripIpv4_;
  bool untag = link.tagged && !strip;
  uint32_t headers = std::min(pkt->totalLen(), link.length + kHeaderBytes);
  // What follows rewrites headers in place, so a buffer that others share is copied here.
  if (pkt->headLen() < headers || !isWritable(pkt)) {
    bess::Packet* own = ownCopy(pkt, headers);
    if (own == nullptr) {
      return drop(ctx, pkt, Drop::kNoBuffer);
    }
    bess::Packet::Free(pkt);
    pkt = own;
  }
  if (strip) {
    pkt->adj(link.length);
  } else if (untag) {
    auto* bytes = pkt->headData<uint8_t*>();
    std::memmove(bytes + RTE_VLAN_HLEN, bytes, 2 * RTE_ETHER_ADDR_LEN);
    pkt->adj(RTE_VLAN_HLEN);
  }
  EmitPacket(ctx, pkt, static_cast<gate_idx_t>(gateBase + (ipv4 ? kIpv4Gate : kIpv6Gate)));
}

ModuleClass IntfIn::moduleClass() {
  return {.name = "IntfIn",
          .help =
              "gives frames their incoming interface; gates: 0 IPv4 multicast data, "
              "1 IPv6 multicast data, 2 for the host, each plus the interface's gate base",
          .igates = 1,
          .ogates = kGates,
          .commands = edgeCommands(),
          .init = makeInit<&IntfIn::Init>(),
          .nameTemplate = "intf_in"};
}

template class IntfEdge<IntfIn, IntfInDrop>;

}  // namespace SfeModules
