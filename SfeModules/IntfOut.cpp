#include "SfeModules/IntfOut.h"

#include <netinet/in.h>
#include <netinet/ip.h>
#include <rte_byteorder.h>
#include <rte_ether.h>
#include <rte_ip.h>
#include <rte_mbuf.h>

#include <algorithm>
#include <cstring>

#include "SfeModules/ForwardingMetadata.h"
#include "SfeModules/PacketBuffer.h"

namespace SfeModules {
namespace {

// A link header being built: Ethernet and, where the interface has one, a VLAN tag.
struct NewLink {
  uint8_t bytes[RTE_ETHER_HDR_LEN + RTE_VLAN_HLEN];
  uint16_t length = RTE_ETHER_HDR_LEN;
};

// Puts the tag between the addresses and the EtherType.
void addTag(NewLink* link, uint16_t vlan) {
  if (vlan == 0) {
    return;
  }
  constexpr size_t kAddresses = 2 * RTE_ETHER_ADDR_LEN;
  std::memmove(link->bytes + kAddresses + RTE_VLAN_HLEN, link->bytes + kAddresses,
               sizeof(rte_be16_t));
  rte_be16_t tag[2] = {rte_cpu_to_be_16(RTE_ETHER_TYPE_VLAN), rte_cpu_to_be_16(vlan)};
  static_assert(sizeof(tag) == RTE_VLAN_HLEN);
  std::memcpy(link->bytes + kAddresses, tag, sizeof(tag));
  link->length += RTE_VLAN_HLEN;
}

// The group's Ethernet address: RFC 1112, 6.4 and RFC 2464, 7. Returns: false for anything but a
// group.
bool groupAddress(const rte_mbuf* mbuf, rte_ether_hdr* ethernet) {
  rte_ipv6_hdr copy;
  uint8_t* mac = ethernet->dst_addr.addr_bytes;
  auto* first = static_cast<const uint8_t*>(rte_pktmbuf_read(mbuf, 0, 1, &copy));
  if (first != nullptr && *first >> 4 == IPVERSION) {
    auto* ip = static_cast<const uint8_t*>(rte_pktmbuf_read(mbuf, 0, sizeof(rte_ipv4_hdr), &copy));
    const uint8_t* group = ip == nullptr ? nullptr : ip + offsetof(rte_ipv4_hdr, dst_addr);
    if (group == nullptr || (group[0] & 0xf0) != 0xe0) {
      return false;
    }
    const uint8_t address[] = {0x01,     0x00,    0x5e, static_cast<uint8_t>(group[1] & 0x7f),
                               group[2], group[3]};
    std::memcpy(mac, address, sizeof(address));
    ethernet->ether_type = rte_cpu_to_be_16(RTE_ETHER_TYPE_IPV4);
    return true;
  }
  auto* ip = static_cast<const uint8_t*>(rte_pktmbuf_read(mbuf, 0, sizeof(copy), &copy));
  const uint8_t* group = ip == nullptr ? nullptr : ip + offsetof(rte_ipv6_hdr, dst_addr);
  if (group == nullptr || ip[0] >> 4 != 6 || group[0] != 0xff) {
    return false;
  }
  mac[0] = mac[1] = 0x33;
  constexpr size_t kLow = 4;
  std::memcpy(mac + 2, group + sizeof(copy.dst_addr) - kLow, kLow);
  ethernet->ether_type = rte_cpu_to_be_16(RTE_ETHER_TYPE_IPV6);
  return true;
}

// Puts `link` where the first `skip` bytes were. Takes `pkt` unless it returns null.
bess::Packet* replaceFront(bess::Packet* pkt, const NewLink& link, uint16_t skip) {
  bool inPlace = isWritable(pkt) && pkt->headLen() >= skip && pkt->headroom() >= link.length - skip;
  if (!inPlace) {
    pkt = chainInFront(pkt, link.length, skip);
    if (pkt == nullptr) {
      return nullptr;
    }
  } else {
    pkt->prepend(static_cast<uint16_t>(link.length - skip));
  }
  std::memcpy(pkt->headData(), link.bytes, link.length);
  return pkt;
}

}  // namespace

IntfOut::IntfOut()
    : IntfEdge({"no outgoing interface", "unknown interface", "frame shorter than its link header",
                "no group to make a link header for", "no packet buffer"}) {}

CommandResponse IntfOut::Init(const sfe::pb::IntfOutArg&) {
  return CommandSuccess();
}

void IntfOut::process(Context* ctx, bess::Packet* pkt) {
  ForwardingMetadata& metadata = metadataOf(pkt);
  if (!metadata.has(kHasOutIntf)) {
    return drop(ctx, pkt, Drop::kNoInterface);
  }
  const Intf* intf = table_.withId(metadata.outIntf);
  if (intf == nullptr) {
    return drop(ctx, pkt, Drop::kUnknownInterface);
  }
  pkt->mendTotalLen();  // one that was held may come with its last segment's length
  bool bare = metadata.encapHintOrZero() == kEncapHintIp;
  if (!bare && pkt->totalLen() < RTE_ETHER_HDR_LEN) {
    return drop(ctx, pkt, Drop::kRunt);
  }
  if (!bare && intf->vlan == 0) {
    return EmitPacket(ctx, pkt, intf->port);
  }
  NewLink link;
  if (bare) {
    rte_ether_hdr ethernet;
    if (!groupAddress(pkt->mbuf(), &ethernet)) {
      return drop(ctx, pkt, Drop::kNotMulticast);
    }
    std::memcpy(ethernet.src_addr.addr_bytes, intf->mac.data(), intf->mac.size());
    std::memcpy(link.bytes, &ethernet, sizeof(ethernet));
    // The header is there now: nobody behind puts on another one.
    metadata.presence &= ~kHasEncapHint;
  } else {
    const void* old = rte_pktmbuf_read(pkt->mbuf(), 0, RTE_ETHER_HDR_LEN, link.bytes);
    if (old != link.bytes) {
      std::memcpy(link.bytes, old, RTE_ETHER_HDR_LEN);
    }
  }
  addTag(&link, intf->vlan);
  bess::Packet* framed = replaceFront(pkt, link, bare ? 0 : RTE_ETHER_HDR_LEN);
  if (framed == nullptr) {
    return drop(ctx, pkt, Drop::kNoBuffer);
  }
  EmitPacket(ctx, framed, intf->port);
}

ModuleClass IntfOut::moduleClass() {
  return {
      .name = "IntfOut",
      .help =
          "puts on VLAN tag and link header; a packet leaves by the gate with the number of its "
          "interface's port",
      .igates = 1,
      .ogates = RTE_MAX_ETHPORTS,
      .commands = edgeCommands(),
      .init = makeInit<&IntfOut::Init>(),
      .nameTemplate = "intf_out"};
}

template class IntfEdge<IntfOut, IntfOutDrop>;

}  // namespace SfeModules
