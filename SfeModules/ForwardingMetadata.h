// The forwarding metadata block that every packet carries in its metadata area.
//
// Ownership  : part of the packet; whoever owns the packet reads and writes it.
// Units      : interface ids are the 64-bit values of Nynet::IntfId, host byte order throughout.
// Invariants :
//   (1) an attribute counts only while its presence bit is set; the getters yield 0 otherwise.
//   (2) the layout is fixed: modules built apart from each other meet in it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "Bess/Packet.h"

namespace SfeModules {

// Presence bits, as masks of `presence`.
inline constexpr uint64_t kHasInIntf = uint64_t{1} << 0;
inline constexpr uint64_t kHasQosMark = uint64_t{1} << 1;
inline constexpr uint64_t kHasEncapHint = uint64_t{1} << 2;
inline constexpr uint64_t kHasVrfId = uint64_t{1} << 3;
inline constexpr uint64_t kHasOutIntf = uint64_t{1} << 12;
inline constexpr uint64_t kHasVlanId = uint64_t{1} << 13;
inline constexpr uint64_t kHasGateSelect = uint64_t{1} << 16;
inline constexpr uint64_t kHasCarriedByte = uint64_t{1} << 17;
inline constexpr uint64_t kHasCarriedWord1 = uint64_t{1} << 24;
inline constexpr uint64_t kHasCarriedWord2 = uint64_t{1} << 36;

// `encapHint` of a packet that begins with its IP header and still needs a link header.
inline constexpr uint32_t kEncapHintIp = 0x20000;

struct ForwardingMetadata {
  uint64_t presence;
  uint8_t reserved8[8];
  uint64_t inIntf;
  uint64_t outIntf;
  uint32_t vrfId;
  uint32_t encapHint;
  uint8_t reserved40[4];
  uint32_t qosMark;
  uint32_t carriedWord1;
  uint32_t carriedWord2;
  uint8_t reserved56[6];
  uint16_t vlanId;
  uint8_t reserved64[2];
  uint8_t gateSelect;
  uint8_t carriedByte;
  uint8_t reserved68[60];

  constexpr bool has(uint64_t mask) const { return (presence & mask) == mask; }

  constexpr uint64_t inIntfOrZero() const { return has(kHasInIntf) ? inIntf : 0; }
  constexpr uint64_t outIntfOrZero() const { return has(kHasOutIntf) ? outIntf : 0; }
  constexpr uint32_t vrfIdOrZero() const { return has(kHasVrfId) ? vrfId : 0; }
  constexpr uint32_t encapHintOrZero() const { return has(kHasEncapHint) ? encapHint : 0; }
  constexpr uint32_t qosMarkOrZero() const { return has(kHasQosMark) ? qosMark : 0; }
  constexpr uint32_t carriedWord1OrZero() const { return has(kHasCarriedWord1) ? carriedWord1 : 0; }
  constexpr uint32_t carriedWord2OrZero() const { return has(kHasCarriedWord2) ? carriedWord2 : 0; }
  constexpr uint16_t vlanIdOrZero() const { return has(kHasVlanId) ? vlanId : uint16_t{0}; }
  constexpr uint8_t gateSelectOrZero() const {
    return has(kHasGateSelect) ? gateSelect : uint8_t{0};
  }
  constexpr uint8_t carriedByteOrZero() const {
    return has(kHasCarriedByte) ? carriedByte : uint8_t{0};
  }
};

static_assert(std::is_standard_layout_v<ForwardingMetadata>);
static_assert(std::is_trivially_copyable_v<ForwardingMetadata>);
static_assert(sizeof(ForwardingMetadata) == 128);
static_assert(sizeof(ForwardingMetadata) == bess::Packet::kMetadataSize);
static_assert(alignof(ForwardingMetadata) == 8);
static_assert(offsetof(ForwardingMetadata, presence) == 0);
static_assert(offsetof(ForwardingMetadata, inIntf) == 16);
static_assert(offsetof(ForwardingMetadata, outIntf) == 24);
static_assert(offsetof(ForwardingMetadata, vrfId) == 32);
static_assert(offsetof(ForwardingMetadata, encapHint) == 36);
static_assert(offsetof(ForwardingMetadata, qosMark) == 44);
static_assert(offsetof(ForwardingMetadata, carriedWord1) == 48);
static_assert(offsetof(ForwardingMetadata, carriedWord2) == 52);
static_assert(offsetof(ForwardingMetadata, vlanId) == 62);
static_assert(offsetof(ForwardingMetadata, gateSelect) == 66);
static_assert(offsetof(ForwardingMetadata, carriedByte) == 67);
static_assert(sizeof(ForwardingMetadata::presence) == 8);
static_assert(sizeof(ForwardingMetadata::inIntf) == 8);
static_assert(sizeof(ForwardingMetadata::outIntf) == 8);
static_assert(sizeof(ForwardingMetadata::vrfId) == 4);
static_assert(sizeof(ForwardingMetadata::encapHint) == 4);
static_assert(sizeof(ForwardingMetadata::qosMark) == 4);
static_assert(sizeof(ForwardingMetadata::carriedWord1) == 4);
static_assert(sizeof(ForwardingMetadata::carriedWord2) == 4);
static_assert(sizeof(ForwardingMetadata::vlanId) == 2);
static_assert(sizeof(ForwardingMetadata::gateSelect) == 1);
static_assert(sizeof(ForwardingMetadata::carriedByte) == 1);

inline ForwardingMetadata& metadataOf(bess::Packet* pkt) {
  return *pkt->metadata<ForwardingMetadata*>();
}

}  // namespace SfeModules
