// IntfIn: the edge through which frames enter the engine.
//
// A frame belongs to the interface of its port and VLAN. Gate 0: IPv4 multicast data, gate 1: IPv6
// multicast data, both without their VLAN tag; gate 2: everything else, unchanged, for the host. An
// interface with a gate base has these three gates from that number on, so that the interfaces of a
// VRF lead to the VRF's own instances. A
// packet that leaves carries its incoming interface and no other metadata. Frames of unknown ports
// and VLANs, frames to somebody else's unicast address, and frames whose headers are cut off are
// dropped and counted by reason.
//
// Data leaves with its headers, up to kHeaderBytes behind the link header, in the first segment.
//
// Threads    : as Module says; every worker may be in one instance.
#pragma once

#include "SfeModules/IntfEdge.h"
#include "SfeModules/IntfFrame.h"
#include "protocol/sfe.pb.h"

namespace SfeModules {

enum class IntfInDrop {
  kRunt,
  kTruncated,
  kUnknownPort,
  kUnknownVlan,
  kOtherHost,
  kNoBuffer,
  kReasons
};

class IntfIn final : public IntfEdge<IntfIn, IntfInDrop> {
 public:
  static constexpr gate_idx_t kIpv4Gate = 0;
  static constexpr gate_idx_t kIpv6Gate = 1;
  static constexpr gate_idx_t kHostGate = 2;
  static constexpr gate_idx_t kGatesOfBase = 3;
  static constexpr gate_idx_t kGates = IntfTable::kMaxGateBase + kGatesOfBase;

  // The longest headers that forwarding looks at: IPv6, a Register's PIM header, IPv6.
  static constexpr uint32_t kHeaderBytes = 40 + 8 + 40;

  IntfIn();
  CommandResponse Init(const sfe::pb::IntfInArg& arg);

  static ModuleClass moduleClass();

 private:
  friend IntfEdge;

  void process(Context* ctx, bess::Packet* pkt);
  void passData(Context* ctx,
                bess::Packet* pkt,
                const LinkHeader& link,
                bool ipv4,
                gate_idx_t gateBase);

  bool stripIpv4_ = false;
};

// Made where process() is, so that the walk over a batch has it in line.
extern template class IntfEdge<IntfIn, IntfInDrop>;

}  // namespace SfeModules
